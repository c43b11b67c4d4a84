#include "local_backend.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "base/directory.h"
#include "base/stored_name.h"
#include "errnos.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_new_file.h"
#include "kro/res_handle.h"

namespace quarn2 {

namespace {

using kro_err::Error;
using kro_err::Kind;
using kro_file::Copied;
using kro_file::CopyError;

// The modes of stored files and directories. The storage contains the backups of all users, so only
// the owner and the group may read them.
constexpr mode_t kFileMode = 0640;
constexpr mode_t kDirectoryMode = 0750;
constexpr std::size_t kBufferSize = 256UL * 1024;

[[noreturn]] void ThrowFailedTo(const std::string& what, const std::string& path) {
    throw CopyError("Failed to " + what + " " + Quoted(path) + " on the storage", errno);
}

// Syncs a directory. Throws CopyError, which distinguishes a full disk from other errors. Ignores
// EINVAL, because file systems that do not need to sync directories return this error.
void SyncDirectory(const std::string& path) {
    const ResHandle handle(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!handle || (fsync(handle) != 0 && errno != EINVAL)) ThrowFailedTo("sync directory", path);
}

// Syncs a directory after files in it were removed. Ignores the error of a full disk, because a
// removal needs no space. Ignores a missing directory, because no removed file can reappear in it.
void SyncRemoved(const std::string& directory) {
    try {
        SyncDirectory(directory);
    } catch (const CopyError& error) {
        if (!error.IsFull() && kro_file::Exists(directory)) throw;
    }
}

// Runs `action`. Converts a kro_err::SystemError to the error kind that FailureOf assigns to its
// errno value.
template <class Action>
auto Translated(const Action& action) {
    try {
        return action();
    } catch (const kro_err::SystemError& error) {
        throw Error(KindOf(local::FailureOf(error.error())), error.what());
    }
}

bool IsDirectory(const std::string& path) noexcept {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::string MissingRoot(const std::string& root) {
    return "storage directory " + Quoted(root) + " does not exist; create it or mount its disk";
}

// The backend for a directory of this machine. Below the storage's root, the backend follows a
// symbolic link to a directory if the link belongs to root or to the user of this process, so that
// an administrator can distribute a storage over several disks. A link of another user is an error.
// A link in place of a file is not followed: Get refuses it, Put replaces it.
class LocalBackend final : public StorageBackend {
  public:
    explicit LocalBackend(std::string root) : root_(std::move(root)) { CheckRoot(); }

    bool Put(const std::string& name, ByteSource& source) override;
    void Get(const std::string& name, ByteSink& sink) override {
        Translated([&] { Load(name, sink); });
    }
    void Remove(const std::string& name) override {
        Translated([&] { RemoveOne(name); });
    }
    void RemoveDir(const std::string& name) override {
        Translated([&] { RemoveAll(name); });
    }
    void SyncRemovals(const std::string& name) override {
        Translated([&] { SyncRemoved(PathOf(name)); });
    }
    void MakeDir(const std::string& name) override {
        Translated([&] { MakeSynced(name); });
    }
    std::vector<std::string> List(const std::string& name) override {
        return Translated([&] { return NamesOf(EntriesIn(name, false)); });
    }
    std::vector<ListedEntry> ListSizes(const std::string& name) override {
        return Translated([&] { return EntriesIn(name, true); });
    }
    void Clear() override {
        Translated([&] { Empty(); });
    }

  private:
    // Throws kNotFound when the storage's root does not exist. An unmounted disk must not look like
    // an empty storage, and nothing may be written below its mount point.
    void CheckRoot() const;
    std::string PathOf(const std::string& name) const { return kro_file::ConcatPath(root_, name); }
    void CheckWay(const std::string& directory) const;
    void MakeDirs(const std::string& path) const;
    bool TryToStore(const std::string& name, ByteSource& source) const;
    void Load(const std::string& name, ByteSink& sink) const;
    void RemoveOne(const std::string& name) const;
    void RemoveAll(const std::string& name) const;
    void MakeSynced(const std::string& name) const;
    std::vector<ListedEntry> EntriesIn(const std::string& name, bool with_sizes) const;
    void Empty() const;
    static void Store(const std::string& path, ByteSource& source);
    static void Commit(kro_file::NewFile& file, const std::string& path);

    std::string root_;
};

void LocalBackend::CheckRoot() const {
    struct stat status = {};
    if (stat(root_.c_str(), &status) != 0) {
        if (errno != ENOENT && errno != ENOTDIR) {
            throw kro_err::FromErrno("Failed to examine storage directory " + Quoted(root_));
        }
        throw Error(Kind::kNotFound, MissingRoot(root_));
    }
    if (!S_ISDIR(status.st_mode)) {
        throw Error(Kind::kFailed, "storage directory " + Quoted(root_) + " is not a directory");
    }
}

// Throws kFailed when the directory or one of its parents on the storage is a symbolic link of
// another user.
void LocalBackend::CheckWay(const std::string& directory) const {
    for (std::string at = directory; !at.empty(); at = kro_file::Path(at)) {
        const std::string path = PathOf(at);
        if (!kro_file::IsForeignLink(path)) continue;
        throw Error(Kind::kFailed, Quoted(path) +
                                       " on the storage is a symbolic link that belongs to another "
                                       "user; remove it");
    }
}

// --- Put ---

void CheckCopied(Copied copied) {
    if (copied == Copied::kAll) return;
    throw Error(Kind::kFailed, std::string("the source became ") +
                                   (copied == Copied::kSourceShorter ? "shorter" : "longer") +
                                   " while it was uploaded");
}

void WriteAll(int fd, std::span<const std::byte> bytes) {
    while (!bytes.empty()) {
        const ssize_t done = write(fd, bytes.data(), bytes.size());
        if (done < 0 && errno == EINTR) continue;
        if (done < 0) throw CopyError("Failed to write to the storage", errno);
        bytes = bytes.subspan(static_cast<std::size_t>(done));
    }
}

void CopyBytes(int fd, ByteSource& source) {
    std::vector<std::byte> buffer(kBufferSize);
    std::int64_t offset = 0;
    while (offset < source.size()) {
        const std::size_t got = source.ReadAt(offset, buffer);
        WriteAll(fd, std::span(buffer).first(got));
        offset += static_cast<std::int64_t>(got);
    }
}

void Fill(int fd, ByteSource& source) {
    const int from = source.Descriptor();
    if (from < 0) {
        CopyBytes(fd, source);
        return;
    }
    // Read from the beginning: a previous Put of the same source may have changed the file offset
    // of the descriptor.
    if (lseek(from, 0, SEEK_SET) != 0) throw CopyError("Failed to read the source", errno);
    CheckCopied(kro_file::CopyData(from, fd, source.size(),
                                   [&source](std::int64_t bytes) { source.Advance(bytes); }));
}

// Throws kUnavailable instead of kNotFound for a missing directory. The storage's root existed when
// the storage was opened, so the disk was unmounted or another process removed the directory. A
// retry can succeed after the disk is mounted, or create the directory again.
bool LocalBackend::Put(const std::string& name, ByteSource& source) {
    try {
        return Translated([&] { return TryToStore(name, source); });
    } catch (const Error& error) {
        if (error.kind() != Kind::kNotFound) throw;
        throw Error(Kind::kUnavailable, IsDirectory(root_) ? error.what() : MissingRoot(root_));
    }
}

bool LocalBackend::TryToStore(const std::string& name, ByteSource& source) const {
    CheckRoot();
    CheckWay(kro_file::Path(name));
    const std::string path = PathOf(name);
    try {
        MakeDirs(kro_file::Path(path));
        Store(path, source);
    } catch (const kro_err::SystemError& error) {
        if (local::FailureOf(error.error()) != Failure::kNoRoom) throw;
        return false;
    }
    return true;
}

// Creates the missing directories of `path` below the storage's root. If the upload then fails
// because the disk is full, the new directories remain, because another upload may already use
// them.
void LocalBackend::MakeDirs(const std::string& path) const {
    struct stat status = {};
    if (path.size() <= root_.size()) return;
    const bool exists = stat(path.c_str(), &status) == 0;
    if (exists && S_ISDIR(status.st_mode)) return;
    if (exists || errno == ENOTDIR) {
        throw Error(Kind::kFailed, Quoted(path) + " on the storage is not a directory");
    }
    if (errno != ENOENT) ThrowFailedTo("examine directory", path);
    const std::string above = kro_file::Path(path);
    MakeDirs(above);
    // EEXIST: another process has created the directory at the same time.
    if (mkdir(path.c_str(), kDirectoryMode) != 0 && errno != EEXIST) {
        ThrowFailedTo("create directory", path);
    }
    SyncDirectory(above);
}

void LocalBackend::Store(const std::string& path, ByteSource& source) {
    kro_file::NewFile file(path, kFileMode);
    Fill(file.fd(), source);
    source.CheckUnchanged();
    Commit(file, path);
}

// Renames the complete temporary file to `path`. If only the sync of the directory reports a full
// disk, the new file is already visible. Put must not return false in this case, so this function
// throws an error that TryToStore does not catch.
void LocalBackend::Commit(kro_file::NewFile& file, const std::string& path) {
    struct stat written = {};
    if (fstat(file.fd(), &written) != 0) ThrowFailedTo("examine", path);
    try {
        file.Commit();
    } catch (const CopyError& error) {
        struct stat visible = {};
        const bool appeared = lstat(path.c_str(), &visible) == 0 &&
                              visible.st_ino == written.st_ino && visible.st_dev == written.st_dev;
        if (appeared) throw Error(KindOf(local::FailureOf(error.error())), error.what());
        throw;
    }
}

// --- Get ---

[[noreturn]] void ThrowNotFound(const std::string& name) {
    throw Error(Kind::kNotFound, "no file " + Quoted(name) + " on the storage");
}

void CopyOut(int fd, ByteSink& sink, const std::string& path) {
    std::vector<std::byte> buffer(kBufferSize);
    for (;;) {
        const ssize_t got = read(fd, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) ThrowFailedTo("read", path);
        if (got == 0) return;
        sink.Write(std::span(buffer).first(static_cast<std::size_t>(got)));
    }
}

void LocalBackend::Load(const std::string& name, ByteSink& sink) const {
    CheckRoot();
    CheckWay(kro_file::Path(name));
    const std::string path = PathOf(name);
    const ResHandle handle(
        open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    if (!handle) {
        if (errno == ENOENT || errno == ENOTDIR) ThrowNotFound(name);
        ThrowFailedTo("open", path);
    }
    struct stat status = {};
    if (fstat(handle, &status) != 0) ThrowFailedTo("examine", path);
    if (!S_ISREG(status.st_mode)) ThrowNotFound(name);
    sink.Expect(status.st_size);
    if (sink.Descriptor() < 0) {
        CopyOut(handle, sink, path);
    } else if (kro_file::CopyData(handle, sink.Descriptor(), status.st_size,
                                  [&sink](std::int64_t bytes) { sink.Advance(bytes); }) !=
               Copied::kAll) {
        throw Error(Kind::kUnavailable, Quoted(path) + " changed while it was downloaded");
    }
}

// --- Remove, directories, List and Clear ---

// Removes one file. Does not sync the directory after each file, because this would be slow for
// thousands of archive slices. SyncRemovals syncs the directory once after all removals.
void LocalBackend::RemoveOne(const std::string& name) const {
    CheckRoot();
    CheckWay(kro_file::Path(name));
    const std::string path = PathOf(name);
    if (unlink(path.c_str()) != 0 && errno != ENOENT && errno != ENOTDIR)
        ThrowFailedTo("remove", path);
    kro_file::RemoveTemporary(path);
}

void LocalBackend::RemoveAll(const std::string& name) const {
    CheckRoot();
    CheckWay(kro_file::Path(name));
    const std::string path = PathOf(name);
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) return;
        ThrowFailedTo("examine", path);
    }
    if (!S_ISDIR(status.st_mode)) return;
    kro_file::Remove(path);
    SyncRemoved(kro_file::Path(path));
}

void LocalBackend::MakeSynced(const std::string& name) const {
    CheckRoot();
    CheckWay(name);
    const std::string path = PathOf(name);
    MakeDirs(path);
    // Also sync the directories that already existed, because the process that created them may
    // have been killed before it synced them.
    for (std::string above = kro_file::Path(path); above.size() >= root_.size();
         above = kro_file::Path(above)) {
        SyncDirectory(above);
    }
}

std::vector<std::string> ReadNames(DIR* directory, const std::string& path) {
    std::vector<std::string> names;
    while (const dirent* const entry = NextEntry(directory)) {
        names.emplace_back(static_cast<const char*>(entry->d_name));
    }
    if (errno != 0) ThrowFailedTo("list", path);
    return names;
}

// Returns nothing for an entry that is not a plain file, because Get refuses it, and for a file
// that another process has just removed.
std::optional<std::int64_t> SizeAt(int directory, const std::string& name) {
    struct stat status = {};
    if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return std::nullopt;
    return S_ISREG(status.st_mode) ? std::optional(status.st_size) : std::nullopt;
}

std::vector<ListedEntry> LocalBackend::EntriesIn(const std::string& name, bool with_sizes) const {
    CheckRoot();
    CheckWay(name);
    const std::string path = PathOf(name);
    const Directory directory = OpenDirectory(path);
    if (directory == nullptr) {
        struct stat status = {};
        // ENOTDIR: `path` is a file, or a parent of `path` is a file.
        if (errno == ENOTDIR && lstat(path.c_str(), &status) == 0) {
            return {{name, SizeAt(AT_FDCWD, path)}};
        }
        if (errno != ENOENT && errno != ENOTDIR) ThrowFailedTo("list", path);
        throw Error(Kind::kNotFound, "no directory " + Quoted(name) + " on the storage");
    }
    std::vector<ListedEntry> entries;
    for (std::string& entry : ReadNames(directory.get(), path)) {
        if (kro_file::IsTemporaryName(entry)) continue;
        const auto size = with_sizes ? SizeAt(dirfd(directory.get()), entry) : std::nullopt;
        entries.push_back({std::move(entry), size});
    }
    return entries;
}

void LocalBackend::Empty() const {
    CheckRoot();
    const Directory directory = OpenDirectory(root_);
    if (directory == nullptr) ThrowFailedTo("list", root_);
    for (const std::string& name : ReadNames(directory.get(), root_)) {
        kro_file::Remove(PathOf(name));
    }
    SyncRemoved(root_);
}

}  // namespace

BackendScheme LocalScheme() {
    BackendScheme scheme{*FindTokenScheme("local")};
    scheme.open = [](const BackupToken& token) {
        return Translated(
            [&token] { return std::make_unique<LocalBackend>(kro_file::GoodPath(token.path())); });
    };
    return scheme;
}

}  // namespace quarn2
