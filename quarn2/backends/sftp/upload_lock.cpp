#include "upload_lock.h"

#include "base/digest.h"
#include "base/hex.h"
#include "kro/kro_err.h"

namespace quarn2::sftp {

// Returns true without a lock if the lock cannot be created. The upload then runs without
// protection from other uploads of this machine. The lock never protects from uploads of other
// machines.
bool UploadLock::TryLock(const std::string& what) {
    try {
        std::unique_ptr<NameLock> lock = TryLockName("quarn2-sftp-" + Hex(Sha256(what)));
        const bool taken = lock != nullptr;
        if (taken) lock_ = std::move(lock);
        return taken;
    } catch (const kro_err::Error&) {
        return true;
    }
}

}  // namespace quarn2::sftp
