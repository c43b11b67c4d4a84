#include "quarn2_cp2_put_source.h"

#include <fcntl.h>

#include "kro/kro_err.h"

namespace {

ResHandle Open(const std::string& path) {
    // Without O_NONBLOCK, opening a named pipe would wait until another process writes to it.
    ResHandle handle(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!handle) throw kro_err::FromErrno("Failed to open '" + path + "'");
    return handle;
}

FileIdentity IdentityOf(int fd, const std::string& path) {
    struct stat status {};
    if (fstat(fd, &status) != 0) throw kro_err::FromErrno("Failed to examine '" + path + "'");
    return FileIdentity(status);
}

}  // namespace

FileIdentity::FileIdentity(const struct stat& status)
    : device(status.st_dev),
      inode(status.st_ino),
      size(status.st_size),
      modified_seconds(status.st_mtim.tv_sec),
      modified_nanoseconds(status.st_mtim.tv_nsec) {}

SourceState CompareSource(const FileIdentity& opened, const FileIdentity& now,
                          const std::optional<FileIdentity>& at_path) {
    if (now != opened) return SourceState::kRewritten;
    return at_path == opened ? SourceState::kUnchanged : SourceState::kReplaced;
}

SourceFile::SourceFile(const std::string& path)
    : path_(path), handle_(Open(path)), opened_(IdentityOf(handle_, path)) {}

SourceState SourceFile::Compare() const {
    struct stat status {};
    std::optional<FileIdentity> at_path;
    if (stat(path_.c_str(), &status) == 0) at_path.emplace(status);
    return CompareSource(opened_, IdentityOf(handle_, path_), at_path);
}
