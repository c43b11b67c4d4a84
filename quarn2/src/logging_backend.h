// What a storage is asked and how long it takes, in the log.
#pragma once

#include <memory>

#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

// The level of the lines: a trace, silent unless somebody looks for trouble.
inline constexpr int kStorageLogLevel = 8;

// Logs one line for each operation when it has ended, well or not.
std::unique_ptr<StorageBackend> Logged(std::unique_ptr<StorageBackend> backend);

}  // namespace quarn2
