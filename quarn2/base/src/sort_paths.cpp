#include "base/sort_paths.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>
#include <utility>

namespace quarn2 {

namespace {

constexpr std::size_t kKeySize = 24;

struct Keyed {
    std::array<char, kKeySize> key;  // the path's first bytes after the common prefix, NUL-padded
    std::string* path;
};

std::size_t CommonPrefix(const std::vector<std::string>& paths) {
    std::string_view common = paths.empty() ? std::string_view() : paths.front();
    for (const std::string& path : paths) {
        const auto end =
            std::mismatch(common.begin(), common.end(), path.begin(), path.end()).first;
        common = common.substr(0, static_cast<std::size_t>(end - common.begin()));
    }
    return common.size();
}

bool Less(const Keyed& a, const Keyed& b) {
    const int order = std::memcmp(a.key.data(), b.key.data(), kKeySize);
    return order != 0 ? order < 0 : *a.path < *b.path;
}

}  // namespace

std::list<std::string> SortedPaths(std::vector<std::string> paths) {
    const std::size_t common = CommonPrefix(paths);
    std::vector<Keyed> keyed;
    keyed.reserve(paths.size());
    for (std::string& path : paths) {
        Keyed& entry = keyed.emplace_back(Keyed{{}, &path});
        const std::string_view rest = std::string_view(path).substr(common);
        std::copy_n(rest.begin(), std::min(rest.size(), kKeySize), entry.key.begin());
    }
    std::sort(keyed.begin(), keyed.end(), Less);
    std::list<std::string> sorted;
    for (const Keyed& entry : keyed) sorted.push_back(std::move(*entry.path));
    return sorted;
}

}  // namespace quarn2
