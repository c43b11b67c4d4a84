// The check that the storage is the one whose backups the info root lists. An unmounted storage
// directory or a wrong token shows another storage: an eviction there would remove the info files
// of backups that still exist.
#pragma once

#include <string>

#include "quarn2/storage.h"

// Throws std::runtime_error, with advice for the operator, when the storage has none of the newest
// backups that are known in the info root, and kro_err::Error when the storage cannot be asked.
// Fewer than three finished backups are too few for a conclusion.
void CheckRightStorage(quarn2::Storage& storage, const std::string& info_root);

// The same for a server that is about to start. Returns false, after a warning on standard error
// and in the log, when the storage cannot be asked.
bool IsRightStorageAtStart(const std::string& info_root);
