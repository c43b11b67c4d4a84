// A file that appears under its name only when it is complete and, by default, durable.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "kro/res_handle.h"

namespace kro_file {

// Writes under a temporary name in the target's directory. Commit renames the file to the target.
// Without Commit, the destructor removes the temporary file. The temporary name is derived from the
// target's name, so that the next attempt replaces the leftover of a crash. A lock on the temporary
// file makes two writers of one target take turns. After a crash at any point, the target is the
// old file or the new one, unless Commit was called with kLater.
class NewFile {
  public:
    // Creates the empty temporary file with `mode` less the umask. Waits for another writer of the
    // same target. Throws kro_err::SystemError.
    explicit NewFile(std::string target, mode_t mode = 0644);
    ~NewFile();
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    // The temporary file, open for reading and writing. This object owns the descriptor.
    int fd() const noexcept { return handle_; }

    // Syncs the file, renames it and syncs the directory. Throws CopyError. The target is unchanged
    // then, unless only the sync of the directory failed.
    void Commit() { Commit(Durability::kNow); }

    // kLater: only renames. The file is not durable before SyncFileSystem, so the caller must not
    // rely on it until then. For thousands of files that can be created again.
    enum class Durability { kNow, kLater };
    void Commit(Durability durability);

  private:
    std::string target_;
    std::string temporary_;
    ResHandle handle_;
    bool committed_ = false;
};

// TemporaryName returns the temporary name for the last component of a target. IsTemporaryName is
// true for a name of that form.
std::string TemporaryName(std::string_view name);
bool IsTemporaryName(std::string_view name) noexcept;

// Removes the temporary file that a crashed writer of `target` left. A file that a running writer
// has locked stays.
void RemoveTemporary(const std::string& target);

}  // namespace kro_file
