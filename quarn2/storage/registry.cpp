#include "quarn2_backend/registry.h"

#include <map>
#include <utility>
#include <vector>

#include "backends/ftp/ftp_backend.h"
#include "backends/local/local_backend.h"
#include "backends/s3/s3_backend.h"
#include "backends/sftp/sftp_backend.h"
#include "backends/webdav/webdav_backend.h"

namespace quarn2 {

namespace {

using Schemes = std::map<std::string, BackendScheme>;

// Returns the schemes of all built-in storages.
Schemes BuiltIn() {
    Schemes schemes;
    for (BackendScheme& scheme : std::vector<BackendScheme>{
             LocalScheme(),
             FtpsScheme(),
             FtpScheme(),
             S3PlainScheme(),
             S3Scheme(),
             WebdavScheme(),
             WebdavHttpScheme(),
             SftpScheme(),
         }) {
        schemes.insert_or_assign(scheme.scheme, std::move(scheme));
    }
    return schemes;
}

Schemes& Registered() {
    static Schemes schemes = BuiltIn();
    return schemes;
}

}  // namespace

const BackendScheme* FindScheme(const std::string& scheme) {
    const auto found = Registered().find(scheme);
    return found == Registered().end() ? nullptr : &found->second;
}

void RegisterScheme(BackendScheme scheme) {
    AddTokenScheme(scheme);
    std::string name = scheme.scheme;
    Registered().insert_or_assign(std::move(name), std::move(scheme));
}

}  // namespace quarn2
