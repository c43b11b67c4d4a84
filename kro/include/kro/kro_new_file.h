// A file that appears under its name only when it is complete and, by default, durable.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "kro/res_handle.h"

namespace kro_file {

// Writes a file under a temporary name in the directory of its target. Commit renames the file to
// the target. Without Commit, the destructor removes the temporary file. The temporary name is
// derived from the target's name, so that the next attempt replaces the leftover of a crash. Each
// writer locks its temporary file, so a second writer of the same target waits for the first. After
// a crash at any point, the target is the complete old or the complete new file, unless Commit was
// called with kLater.
class NewFile {
  public:
    // Creates the empty temporary file with `mode` less the umask. Waits for another writer of the
    // same target. Throws kro_err::SystemError when the temporary file cannot be created or locked.
    explicit NewFile(std::string target, mode_t mode = 0644);
    ~NewFile();
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    // The temporary file, open for reading and writing. This object owns the descriptor.
    int fd() const noexcept { return handle_; }

    // Syncs the file, renames it and syncs the directory. Throws CopyError when one of these steps
    // fails. The target is then unchanged, unless the failed step is the sync of the directory.
    void Commit() { Commit(Durability::kNow); }

    // kLater: Commit only renames the file. A crash can lose the file until the caller has called
    // SyncFileSystem. For writing thousands of files that can be created again.
    enum class Durability { kNow, kLater };
    void Commit(Durability durability);

  private:
    std::string target_;
    std::string temporary_;
    ResHandle handle_;
    bool committed_ = false;
};

// TemporaryName returns the temporary name for the last component of a target. IsTemporaryName is
// true for a name of the form that TemporaryName returns.
std::string TemporaryName(std::string_view name);
bool IsTemporaryName(std::string_view name) noexcept;

// Removes the temporary file that a crashed writer of `target` left. A file that a running writer
// has locked stays.
void RemoveTemporary(const std::string& target);

}  // namespace kro_file
