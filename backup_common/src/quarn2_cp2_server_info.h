// Info files that other machines wrote: the server's own copies.
#pragma once

#include <string>

#include "quarn2/storage.h"

// Brings a backup's info file from the storage into the info root, where scans and evictions look
// for it, and returns its path there; empty when the storage has none. Other failures are a
// kro_err::Error.
std::string FetchInfoFile(quarn2::Storage& storage, const std::string& root,
                          const std::string& user, const std::string& date);
