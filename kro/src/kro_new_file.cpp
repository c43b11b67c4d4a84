#include "kro/kro_new_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdio>

#include "fd_io.h"
#include "kro/kro_file.h"
#include "kro/str.h"

namespace kro_file {

namespace {

constexpr std::string_view kTemporaryStart = ".";
constexpr std::string_view kTemporaryEnd = ".part~";

std::string TemporaryPath(const std::string& target) {
    const auto [directory, name] = SplitPath(target);
    return ConcatPath(directory, TemporaryName(name));
}

CopyError OpenError(const std::string& path) {
    return CopyError("Failed to make the file " + str::Quoted(path), errno);
}

bool Flock(int fd, int operation) noexcept {
    return NoEintr([&]() noexcept { return ::flock(fd, operation); }) == 0;
}

// Waits for the lock on the open file `fd`. Returns false when the path no longer refers to that
// file, because the previous writer has renamed or removed it.
bool LockNamed(int fd, const std::string& path) {
    if (!Flock(fd, LOCK_EX)) throw kro_err::FromErrno("Failed to lock " + str::Quoted(path));
    return IsSameFile(fd, path);
}

// True for links, sockets and other special files. NewFile never creates such files, so no writer
// holds a lock on them.
bool IsNeitherFileNorDirectory(const std::string& path) noexcept {
    const FileType type = TypeOf(path);
    return type == FileType::kLink || type == FileType::kSpecial;
}

// Removes the temporary file at the path. Waits until its writer has released the lock.
void ClearName(const std::string& path) {
    if (IsNeitherFileNorDirectory(path)) return RemoveFile(path);
    const int fd = OpenFd(path, O_RDWR | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0 && (errno == ENOENT || errno == ELOOP)) return;
    if (fd < 0) throw OpenError(path);
    const ResHandle leftover(fd);
    if (LockNamed(fd, path)) RemoveFile(path);
}

}  // namespace

NewFile::NewFile(std::string target, mode_t mode)
    : target_(std::move(target)), temporary_(TemporaryPath(target_)) {
    // Removes the temporary file of an earlier attempt and creates a new one, which has the
    // requested mode and the owner of this process. If another process creates the temporary file
    // first, the loop waits for that process and tries again.
    for (;;) {
        const int fd = OpenFd(temporary_, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, mode);
        if (fd >= 0) {
            handle_ = ResHandle(fd);
            if (LockNamed(fd, temporary_)) return;
            handle_.Reset();
        } else if (errno == EEXIST) {
            ClearName(temporary_);
        } else {
            throw OpenError(temporary_);
        }
    }
}

NewFile::~NewFile() {
    // This object still holds the lock, so the file cannot belong to another writer.
    if (!committed_) ::unlink(temporary_.c_str());
}

void NewFile::Commit(Durability durability) {
    if (durability == Durability::kNow && NoEintr([&] { return ::fsync(handle_); }) != 0) {
        throw CopyError("Failed to sync " + str::Quoted(temporary_), errno);
    }
    if (std::rename(temporary_.c_str(), target_.c_str()) != 0) {
        throw CopyError(
            "Failed to rename " + str::Quoted(temporary_) + " to " + str::Quoted(target_), errno);
    }
    committed_ = true;
    if (durability == Durability::kLater) return;
    const std::string directory = Path(target_);
    const ResHandle opened(OpenFd(directory.empty() ? "." : directory, O_RDONLY | O_DIRECTORY));
    if (!opened || (NoEintr([&] { return ::fsync(opened); }) != 0 && errno != EINVAL)) {
        throw CopyError("Failed to sync the directory of " + str::Quoted(target_), errno);
    }
}

std::string TemporaryName(std::string_view name) {
    return std::string(kTemporaryStart).append(name).append(kTemporaryEnd);
}

bool IsTemporaryName(std::string_view name) noexcept {
    return name.size() > kTemporaryStart.size() + kTemporaryEnd.size() &&
           name.starts_with(kTemporaryStart) && name.ends_with(kTemporaryEnd);
}

void RemoveTemporary(const std::string& target) {
    const std::string path = TemporaryPath(target);
    if (IsNeitherFileNorDirectory(path)) return RemoveFile(path);
    const int fd = OpenFd(path, O_RDWR | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0 && kro_err::IsMissing()) return;
    if (fd < 0) throw kro_err::FromErrno("Failed to open " + str::Quoted(path));
    const ResHandle leftover(fd);
    if (Flock(fd, LOCK_EX | LOCK_NB) && IsSameFile(fd, path)) RemoveFile(path);
}

}  // namespace kro_file
