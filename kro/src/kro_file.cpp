#include "kro/kro_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <vector>

#include "fd_io.h"
#include "kro/kro_new_file.h"
#include "kro/str.h"

namespace kro_file {

namespace {

using str::Quoted;

struct stat Status(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        throw kro_err::FromErrno("Failed to examine " + Quoted(path));
    }
    return status;
}

// The status of the existing file that Write replaces. Returns nothing for a missing file. Also
// returns nothing for a symbolic link: Write replaces the link and not its target, so the mode and
// owner of the target do not apply.
std::optional<struct stat> OldStatus(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0 || S_ISLNK(status.st_mode)) return std::nullopt;
    return status;
}

std::string_view WithoutClosingSlashes(std::string_view path) {
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    return path;
}

// Like SplitPath but without copies, because the scan at the start of the server splits a hundred
// thousand paths.
std::pair<std::string_view, std::string_view> Halves(std::string_view path) {
    path = WithoutClosingSlashes(path);
    const std::size_t slash = path.rfind('/');
    if (slash == path.npos) return {std::string_view(), path};
    return {WithoutClosingSlashes(path.substr(0, slash + 1)), path.substr(slash + 1)};
}

// Gives the new file the mode, owner and group of the old file. Ignores EPERM: only root can change
// an owner, and a file with another owner is better than no file.
void CopyOwnerAndMode(int fd, const struct stat& old) {
    if (::fchown(fd, old.st_uid, old.st_gid) != 0 &&
        ::fchown(fd, static_cast<uid_t>(-1), old.st_gid) != 0 && errno != EPERM) {
        throw kro_err::FromErrno("Failed to set the owner of a new file");
    }
    // The mode is set after the owner, because a change of the owner clears mode bits.
    if (::fchmod(fd, old.st_mode & 07777) != 0) {
        throw kro_err::FromErrno("Failed to set the mode of a new file");
    }
}

bool IsOurs(const struct stat& status) noexcept {
    return status.st_uid == 0 || status.st_uid == ::geteuid();
}

// True when root or this user owns the file, and no other user can write to it.
bool IsWrittenByUsAlone(const struct stat& status) noexcept {
    return IsOurs(status) && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

std::vector<std::string> Components(const std::string& path, bool absolute) {
    std::vector<std::string> parts;
    for (std::size_t begin = 0; begin < path.size();) {
        std::size_t end = path.find('/', begin);
        if (end == path.npos) end = path.size();
        const std::string part = path.substr(begin, end - begin);
        begin = end + 1;
        if (part.empty() || part == ".") continue;
        const bool up = part == "..";
        const bool folds = up && !parts.empty() && parts.back() != "..";
        if (folds) {
            parts.pop_back();
        } else if (!up || !absolute) {
            parts.push_back(part);
        }
    }
    return parts;
}

}  // namespace

int OpenFd(const std::string& path, int flags, mode_t mode) noexcept {
    return NoEintr([&]() noexcept { return ::open(path.c_str(), flags | O_CLOEXEC, mode); });
}

std::string ReadAll(int fd, const std::string& path) {
    std::string text;
    char buffer[16 * 1024];
    for (;;) {
        const ssize_t got = NoEintr(
            [&] { return ::pread(fd, buffer, sizeof buffer, static_cast<off_t>(text.size())); });
        if (got < 0) throw kro_err::FromErrno("Failed to read " + Quoted(path));
        if (got == 0) return text;
        text.append(buffer, static_cast<std::size_t>(got));
    }
}

bool WriteAll(int fd, std::string_view text) noexcept {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t put = NoEintr([&]() noexcept {
            return ::pwrite(fd, text.data() + done, text.size() - done, static_cast<off_t>(done));
        });
        if (put < 0) return false;
        done += static_cast<std::size_t>(put);
    }
    return true;
}

