// A lock that lasts as long as a process of this machine holds it.
#pragma once

#include <memory>
#include <string>

#include "kro/kro_file.h"

namespace quarn2 {

// Held until the object goes, and freed by the kernel when the process dies.
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

// Takes the lock of this name, which must be good for a file's. Null when another process of this
// user has it. A kro_err::Error where no lock can be had at all.
std::unique_ptr<NameLock> TryLockName(const std::string& name);

// The directory that the locks lie in, made when it is missing. Nobody else can write to it: who
// could would keep files from being uploaded for as long as he liked.
std::string NameLockDirectory();

}  // namespace quarn2
