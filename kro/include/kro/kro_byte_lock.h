// Exclusive locks on single bytes of a lock file. One file serves any number of locks. The lock
// file is never removed, so no process can lock a file that another process has just replaced.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "kro/res_handle.h"

namespace kro_file {

// Holds the lock on byte `offset` of the file at `path` during its lifetime. The constructor
// creates the file (mode 0600) when it is missing. Then it waits until no other process, and no
// other object of this process, holds the lock. The kernel releases the locks of a process that
// dies. Throws kro_err::Error when the file cannot be opened or locked.
class ByteLock {
  public:
    ByteLock(const std::string& path, std::int64_t offset);

    // Like the constructor, but does not wait: returns null while another object holds the lock.
    static std::unique_ptr<ByteLock> Try(const std::string& path, std::int64_t offset);

    // True while an object holds the lock. Takes no lock itself. A missing file has no locks.
    // Throws kro_err::Error when the file cannot be examined.
    static bool IsLocked(const std::string& path, std::int64_t offset);

  private:
    explicit ByteLock(const std::string& path);
    bool Lock(std::int64_t offset, int command);

    std::string path_;
    ResHandle handle_;
};

}  // namespace kro_file
