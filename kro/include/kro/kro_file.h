// Paths, files, directories and file locks.
//
// Failures are kro_err::Error ("not_found" or "failed") with the path and the system's reason.
// Every descriptor is opened close-on-exec.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "kro/kro_err.h"
#include "kro/res_handle.h"

namespace kro_file {

// --- Paths: text only, the disk is not looked at ---

// Both joined with exactly one slash; an empty side gives the other one.
std::string ConcatPath(const std::string& directory, const std::string& name);

// Directory part (without its closing slash, but "/" stays) and last component.
std::pair<std::string, std::string> SplitPath(const std::string& path);

// The directory part of SplitPath.
std::string Path(const std::string& path);

// The last component of SplitPath.
std::string Name(const std::string& path);

// Normalised: no doubled slashes, no "." components, no closing slash, ".." folded where a
// component stands before it. Relative stays relative; what folds to nothing is "" for a relative
// path.
std::string GoodPath(const std::string& path);

// --- Files ---

bool Exists(const std::string& path);
// Of a plain file; anything else has no size worth the name and is an error.
std::int64_t Size(const std::string& path);

// The whole content. ReadE gives "" for a file that cannot be read.
std::string Read(const std::string& path);
std::string ReadE(const std::string& path) noexcept;

// The whole content of a plain file of which nobody but root and this user can be the author; any
// other is an error. For files that say what is to be removed.
std::string ReadOurs(const std::string& path);

// True for a symbolic link that neither root nor this user has made. Whoever can write to a
// directory may have laid it there, so it must not be followed.
bool IsForeignLink(const std::string& path) noexcept;

// Throws unless the path is itself a directory, of root or this user, that nobody else can write
// to.
void CheckOurDirectory(const std::string& path);

// Replaces the whole content, atomically and durably: after a crash the file holds the old or the
// new text, never a part. An existing file keeps its mode and owner, a new one gets `mode` less the
// umask. A symbolic link is replaced, not followed.
void Write(const std::string& path, std::string_view text, mode_t mode = 0640);

// Removes one file. A missing one is not an error.
void RemoveFile(const std::string& path);

// Removes a file or a whole directory tree, following no symbolic link. Missing is not an error.
void Remove(const std::string& path);

// Makes the directory and the missing ones above it; existing ones are left as they are.
void MkDir(const std::string& path, mode_t mode = 0750);

// The same, and the entries of new directories are synced.
void MkDirSynced(const std::string& path, mode_t mode = 0750);

// Sets the mode.
void Attrs(const std::string& path, mode_t mode);

// Makes a rename, creation or removal in `directory` durable.
void SyncDir(const std::string& directory);

// Makes everything that was written to the file system of `path` durable.
void SyncFileSystem(const std::string& path);

// --- Copying ---

// A copy that failed; a full disk can be told from a broken one.
class CopyError : public kro_err::SystemError {
  public:
    CopyError(const std::string& text, int error);
    // The disk or a quota is full.
    bool IsFull() const noexcept;
};

// What became of CopyData.
enum class Copied { kAll, kSourceShorter, kSourceLonger };

// Copies the file open at `from` to the empty file open at `to`, inside the kernel and with shared
// extents where the file systems can; both descriptors at offset 0. `size` is what the source is
// said to hold: a source that has changed since is told by the result. Memory use does not depend
// on the size. `progress` is told the bytes of each piece as it is done. Throws CopyError.
using CopyProgress = std::function<void(std::int64_t)>;
Copied CopyData(int from, int to, std::int64_t size, const CopyProgress& progress = {});

// --- Directories ---

// Reads the entries of a directory, in no particular order.
class Dir {
  public:
    // `flags` 2: every entry but "." and "..". A missing directory has no entries.
    Dir(const std::string& path, int flags);
    ~Dir();
    Dir(const Dir&) = delete;
    Dir& operator=(const Dir&) = delete;

    // Goes to the next entry; false when there is none.
    bool Read();

    // Of the entry read last.
    const std::string& name() const noexcept;
    std::string FullName() const;
    // True for a directory itself, not for a symbolic link to one.
    bool IsDir() const;

  private:
    struct State;
    std::unique_ptr<State> state_;
};

// --- Locks ---

// An exclusive flock on a file. The lock belongs to the open file, not to the process: a forked
// child holds it too, and it ends when the last of them has closed its descriptor. Letting go here
// only closes, so a child's lock outlives its parent's Release.
class Lock {
  public:
    // Waits for the lock. `create`: make the file (mode 0600) when it is missing.
    void DoLock(const std::string& path, bool create);

    // Takes the lock only if nobody holds it; false otherwise.
    bool TryLock(const std::string& path, bool create);

    // The whole content of the locked file, and its replacement (written in place and synced: the
    // lock is on this very file).
    std::string Read() const;
    void Write(std::string_view text);

    // Closes the descriptor.
    void Release() noexcept;

    // The descriptor, -1 when no lock is held.
    int fd() const noexcept { return handle_; }

  private:
    bool Open(const std::string& path, bool create, bool wait);

    ResHandle handle_;
    std::string path_;
};

}  // namespace kro_file
