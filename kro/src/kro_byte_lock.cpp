#include "kro/kro_byte_lock.h"

#include <fcntl.h>
#include <unistd.h>

#include "fd_io.h"
#include "kro/kro_err.h"
#include "kro/str.h"

namespace kro_file {

namespace {

// Uses locks of open file descriptions, so that two threads of one process exclude each other too.
struct flock LockOf(std::int64_t offset) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = offset;
    lock.l_len = 1;
    return lock;
}

}  // namespace

ByteLock::ByteLock(const std::string& path)
    : path_(path),
      handle_(OpenFd(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0600)) {
    if (!handle_) throw kro_err::FromErrno("Failed to open " + str::Quoted(path));
    if (!IsPlainFile(handle_)) throw NotPlain(path);
}

ByteLock::ByteLock(const std::string& path, std::int64_t offset) : ByteLock(path) {
    Lock(offset, F_OFD_SETLKW);
}

std::unique_ptr<ByteLock> ByteLock::Try(const std::string& path, std::int64_t offset) {
    std::unique_ptr<ByteLock> lock(new ByteLock(path));
    if (!lock->Lock(offset, F_OFD_SETLK)) lock.reset();
    return lock;
}

bool ByteLock::IsLocked(const std::string& path, std::int64_t offset) {
    const ResHandle handle(OpenFd(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    if (!handle && errno == ENOENT) return false;
    if (!handle) throw kro_err::FromErrno("Failed to open " + str::Quoted(path));
    struct flock lock = LockOf(offset);
    if (NoEintr([&] { return fcntl(handle, F_OFD_GETLK, &lock); }) != 0) {
        throw kro_err::FromErrno("Failed to examine the locks of " + str::Quoted(path));
    }
    return lock.l_type != F_UNLCK;
}

bool ByteLock::Lock(std::int64_t offset, int command) {
    struct flock lock = LockOf(offset);
    if (NoEintr([&] { return fcntl(handle_, command, &lock); }) == 0) return true;
    if (errno == EAGAIN || errno == EACCES) return false;
    throw kro_err::FromErrno("Failed to lock " + str::Quoted(path_));
}

}  // namespace kro_file
