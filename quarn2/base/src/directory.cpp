#include "base/directory.h"

#include <cerrno>
#include <string_view>

namespace quarn2 {

Directory OpenDirectory(const std::string& path) { return Directory(opendir(path.c_str())); }

const dirent* NextEntry(DIR* directory) noexcept {
    for (;;) {
        errno = 0;
        const dirent* const entry = readdir(directory);
        if (entry == nullptr) return nullptr;
        const std::string_view name = static_cast<const char*>(entry->d_name);
        if (name != "." && name != "..") return entry;
    }
}

}  // namespace quarn2
