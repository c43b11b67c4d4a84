// Locks with names, shared by the processes of this machine.
#pragma once

#include <memory>
#include <string>

#include "kro/kro_file.h"

namespace quarn2 {

// A held lock. The destructor releases the lock. If the process dies, the kernel releases it.
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

// Acquires the lock with this name, which must be a valid file name. Returns null when this process
// or another process of the same user holds the lock. Throws kro_err::Error when the lock file or
// its directory is unusable.
std::unique_ptr<NameLock> TryLockName(const std::string& name);

// Returns the directory of the lock files and creates it when it is missing. Throws kro_err::Error
// when another user can write to the directory, because that user could block uploads by holding
// locks.
std::string NameLockDirectory();

}  // namespace quarn2
