// Locks by name between the processes of this machine.
#pragma once

#include <memory>
#include <string>

#include "kro/kro_file.h"

namespace quarn2 {

// Holds the lock until it is destroyed. The kernel releases the lock when the process dies.
class NameLock {
  public:
    NameLock(std::string path, kro_file::Lock lock)
        : path_(std::move(path)), lock_(std::move(lock)) {}
    ~NameLock();
    NameLock(const NameLock&) = delete;
    NameLock& operator=(const NameLock&) = delete;

  private:
    std::string path_;
    kro_file::Lock lock_;
};

// Takes the lock of this name, which must be valid as a file name. Returns null when this user
// already holds the lock, in this process or another one. Throws kro_err::Error when the lock file
// or its directory is unusable.
std::unique_ptr<NameLock> TryLockName(const std::string& name);

// Returns the directory of the lock files, and makes it when it is missing. Throws kro_err::Error
// when another user can write to it, because that user could block uploads by holding locks.
std::string NameLockDirectory();

}  // namespace quarn2
