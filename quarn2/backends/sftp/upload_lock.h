// Distinguishes a running upload of this machine from the leftover of a killed one.
#pragma once

#include <memory>
#include <string>

#include "name_lock.h"

namespace quarn2::sftp {

// A process of this machine holds this lock while it writes to a file on a server. The kernel
// releases the lock when the process dies. Other machines do not see it.
class UploadLock {
  public:
    // Takes the lock of a file. `what` contains the server and the path. Returns false if another
    // upload of this machine holds the lock.
    bool TryTake(const std::string& what);
    void Release() noexcept { lock_.reset(); }

  private:
    std::unique_ptr<NameLock> lock_;
};

}  // namespace quarn2::sftp
