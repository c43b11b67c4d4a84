#include "quarn2_cp2_misc_identity.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <filesystem>
#include <map>

#include "kro/kro_file.h"
#include "kro/str.h"

namespace {

std::uint16_t DefaultPort(const std::string& scheme) {
    static const std::map<std::string, std::uint16_t> ports = {
        {"s3", 443},         {"s3+http", 80}, {"sftp", 22}, {"webdav", 443},
        {"webdav+http", 80}, {"ftps", 21},    {"ftp", 21}};
    const auto found = ports.find(scheme);
    return found == ports.end() ? 0 : found->second;
}

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// A path that cannot be resolved, such as one below a directory without rights, stays as it is.
std::string ResolvedPath(const std::string& path) {
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(path, error);
    const std::filesystem::path resolved = std::filesystem::weakly_canonical(absolute, error);
    return kro_file::GoodPath(error ? path : resolved.string());
}

}  // namespace

std::string StorageIdentity(const quarn2::BackupToken& token) {
    if (token.IsLocal()) return token.scheme() + "://" + ResolvedPath(token.path());
    std::string text = token.scheme() + "://" + Lower(token.host());
    if (token.port() != 0 && token.port() != DefaultPort(token.scheme())) {
        text += ":" + str::Str(token.port());
    }
    std::string path = kro_file::GoodPath(token.path());
    while (!path.empty() && path.front() == '/') path.erase(0, 1);
    while (!path.empty() && path.back() == '/') path.pop_back();
    return text + "/" + path;
}
