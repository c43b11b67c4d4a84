// Downloads for restore jobs and for the rescan.
#pragma once

#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kro/kro_args.h"
#include "quarn2/storage.h"

// --get: fetches one file of a backup.
void CommandGet(kro_args::ResultPtr result);

// Downloads one file in up to three attempts, one minute apart. Retries only while the storage root
// lists the file. When all attempts have failed, or the root does not list the file, appends the
// reason to the file's ".attempts" file and throws the error of the last attempt. Throws an
// "unauthorized" error at once, without a change of the ".attempts" file.
void Get(std::shared_ptr<quarn2::Storage> storage, const std::string& remote,
         const std::string& local);

// Returns true for the error of a storage that was unavailable, so that another attempt may
// succeed.
bool IsUnavailable(const std::exception& error);

// An info file to download: its name on the storage, which is also its path in `local_dir`.
struct InfoFile {
    std::string local_dir;
    std::string name;
};

// Downloads many info files like DownloadInfoFile, several at the same time. Calls `done` once for
// each file, in any order, on the thread of the caller. `is_read` is false when the storage was
// unavailable, so that another attempt may succeed. Syncs the files, unless `storage` defers this
// (see Storage::DeferSync). Never syncs indexes that are encrypted with another key than that of
// BACKUP_TOKEN, so the caller must call kro_file::SyncFileSystem to make them durable.
using InfoFileDone = std::function<void(std::size_t position, bool is_read)>;
void DownloadInfoFiles(quarn2::Storage& storage, const std::vector<InfoFile>& files,
                       std::string& encrypted_lines, const InfoFileDone& done);

// True for a name that DownloadInfoFile does not ignore.
bool IsInfoFileName(const std::string& name);

// Downloads the info file `name` into `local_dir`, together with the companion file that a restore
// needs first: the isolated catalogue or the index. For an index that is encrypted with a key other
// than the token's, adds a line to `encrypted_lines`. Ignores a name that does not end with ".info"
// or that contains "#". Logs failures, never throws. Returns false when the storage was
// unavailable, so that another attempt may succeed. `filter` is unused.
bool DownloadInfoFile(const std::string& local_dir, const std::string& node,
                      std::shared_ptr<quarn2::Storage> storage, const std::string& filter,
                      std::string& encrypted_lines, const std::string& name);
