#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "fd_io.h"
#include "kro/kro_file.h"
#include "kro/str.h"

namespace kro_file {

namespace {

constexpr int kNoDots = 2;

bool IsDots(const char* name) noexcept {
    const std::string_view text(name);
    return text == "." || text == "..";
}

struct CloseDir {
    void operator()(DIR* directory) const noexcept { ::closedir(directory); }
};

}  // namespace

struct Dir::State {
    std::string path;
    int flags = 0;
    std::unique_ptr<DIR, CloseDir> directory;
    std::string name;
    unsigned char type = DT_UNKNOWN;
};

Dir::Dir(const std::string& path, int flags) : state_(std::make_unique<State>()) {
    state_->path = path;
    state_->flags = flags;
    const int fd = OpenFd(path.empty() ? "." : path, O_RDONLY | O_DIRECTORY);
    if (fd < 0 && errno == ENOENT) return;
    if (fd < 0) throw kro_err::FromErrno("Failed to open the directory " + str::Quoted(path));
    state_->directory.reset(::fdopendir(fd));
    if (!state_->directory) {
        const int error = errno;
        ::close(fd);
        throw kro_err::FromErrno("Failed to read the directory " + str::Quoted(path), error);
    }
}

Dir::~Dir() = default;

bool Dir::Read() {
    while (state_->directory) {
        errno = 0;
        const dirent* entry = ::readdir(state_->directory.get());
        if (entry == nullptr && errno != 0) {
            throw kro_err::FromErrno("Failed to read the directory " + str::Quoted(state_->path));
        }
        if (entry == nullptr) break;
        if ((state_->flags & kNoDots) != 0 && IsDots(entry->d_name)) continue;
        state_->name = entry->d_name;
        state_->type = entry->d_type;
        return true;
    }
    return false;
}

const std::string& Dir::name() const noexcept { return state_->name; }

std::string Dir::FullName() const { return ConcatPath(state_->path, state_->name); }

bool Dir::IsDir() const {
    if (state_->type != DT_UNKNOWN) return state_->type == DT_DIR;
    if (!state_->directory || state_->name.empty()) return false;
    struct stat status {};
    return ::fstatat(::dirfd(state_->directory.get()), state_->name.c_str(), &status,
                     AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISDIR(status.st_mode);
}

std::vector<std::string> NamesIn(const std::string& directory) {
    std::vector<std::string> names;
    Dir entries(directory, kNoDots);
    while (entries.Read()) names.push_back(entries.name());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace kro_file
