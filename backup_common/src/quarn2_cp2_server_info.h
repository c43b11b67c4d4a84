// The server's copies of info files that other machines wrote.
#pragma once

#include <string>

#include "quarn2/storage.h"

// Downloads a backup's info file from the storage into the info root, where scans and evictions
// look for it. Returns its local path, or "" when the storage does not have it. Throws
// kro_err::Error on other failures.
std::string FetchInfoFile(quarn2::Storage& storage, const std::string& root,
                          const std::string& user, const std::string& date);
