// Comparisons of directories as the kernel sees them.
#pragma once

#include <filesystem>
#include <string>

// The absolute path with every symbolic link and ".." resolved, as far as it exists; "" is the
// current directory. Where the kernel refuses to resolve it, the path is only made absolute and
// normal: opening it fails as well.
std::filesystem::path ResolvePath(const std::string& path);

// True when `inner` is `outer` or is below it. Both must be resolved.
bool IsSameOrBelow(const std::filesystem::path& outer, const std::filesystem::path& inner);
