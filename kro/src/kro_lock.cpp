#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fd_io.h"
#include "kro/kro_file.h"

namespace kro_file {

namespace {

// In a directory that other users can write to, the path may be a symbolic link or a named pipe of
// theirs. Through a link, this process would create or lock another user's file. The open of a
// named pipe would block.
constexpr int kPlanted = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;

// The lock fails when the file was replaced this often between its open and its flock.
constexpr int kAttempts = 100;

bool IsPlainFile(int fd) noexcept {
    struct stat status {};
    return ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

// Lock::Write changes the file in place, so it would also change the content under a second hard
// link.
bool HasAnotherName(int fd) noexcept {
    struct stat status {};
    return ::fstat(fd, &status) == 0 && status.st_nlink > 1;
}

[[noreturn]] void ThrowUnsafe(const std::string& path, const char* why) {
    throw kro_err::Error(kro_err::Kind::kFailed, "Failed to lock '" + path + "': it " + why);
}

}  // namespace

void Lock::DoLock(const std::string& path, bool create) { Open(path, create, true); }

bool Lock::TryLock(const std::string& path, bool create) { return Open(path, create, false); }

bool Lock::Open(const std::string& path, bool create, bool wait) {
    // A lock that this object still holds through another descriptor would block this call forever.
    Release();
    const int operation = wait ? LOCK_EX : LOCK_EX | LOCK_NB;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const int fd = OpenFd(path, O_RDWR | kPlanted | (create ? O_CREAT : 0), 0600);
        if (fd < 0 && errno == ELOOP) ThrowUnsafe(path, "is a symbolic link");
        if (fd < 0) throw kro_err::FromErrno("Failed to open '" + path + "'");
        ResHandle handle(fd);
        if (!IsPlainFile(fd)) ThrowUnsafe(path, "is not a plain file");
        if (NoEintr([&] { return ::flock(fd, operation); }) != 0) {
            if (errno == EWOULDBLOCK) return false;
            throw kro_err::FromErrno("Failed to lock '" + path + "'");
        }
        // The previous holder may have removed the file. A lock on a file that no longer has its
        // name excludes no other process.
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
    if (HasAnotherName(handle_))
        ThrowUnsafe(path_, "has a second name, which would be written as well");
    struct stat status {};
    std::string padded(text);
    // Until ftruncate, the end of a longer old text must not appear to belong to the new text.
    // Overwrites it with line feeds, because readers ignore empty lines.
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
