#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fd_io.h"
#include "kro/kro_file.h"

namespace kro_file {

namespace {

// In a directory that others can write to a link may lie in the file's place, and a file made or
// locked where it leads would be somebody else's; a named pipe would hold the open.
constexpr int kPlanted = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;

// A file that is replaced this often between its opening and its lock is replaced without end.
constexpr int kAttempts = 100;

bool IsPlainFile(int fd) noexcept {
    struct stat status {};
    return ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

// Written in place, a file with a second name would change under that one too.
bool HasAnotherName(int fd) noexcept {
    struct stat status {};
    return ::fstat(fd, &status) == 0 && status.st_nlink > 1;
}

[[noreturn]] void Refuse(const std::string& path, const char* why) {
    throw kro_err::Error(kro_err::Kind::kFailed, "Failed to lock '" + path + "': it " + why);
}

}  // namespace

void Lock::DoLock(const std::string& path, bool create) { Open(path, create, true); }

bool Lock::TryLock(const std::string& path, bool create) { return Open(path, create, false); }

bool Lock::Open(const std::string& path, bool create, bool wait) {
    // A lock of our own on another open file would block this one for ever.
    Release();
    const int operation = wait ? LOCK_EX : LOCK_EX | LOCK_NB;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const int fd = OpenFd(path, O_RDWR | kPlanted | (create ? O_CREAT : 0), 0600);
        if (fd < 0 && errno == ELOOP) Refuse(path, "is a symbolic link");
        if (fd < 0) throw kro_err::FromErrno("Failed to open '" + path + "'");
        ResHandle handle(fd);
        if (!IsPlainFile(fd)) Refuse(path, "is not a plain file");
        if (NoEintr([&] { return ::flock(fd, operation); }) != 0) {
            if (errno == EWOULDBLOCK) return false;
            throw kro_err::FromErrno("Failed to lock '" + path + "'");
        }
        // Its last holder may have removed the file: a lock on a file that nobody can find any more
        // keeps nobody out.
        if (IsSameFile(fd, path)) {
            handle_ = std::move(handle);
            path_ = path;
            return true;
        }
    }
    throw kro_err::Error(kro_err::Kind::kFailed,
                         "Failed to lock '" + path + "': the file is replaced all the time");
}

std::string Lock::Read() const { return ReadAll(handle_, path_); }

void Lock::Write(std::string_view text) {
    if (HasAnotherName(handle_)) Refuse(path_, "has a second name, which would be written as well");
    struct stat status {};
    std::string padded(text);
    // Before the file is cut to its length, what a longer text had behind this one must not be read
    // as part of it: empty lines are no part of any.
    if (::fstat(handle_, &status) == 0 && status.st_size > static_cast<off_t>(text.size())) {
        padded.resize(static_cast<std::size_t>(status.st_size), '\n');
    }
    if (!WriteAll(handle_, padded) ||
        NoEintr([&] { return ::ftruncate(handle_, static_cast<off_t>(text.size())); }) != 0 ||
        NoEintr([&] { return ::fsync(handle_); }) != 0) {
        throw kro_err::FromErrno("Failed to write '" + path_ + "'");
    }
}

void Lock::Release() noexcept { handle_.Close(); }

}  // namespace kro_file
