// Downloads for restore jobs and for the rescan.
#pragma once

#include <exception>
#include <memory>
#include <string>

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

// Downloads the info file `name` into `local_dir`, together with the companion file that a restore
// needs first: the isolated catalogue or the index. For an index that is encrypted with a key other
// than the token's, adds a line to `encrypted_lines`. Ignores a name that does not end with ".info"
// or that contains "#". Logs failures, never throws. Returns false when the storage was
// unavailable, so that another attempt may succeed. `filter` is unused.
bool DownloadInfoFile(const std::string& local_dir, const std::string& node,
                      std::shared_ptr<quarn2::Storage> storage, const std::string& filter,
                      std::string& encrypted_lines, const std::string& name);
