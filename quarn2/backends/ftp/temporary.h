// Temporary names of incomplete uploads.
#pragma once

#include <memory>
#include <string>

#include "name_lock.h"

namespace quarn2::ftp {

// The temporary name of one upload. FTP cannot create a file exclusively, and two sessions that
// store under the same name write into the same file. The temporary name is therefore derived from
// the target's name, the user, the machine and a number: the smallest one that no other upload of
// this target from this machine uses. A lock reserves the number; the kernel releases the lock of a
// killed process. The next upload or removal of the target then gets the same name and removes the
// leftover. Uploads from other machines have other names.
class TemporaryName {
  public:
    // `path` is the target's path as `user` sees it. The server's name is not used because a server
    // may have several.
    TemporaryName(const std::string& user, const std::string& path);

    // The path of the upload, reserved as long as this object exists.
    const std::string& path() const noexcept { return path_; }

    // True if another upload of the target has the first number.
    bool is_further() const noexcept { return is_further_; }

    // The path of the old file during its replacement, on servers that do not rename over an
    // existing file.
    std::string OldPath() const { return Path("-old"); }
    // The path of a small file that is stored to find out whether the storage is full.
    std::string ProbePath() const { return Path("-probe"); }

  private:
    std::string Path(const std::string& suffix) const;

    std::string stem_;
    std::string path_;
    std::unique_ptr<NameLock> lock_;
    bool is_further_ = false;
};

}  // namespace quarn2::ftp
