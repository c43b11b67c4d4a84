// A lock that distinguishes the temporary file of a running upload from the file of a killed
// upload.
#pragma once

#include <memory>
#include <string>

#include "base/name_lock.h"

namespace quarn2::sftp {

// A process holds this lock while it writes to a temporary file on a server. The kernel releases
// the lock when the process dies. The lock is only visible on this machine.
class UploadLock {
  public:
    // Acquires the lock of a temporary file. `what` identifies the server and the path of the file.
    // Returns false if another upload of this machine holds the lock.
    bool TryLock(const std::string& what);
    void Release() noexcept { lock_.reset(); }

  private:
    std::unique_ptr<NameLock> lock_;
};

}  // namespace quarn2::sftp
