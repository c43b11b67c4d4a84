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

    // Downloads and decrypts the file, removes the local copy, and returns the bytes that the file
    // uses on the storage. `is_encrypted`: the stored file is encrypted, unless it is an info file.
    // Throws kro_err::Error when the file cannot be read completely.
    std::int64_t Check(quarn2::Storage& storage, const std::string& name, bool is_encrypted) const;

  private:
    std::string path_;
};
