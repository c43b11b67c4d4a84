// Deletes the files of a backup by their common prefix, without knowing their complete names.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "quarn2/storage.h"

// The prefix that the names of an incomplete backup's files share: `name` without its type letter
// and without the part from ".info" or ".tgz" on.
std::string GetPrefix(const std::string& name);

// Delete the files for whose names `takes` returns true, at the storage root or in a local
// directory. Each deletion is logged with the reason `why`.
using TakesName = std::function<bool(const std::string& name)>;
void DeleteOnStorageIf(quarn2::Storage& storage, const TakesName& takes, const char* why);
void DeleteLocallyIf(const std::string& directory, const TakesName& takes, const char* why);

// Deletes every file with the info file's prefix at the storage root and in the info file's
// directory. When that fails, logs the error and returns false. Never throws.
bool DeleteByPrefix(std::shared_ptr<quarn2::Storage> storage, const std::string& info_path);
