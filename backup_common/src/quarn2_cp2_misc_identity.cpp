#include "quarn2_cp2_misc_identity.h"

#include <cstdint>
#include <map>

#include "kro/kro_file.h"
#include "kro/str.h"
#include "quarn2_cp2_misc_storage.h"

namespace {

std::uint16_t DefaultPort(const std::string& scheme) {
    static const std::map<std::string, std::uint16_t> ports = {
        {"s3", 443},         {"s3+http", 80}, {"sftp", 22}, {"webdav", 443},
        {"webdav+http", 80}, {"ftps", 21},    {"ftp", 21}};
    const auto found = ports.find(scheme);
    return found == ports.end() ? 0 : found->second;
}

}  // namespace

std::string StorageIdentity(const quarn2::BackupToken& token) {
    if (token.IsLocal()) return token.scheme() + "://" + StorageDirectory(token).string();
    std::string text = token.scheme() + "://" + str::Lower(token.host());
    if (token.port() != 0 && token.port() != DefaultPort(token.scheme())) {
        text += ":" + str::Str(token.port());
    }
    std::string path = kro_file::GoodPath(token.path());
    while (!path.empty() && path.front() == '/') path.erase(0, 1);
    while (!path.empty() && path.back() == '/') path.pop_back();
    return text + "/" + path;
}
