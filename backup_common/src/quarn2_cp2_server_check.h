// Checks that the storage contains the backups of the info root. With an unmounted storage
// directory or a wrong token, an eviction would remove the info files of backups that still exist.
#pragma once

#include <string>

#include "quarn2/storage.h"

// Throws std::runtime_error, with advice for the operator, when the storage has none of the newest
// backups of the info root. Throws kro_err::Error when the storage does not answer. Does not throw
// when the info root has fewer than three finished backups, because so few backups do not identify
// a storage.
void CheckRightStorage(quarn2::Storage& storage, const std::string& info_root);

// Calls CheckRightStorage for a server that is about to start. When the storage does not answer,
// prints a warning on standard error, logs it and returns false.
bool IsRightStorageAtStart(const std::string& info_root);
