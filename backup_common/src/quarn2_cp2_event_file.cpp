#include "quarn2_cp2_event_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "kro/kro_err.h"

namespace {

constexpr mode_t kMode = 0600;

[[noreturn]] void ThrowUnsafe(const std::string& path, const char* why) {
    throw kro_err::Error(kro_err::Kind::kFailed, "'" + path + "' " + why);
}

int Open(const std::string& path, int flags) noexcept {
    constexpr int kAlways = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    int fd = ::open(path.c_str(), flags | kAlways, kMode);
    while (fd < 0 && errno == EINTR) fd = ::open(path.c_str(), flags | kAlways, kMode);
    return fd;
}

}  // namespace

ResHandle OpenEventFile(const std::string& path, int flags, struct stat& status) {
    const int fd = Open(path, flags);
    if (fd < 0 && errno == ELOOP) ThrowUnsafe(path, "is a symbolic link; remove it");
    if (fd < 0) throw kro_err::FromErrno("Failed to open '" + path + "'");
    ResHandle handle(fd);
    if (::fstat(fd, &status) != 0) throw kro_err::FromErrno("Failed to examine '" + path + "'");
    if (!S_ISREG(status.st_mode)) ThrowUnsafe(path, "is not a plain file; remove it");
    if (status.st_nlink > 1) ThrowUnsafe(path, "has another hard link; remove one of the two");
    const bool is_ours = status.st_uid == 0 || status.st_uid == ::geteuid();
    if (!is_ours || (status.st_mode & S_IWOTH) != 0) {
        ThrowUnsafe(path, "could have been written by another user; remove it");
    }
    return handle;
}
