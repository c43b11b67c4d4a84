// Tells an upload that is under way on this machine from what a killed one left.
#pragma once

#include <memory>
#include <string>

#include "name_lock.h"

namespace quarn2::sftp {

// Held as long as a process of this machine writes to a file on a server, and gone with the
// process. Other machines know nothing of it.
class UploadLock {
  public:
    // Takes the lock of that file (`what` names the server as well) unless somebody has it.
    bool TryTake(const std::string& what);
    void Release() noexcept { lock_.reset(); }

  private:
    std::unique_ptr<NameLock> lock_;
};

}  // namespace quarn2::sftp
