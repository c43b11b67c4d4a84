#include "built_in_schemes.h"
#include "kro/kro_file.h"
#include "kro/str.h"

namespace quarn2 {

namespace {

std::string Fault(const BackupToken& token) {
    if (!token.host().empty()) {
        return "a local storage has no host; write an absolute directory with three slashes, "
               "local:///srv/backups, and a directory below the install root without a leading "
               "slash, "
               "local:var/backup/storage";
    }
    for (const char* const name : {"ca", "timeout"}) {
        if (!token.Param(name).empty()) {
            return std::string("a local storage does not support parameter '") + name + "'";
        }
    }
    const std::string root = kro_file::GoodPath(token.path());
    if (root.empty()) return "a local storage needs a directory, as in local:///srv/backups";
    if (root == "/") return "the root directory cannot be a storage";
    if (root == ".." || str::StartsWith(root, "../")) {
        return "a relative storage directory must be below the install root";
    }
    return {};
}

}  // namespace

// Access to a local directory needs no network round trips, so parallel requests would only start
// threads without a benefit.
TokenScheme LocalTokenScheme() { return {"local", {}, {}, Fault, 1}; }

}  // namespace quarn2
