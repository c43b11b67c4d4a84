// Downloads stored files to check that they can be read. Keeps at most one file at a time.
#pragma once

#include <cstdint>
#include <string>

#include "quarn2/storage.h"

// A directory in the install root's tmp for one file at a time. The destructor removes it. The
// constructor removes the directories of processes that were killed.
class DownloadDirectory {
  public:
    DownloadDirectory();
    ~DownloadDirectory();
    DownloadDirectory(const DownloadDirectory&) = delete;
    DownloadDirectory& operator=(const DownloadDirectory&) = delete;

    // Removes the previous file, downloads and decrypts the file `name` as `local_name`, and
    // returns the bytes that it uses on the storage. `is_encrypted` is true for an encrypted
    // backup; it has no effect on an info file. Throws kro_err::Error when the file cannot be read
    // completely.
    std::int64_t Fetch(quarn2::Storage& storage, const std::string& name,
                       const std::string& local_name, bool is_encrypted);

    // Removes the file.
    void Drop();

    // The paths of the directory and of a file in it, both relative to the install root.
    const std::string& path() const noexcept { return path_; }
    std::string PathOf(const std::string& local_name) const;

  private:
    std::string path_;
    std::string local_;  // the path of the file; empty when there is none
};
