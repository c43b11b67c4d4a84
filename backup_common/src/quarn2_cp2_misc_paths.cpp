#include "quarn2_cp2_misc_paths.h"

#include <algorithm>
#include <system_error>

namespace fs = std::filesystem;

fs::path ResolvePath(const std::string& path) {
    std::error_code error;
    const fs::path absolute = fs::absolute(path.empty() ? "." : path, error);
    fs::path resolved = fs::weakly_canonical(absolute, error);
    if (error) resolved = absolute.lexically_normal();
    // Removes a trailing slash, because it would count as another, empty component of the path.
    return resolved.has_filename() || resolved == resolved.root_path() ? resolved
                                                                       : resolved.parent_path();
}

bool IsSameOrBelow(const fs::path& outer, const fs::path& inner) {
    return std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end()).first ==
           outer.end();
}
