// Compares directories after symbolic links are resolved.
#pragma once

#include <filesystem>
#include <string>

// Makes a path absolute and resolves every symbolic link and ".." in the part of it that exists.
// The path "" is the current directory. When the path cannot be resolved, returns the absolute and
// normalised path with its links. This is sufficient, because opening such a path fails as well.
std::filesystem::path ResolvePath(const std::string& path);

// True when `inner` is `outer` or is below `outer`. Both paths must be resolved (see ResolvePath).
bool IsSameOrBelow(const std::filesystem::path& outer, const std::filesystem::path& inner);
