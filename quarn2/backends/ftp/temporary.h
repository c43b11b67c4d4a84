// The names that uploads have until they are whole.
#pragma once

#include <memory>
#include <string>

#include "name_lock.h"

namespace quarn2::ftp {

// A server has no way to make a file only if there is none, and two sessions that store under one
// name write into one file. So a temporary name follows from the target's, the machine's and a
// number: the smallest that no other upload of this target from this machine has. Locks keep
// account of the numbers, and those of processes that are killed are free; whoever uploads or
// removes the target next gets the same name and takes what is left of it. Another machine's
// uploads have other names.
class TemporaryName {
  public:
    // `path` is the target's, as the user of that name sees it. The server plays no part: it may
    // have several names.
    TemporaryName(const std::string& user, const std::string& path);

    // The path of the upload, for as long as this object lives.
    const std::string& path() const noexcept { return path_; }

    // Another upload of the target had the first number.
    bool is_further() const noexcept { return is_further_; }

    // Where the old file waits on servers that rename onto no existing one.
    std::string OldPath() const { return Path("-old"); }
    // A small file that finds out whether the storage is full.
    std::string ProbePath() const { return Path("-probe"); }

  private:
    std::string Path(const std::string& suffix) const;

    std::string stem_;
    std::string path_;
    std::unique_ptr<NameLock> lock_;
    bool is_further_ = false;
};

}  // namespace quarn2::ftp
