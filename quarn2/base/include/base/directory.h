// Reads local directories. The functions report errors in errno, and the caller writes the error
// text.
#pragma once

#include <dirent.h>

#include <memory>
#include <string>

namespace quarn2 {

struct CloseDirectory {
    void operator()(DIR* directory) const noexcept { closedir(directory); }
};

// An open directory. Null when opendir failed.
using Directory = std::unique_ptr<DIR, CloseDirectory>;

// Opens a directory. Returns null and sets errno when that fails.
Directory OpenDirectory(const std::string& path);

// Returns the next entry other than "." and "..", valid until the next call. At the end of the
// directory, returns null and sets errno to 0. After an error, returns null and sets errno to the
// error.
const dirent* NextEntry(DIR* directory) noexcept;

}  // namespace quarn2
