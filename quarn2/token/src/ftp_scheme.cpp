#include "base/stored_name.h"
#include "built_in_schemes.h"

namespace quarn2 {

namespace {

std::string Fault(const BackupToken& token) {
    const std::string form =
        ", as in " + token.scheme() + "://user:password@ftp.example.com/backups";
    if (token.host().empty()) return "an FTP storage needs a host" + form;
    if (token.user().empty() || token.password().empty()) {
        return "an FTP storage needs a user name and a password" + form;
    }
    if (token.path().empty()) {
        return "an FTP storage needs a directory" + form +
               "; use '/' for the root directory of the account";
    }
    if (HasComponent(token.path(), "..")) {
        return "the directory of an FTP storage must not contain '..'";
    }
    return {};
}

}  // namespace

TokenScheme FtpTokenScheme(const std::string& name) { return {name, {}, {}, Fault}; }

}  // namespace quarn2
