#include "place.h"

#include <utility>

#include "kro/kro_file.h"
#include "kro/kro_new_file.h"

namespace quarn2::sftp {

namespace {

// Maximum number of concurrent uploads of one name.
constexpr int kTemporaryNames = 8;
// The maximum length of a name on common file systems.
constexpr std::size_t kMaxNameLength = 255;

// Returns `path` after TemporaryName() has been applied to its last component `times` times. No
// stored file can have such a name, because the library refuses temporary names.
std::string Wrapped(const std::string& path, int times) {
    auto [directory, name] = kro_file::SplitPath(path);
    for (int i = 0; i < times; ++i) name = kro_file::TemporaryName(name);
    return kro_file::ConcatPath(directory, name);
}

}  // namespace

std::string Place::PathOf(const std::string& name) const {
    return kro_file::ConcatPath(root_, name);
}

std::vector<std::string> TemporaryPaths(const std::string& path) {
    std::vector<std::string> paths = {Wrapped(path, 1)};
    // Skip the number 2, because DisplacedPath() applies TemporaryName() twice for the displaced
    // file.
    for (int times = 3; times < kTemporaryNames + 2; ++times) {
        std::string next = Wrapped(path, times);
        if (kro_file::Name(next).size() > kMaxNameLength) break;
        paths.push_back(std::move(next));
    }
    return paths;
}

std::string DisplacedPath(const std::string& path) { return Wrapped(path, 2); }

std::optional<std::string> DisplacedTarget(const std::string& name) {
    static const std::size_t added = kro_file::TemporaryName("").size();
    if (name.size() <= 2 * added) return std::nullopt;
    std::string target = name.substr(2, name.size() - 2 * added);
    const bool genuine = !kro_file::IsTemporaryName(target) &&
                         kro_file::TemporaryName(kro_file::TemporaryName(target)) == name;
    return genuine ? std::optional(std::move(target)) : std::nullopt;
}

}  // namespace quarn2::sftp
