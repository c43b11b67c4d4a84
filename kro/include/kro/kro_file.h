// Paths, files, directories and file locks.
//
// The functions throw kro_err::Error ("not_found" or "failed") with the path and the system's
// reason. They open every descriptor close-on-exec.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kro/kro_err.h"
#include "kro/res_handle.h"

namespace kro_file {

// --- Paths: text operations without disk access ---

// Joins a directory and a name with exactly one slash. When one of the two is empty, returns the
// other.
std::string ConcatPath(const std::string& directory, const std::string& name);

// Splits a path into its directory part (without a trailing slash, except for "/") and its last
// component.
std::pair<std::string, std::string> SplitPath(const std::string& path);

// The directory part of SplitPath.
std::string Path(const std::string& path);

// The last component of SplitPath.
std::string Name(const std::string& path);

// Normalises a path: removes doubled and trailing slashes and "." components, and resolves ".."
// against the component before it. A relative path stays relative; when no component of it remains,
// the result is "".
std::string GoodPath(const std::string& path);

// --- Files ---

// Exists and IsDirectory follow symbolic links.
bool Exists(const std::string& path);
bool IsDirectory(const std::string& path) noexcept;

enum class FileType {
    kNone,     // no file has this path
    kUnknown,  // the system refuses to examine the path
    kPlain,
    kDirectory,
    kLink,     // a symbolic link
    kSpecial,  // a device, a named pipe or a socket
};

// Does not follow a symbolic link at the path.
FileType TypeOf(const std::string& path) noexcept;

// True when the path refers to the open file `fd`: device and inode are the same. Does not follow a
// symbolic link at the path.
bool IsSameFile(int fd, const std::string& path) noexcept;

// The size of a plain file in bytes. Throws for any other type of file.
std::int64_t Size(const std::string& path);

// Return the complete content of a file. When the file cannot be read, Read throws and ReadE
// returns "".
std::string Read(const std::string& path);
std::string ReadE(const std::string& path) noexcept;

// Returns the complete content of a plain file that root or this user owns and that only its owner
// can write to. Throws for any other file. Use it for a file whose content decides which other
// files are removed.
std::string ReadOurs(const std::string& path);

// True for a symbolic link that neither root nor this user owns. Any user who can write to the
// directory may have created it, so it must not be followed.
bool IsForeignLink(const std::string& path) noexcept;

// Throws unless the path is a directory that root or this user owns and only its owner can write
// to. Also throws for a symbolic link.
void CheckOurDirectory(const std::string& path);

// Replaces the complete content of a file, atomically and durably: after a crash the file contains
// the old or the new text, never a part. The mode of an existing file stays. Its owner and group
// stay as well if this process is allowed to set them. A file that did not exist gets `mode` less
// the umask. A symbolic link is replaced, not followed.
void Write(const std::string& path, std::string_view text, mode_t mode = 0640);

// Removes one file. A missing file is not an error.
void RemoveFile(const std::string& path);

// Removes a file or a complete directory tree without following symbolic links. A missing path is
// not an error.
void Remove(const std::string& path);

// Creates the directory and its missing parents. Existing directories stay unchanged.
void MkDir(const std::string& path, mode_t mode = 0750);

// Like MkDir, and makes the new directories durable.
void MkDirSynced(const std::string& path, mode_t mode = 0750);

// Sets the mode of a file or directory.
void Attrs(const std::string& path, mode_t mode);

// Makes a rename, creation or removal in `directory` durable.
void SyncDir(const std::string& directory);

// Makes all data that was written to the file system of `path` durable.
void SyncFileSystem(const std::string& path);

// --- Copying ---

// The error of a failed copy. IsFull() distinguishes a full disk from other failures.
class CopyError : public kro_err::SystemError {
  public:
    CopyError(const std::string& text, int error);
    // True when the disk or a quota is full.
    bool IsFull() const noexcept;
};

// The result of CopyData.
enum class Copied { kAll, kSourceShorter, kSourceLonger };

// CopyData calls it after each part of the data that it has copied, with the size of that part in
// bytes.
using CopyProgress = std::function<void(std::int64_t)>;

// Copies the data of the open file `from` to the empty, open file `to`. Shares extents or copies
// inside the kernel where the file systems support it. The offsets of the two descriptors do not
// matter. `size` is the expected size of the source. The result reports whether the source was
// shorter or longer. Memory use does not depend on the size. Throws CopyError when the copy fails.
Copied CopyData(int from, int to, std::int64_t size, const CopyProgress& progress = {});

// --- Directories ---

// Reads the entries of a directory, in no particular order.
class Dir {
  public:
    // With `flags` 2, skips "." and "..". A missing directory counts as empty.
    Dir(const std::string& path, int flags);
    ~Dir();
    Dir(const Dir&) = delete;
    Dir& operator=(const Dir&) = delete;

    // Reads the next entry. Returns false when there is none.
    bool Read();

    // The name and the path of the current entry.
    const std::string& name() const noexcept;
    std::string FullName() const;
    // True when the current entry is a directory itself, not a symbolic link to one.
    bool IsDir() const;

  private:
    struct State;
    std::unique_ptr<State> state_;
};

// The names of all entries of a directory except "." and "..", sorted. A missing directory counts
// as empty.
std::vector<std::string> NamesIn(const std::string& directory);

// --- Locks ---

// An exclusive flock on a file. The lock belongs to the open file description, not to the process:
// a forked child shares the lock. The lock ends when every process that shares it has closed the
// descriptor. Release closes only the descriptor of this process, so a child that shares the lock
// keeps it.
class Lock {
  public:
    // Waits for the lock. `create`: create the file (mode 0600) when it is missing.
    void DoLock(const std::string& path, bool create);

    // Acquires the lock without waiting. Returns false when another process or object holds the
    // lock.
    bool TryLock(const std::string& path, bool create);

    // Read returns the complete content of the locked file. Write replaces the content in place,
    // because a new file would not have the lock, and syncs the file.
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
