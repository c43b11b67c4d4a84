// The temporary names under which uploads to FTP servers are stored until they are complete.
#pragma once

#include <memory>
#include <string>

#include "base/name_lock.h"

namespace quarn2::ftp {

// The temporary name of one upload. FTP cannot create a file exclusively, so two uploads with the
// same temporary name would write into the same file. The temporary name is therefore derived from
// the target's name, the user, the machine and a number. The number is the smallest number that no
// other upload of this target from this machine uses. A lock reserves the number. If the process is
// killed, the kernel releases the lock, and the next upload or removal of the target gets the same
// temporary name and removes the remaining file. Uploads from other machines have different
// temporary names.
class TemporaryName {
  public:
    // `path` is the path of the target on the server. The name of the server is not part of the
    // temporary name, because a server can have several names.
    TemporaryName(const std::string& user, const std::string& path);

    // Returns the path of the temporary file. The path is reserved as long as this object exists.
    const std::string& path() const noexcept { return path_; }

    // Returns true if the number is greater than 0, because another upload of the same target is
    // running.
    bool is_additional() const noexcept { return is_additional_; }

    // Returns the path of the old file while it is replaced on a server that cannot rename over an
    // existing file.
    std::string OldPath() const { return Path("-old"); }
    // Returns the path of the probe file, which the backend uploads to find out whether the storage
    // is full.
    std::string ProbePath() const { return Path("-probe"); }

  private:
    std::string Path(const std::string& suffix) const;

    std::string stem_;
    std::string path_;
    std::unique_ptr<NameLock> lock_;
    bool is_additional_ = false;
};

}  // namespace quarn2::ftp
