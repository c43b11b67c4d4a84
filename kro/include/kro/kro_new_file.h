// A file that appears under its name only once it is whole and durable.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "kro/res_handle.h"

namespace kro_file {

// Writes under a temporary name in the target's directory. Commit makes the file appear; without it
// the destructor removes the temporary file. The temporary name is derived from the target's, so
// that what a crash leaves behind is taken over by the next attempt; a lock on it makes two writers
// of one target take turns. A crash at any point leaves the old file or the new one under the
// target's name.
class NewFile {
  public:
    // Opens the temporary file, empty, with `mode` less the umask. Waits for another writer of the
    // same target. Throws CopyError.
    explicit NewFile(std::string target, mode_t mode = 0644);
    ~NewFile();
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    // Open for reading and writing; stays this object's.
    int fd() const noexcept { return handle_; }

    // fsync, rename, fsync of the directory. Throws CopyError; nothing has appeared then unless
    // only the last step failed.
    void Commit() { Commit(Durability::kNow); }

    // kLater: the rename alone. The caller sees to it that nobody trusts the file before
    // SyncFileSystem; for thousands of files that can be made again.
    enum class Durability { kNow, kLater };
    void Commit(Durability durability);

  private:
    std::string target_;
    std::string temporary_;
    ResHandle handle_;
    bool committed_ = false;
};

// The temporary name of a target's last component, and whether a name has that form.
std::string TemporaryName(std::string_view name);
bool IsTemporaryName(std::string_view name) noexcept;

// Removes what a crashed writer of `target` left; a temporary file that a writer holds stays.
void RemoveTemporary(const std::string& target);

}  // namespace kro_file