bool IsPlainFile(int fd) noexcept {
    struct stat status {};
    return ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

kro_err::Error NotPlain(const std::string& path) {
    return kro_err::Error(kro_err::Kind::kFailed, Quoted(path) + " is not a plain file");
}

std::string ConcatPath(const std::string& directory, const std::string& name) {
    if (directory.empty()) return name;
    if (name.empty()) return directory;
    const std::size_t end = directory.find_last_not_of('/') + 1;
    const std::size_t begin = std::min(name.find_first_not_of('/'), name.size());
    return directory.substr(0, end) + "/" + name.substr(begin);
}

std::pair<std::string, std::string> SplitPath(const std::string& path) {
    const auto [directory, name] = Halves(path);
    return {std::string(directory), std::string(name)};
}

std::string Path(const std::string& path) { return std::string(Halves(path).first); }

std::string Name(const std::string& path) { return std::string(Halves(path).second); }

std::string GoodPath(const std::string& path) {
    const bool absolute = path.starts_with('/');
    std::string good;
    for (const std::string& part : Components(path, absolute)) {
        if (absolute || !good.empty()) good += '/';
        good += part;
    }
    return absolute && good.empty() ? "/" : good;
}

bool Exists(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0;
}

bool IsDirectory(const std::string& path) noexcept {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

FileType TypeOf(const std::string& path) noexcept {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        return kro_err::IsMissing() ? FileType::kNone : FileType::kUnknown;
    }
    switch (status.st_mode & S_IFMT) {
        case S_IFREG:
            return FileType::kPlain;
        case S_IFDIR:
            return FileType::kDirectory;
        case S_IFLNK:
            return FileType::kLink;
        default:
            return FileType::kSpecial;
    }
}

bool IsSameFile(int fd, const std::string& path) noexcept {
    struct stat open {};
    struct stat named {};
    return ::fstat(fd, &open) == 0 && ::lstat(path.c_str(), &named) == 0 &&
           open.st_ino == named.st_ino && open.st_dev == named.st_dev;
}

std::int64_t Size(const std::string& path) {
    const struct stat status = Status(path);
    if (!S_ISREG(status.st_mode)) throw NotPlain(path);
    return status.st_size;
}

std::string Read(const std::string& path) {
    const int fd = OpenFd(path, O_RDONLY);
    if (fd < 0) throw kro_err::FromErrno("Failed to open " + Quoted(path));
    const ResHandle handle(fd);
    return ReadAll(handle, path);
}

std::string ReadE(const std::string& path) noexcept {
    try {
        return Read(path);
    } catch (const std::exception&) {
        return std::string();
    }
}

std::string ReadOurs(const std::string& path) {
    // O_NONBLOCK prevents the open of a named pipe from blocking. O_NOFOLLOW prevents a symbolic
    // link from redirecting the read to another file.
    const int fd = OpenFd(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    if (fd < 0 && errno != ELOOP) throw kro_err::FromErrno("Failed to open " + Quoted(path));
    const ResHandle handle(fd);
    struct stat status {};
    if (fd < 0 || ::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) throw NotPlain(path);
    if (!IsWrittenByUsAlone(status)) {
        throw kro_err::Error(kro_err::Kind::kFailed,
                             Quoted(path) + " could have been written by another user");
    }
    return ReadAll(handle, path);
}

bool IsForeignLink(const std::string& path) noexcept {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode) && !IsOurs(status);
}

void CheckOurDirectory(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        throw kro_err::FromErrno("Failed to examine " + Quoted(path));
    }
    if (S_ISDIR(status.st_mode) && IsWrittenByUsAlone(status)) return;
    throw kro_err::Error(kro_err::Kind::kFailed,
                         Quoted(path) +
                             " must be a directory that only root or this user can "
                             "write to; remove it");
}

void Write(const std::string& path, std::string_view text, mode_t mode) {
    const auto old = OldStatus(path);
    // A device or a directory must not be replaced with a file.
    if (old && !S_ISREG(old->st_mode)) throw NotPlain(path);
    // The new file has mode 0600 until it has the old file's owner, so that no other user can read
    // it earlier.
    NewFile file(path, old ? 0600 : mode);
    if (!WriteAll(file.fd(), text)) throw CopyError("Failed to write " + Quoted(path), errno);
    if (old) CopyOwnerAndMode(file.fd(), *old);
    file.Commit();
}

void RemoveFile(const std::string& path) {
    if (::unlink(path.c_str()) != 0 && !kro_err::IsMissing()) {
        throw kro_err::FromErrno("Failed to remove " + Quoted(path));
    }
}

void Remove(const std::string& path) {
    if (path.empty()) return;
    const std::string good = GoodPath(path);
    if (good.empty() || good == "/") {
        throw kro_err::Error(
            kro_err::Kind::kFailed,
            "Will not remove " + Quoted(path) + ": it is the root or the current directory");
    }
    std::error_code error;
    // Removes trailing slashes, because with such a slash remove_all would follow a symbolic link.
    std::filesystem::remove_all(std::string(WithoutClosingSlashes(path)), error);
    if (error && !kro_err::IsMissing(error.value())) {
        throw kro_err::FromErrno("Failed to remove " + Quoted(path), error.value());
    }
}

void MkDir(const std::string& path, mode_t mode) {
    if (path.empty() || ::mkdir(path.c_str(), mode) == 0) return;
    int error = errno;
    const std::string parent = Path(path);
    if (error == ENOENT && !parent.empty() && parent != path) {
        MkDir(parent, mode);
        if (::mkdir(path.c_str(), mode) == 0) return;
        error = errno;
    }
    // Some file systems return another error than EEXIST for an existing directory, so the result
    // depends on the path and not on the error code.
    if (!IsDirectory(path)) {
        throw kro_err::FromErrno("Failed to make the directory " + Quoted(path), error);
    }
}

void MkDirSynced(const std::string& path, mode_t mode) {
    std::vector<std::string> changed;
    for (std::string missing = path; !missing.empty() && !IsDirectory(missing);
         missing = Path(missing)) {
        changed.push_back(Path(missing));
    }
    MkDir(path, mode);
    for (const std::string& directory : changed) SyncDir(directory);
}

void Attrs(const std::string& path, mode_t mode) {
    if (::chmod(path.c_str(), mode) != 0) {
        throw kro_err::FromErrno("Failed to set the mode of " + Quoted(path));
    }
}

void SyncFileSystem(const std::string& path) {
    const ResHandle handle(OpenFd(path, O_RDONLY));
    if (!handle || NoEintr([&] { return ::syncfs(handle); }) != 0) {
        throw kro_err::FromErrno("Failed to sync the file system of " + Quoted(path));
    }
}

void SyncDir(const std::string& directory) {
    const std::string name = directory.empty() ? "." : directory;
    const int fd = OpenFd(name, O_RDONLY | O_DIRECTORY);
    if (fd < 0) throw kro_err::FromErrno("Failed to open the directory " + Quoted(name));
    const ResHandle handle(fd);
    // Ignores EINVAL, because file systems that return EINVAL for a directory have nothing to sync.
    if (NoEintr([&] { return ::fsync(fd); }) != 0 && errno != EINVAL) {
        throw kro_err::FromErrno("Failed to sync the directory " + Quoted(name));
    }
}

}  // namespace kro_file
