// Comparisons of directories with symbolic links resolved.
#pragma once

#include <filesystem>
#include <string>

// The absolute path with every symbolic link and ".." resolved, as far as it exists; "" is the
// current directory. When the kernel refuses to resolve the path, it is only made absolute and
// normalized, because opening it fails as well.
std::filesystem::path ResolvePath(const std::string& path);

// True when `inner` is `outer` or is below it. Both must be resolved.
bool IsSameOrBelow(const std::filesystem::path& outer, const std::filesystem::path& inner);
