#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fd_io.h"
#include "kro/kro_file.h"
#include "kro/str.h"

namespace kro_file {

namespace {

// Flags against links and named pipes of other users. In a directory that other users can write to,
// the lock file may be replaced with a symbolic link, through which this process would create or
// lock a file elsewhere. It may also be replaced with a named pipe, whose open would block.
constexpr int kPlanted = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;

// DoLock and TryLock throw after this number of attempts in which another process replaced the file
// between open and flock.
constexpr int kAttempts = 100;

// True when the file has a second hard link. Lock::Write changes the file in place, so it would
// also change the content under the other name.
bool HasAnotherName(int fd) noexcept {
    struct stat status {};
    return ::fstat(fd, &status) == 0 && status.st_nlink > 1;
}

[[noreturn]] void ThrowUnsafe(const std::string& path, const char* why) {
    throw kro_err::Error(kro_err::Kind::kFailed,
                         "Failed to lock " + str::Quoted(path) + ": it " + why);
}

}  // namespace

void Lock::DoLock(const std::string& path, bool create) { Open(path, create, true); }

bool Lock::TryLock(const std::string& path, bool create) { return Open(path, create, false); }

bool Lock::Open(const std::string& path, bool create, bool wait) {
    // Releases a lock that this object holds. With another descriptor for the same file, flock
    // would otherwise wait forever for this lock.
    Release();
    const int operation = wait ? LOCK_EX : LOCK_EX | LOCK_NB;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const int fd = OpenFd(path, O_RDWR | kPlanted | (create ? O_CREAT : 0), 0600);
        if (fd < 0 && errno == ELOOP) ThrowUnsafe(path, "is a symbolic link");
        if (fd < 0) throw kro_err::FromErrno("Failed to open " + str::Quoted(path));
        ResHandle handle(fd);
        if (!IsPlainFile(fd)) ThrowUnsafe(path, "is not a plain file");
        if (NoEintr([&] { return ::flock(fd, operation); }) != 0) {
            if (errno == EWOULDBLOCK) return false;
            throw kro_err::FromErrno("Failed to lock " + str::Quoted(path));
        }
        // The previous holder may have removed the file. Other processes then lock a new file at
        // this path, so the lock on the removed file would not exclude them.
        if (IsSameFile(fd, path)) {
            handle_ = std::move(handle);
            path_ = path;
            return true;
        }
    }
    throw kro_err::Error(kro_err::Kind::kFailed, "Failed to lock " + str::Quoted(path) +
                                                     ": another process keeps replacing the file");
}

std::string Lock::Read() const { return ReadAll(handle_, path_); }

void Lock::Write(std::string_view text) {
    if (HasAnotherName(handle_))
        ThrowUnsafe(
            path_,
            "has a second hard link, so a write would change that file too; remove one of the two");
    struct stat status {};
    std::string padded(text);
    // Overwrites the rest of a longer old text with line feeds, because readers ignore empty lines.
    // Until ftruncate, the rest would appear to belong to the new text.
    if (::fstat(handle_, &status) == 0 && status.st_size > static_cast<off_t>(text.size())) {
        padded.resize(static_cast<std::size_t>(status.st_size), '\n');
    }
    if (!WriteAll(handle_, padded) ||
        NoEintr([&] { return ::ftruncate(handle_, static_cast<off_t>(text.size())); }) != 0 ||
        NoEintr([&] { return ::fsync(handle_); }) != 0) {
        throw kro_err::FromErrno("Failed to write " + str::Quoted(path_));
    }
}

void Lock::Release() noexcept { handle_.Close(); }

}  // namespace kro_file
