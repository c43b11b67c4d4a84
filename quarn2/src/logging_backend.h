// Logs the operations of a storage and their duration.
#pragma once

#include <memory>

#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

// The log level of these lines: trace, which is not logged by default.
inline constexpr int kStorageLogLevel = 8;

// Logs one line at the end of each operation, successful or failed, except for SyncRemovals.
std::unique_ptr<StorageBackend> Logged(std::unique_ptr<StorageBackend> backend);

}  // namespace quarn2
