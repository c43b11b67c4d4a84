// Download: what a restore job and the rescan use.
#pragma once

#include <memory>
#include <string>

#include "kro/kro_args.h"
#include "quarn2/storage.h"

// --get: fetches one file of a backup.
void CommandGet(kro_args::ResultPtr result);

// Downloads one file: up to three attempts a minute apart, as long as it is listed at the storage
// root. Throws the last attempt's error after it has left an attempts file; refused credentials are
// thrown at once.
void Get(std::shared_ptr<quarn2::Storage> storage, const std::string& remote,
         const std::string& local);

// Fetches the info file `name` into `local_dir`, together with the companion that a restore needs
// first (first slice or index). An index under a key that is not the token's adds a line to
// `encrypted_lines`. Failures are logged, never thrown. The fourth argument has no use.
void DownloadInfoFile(const std::string& local_dir, const std::string& node,
                      std::shared_ptr<quarn2::Storage> storage, const std::string& filter,
                      std::string& encrypted_lines, const std::string& name);
