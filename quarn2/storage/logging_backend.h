// A wrapper that logs the operations of a backend and their duration.
#pragma once

#include <memory>

#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

// The level at which storage operations are logged: trace, which is disabled by default.
inline constexpr int kStorageLogLevel = 8;

// Wraps a backend. The wrapper logs one line at the end of each storage operation, successful or
// failed, except for SyncRemovals.
std::unique_ptr<StorageBackend> Logged(std::unique_ptr<StorageBackend> backend);

}  // namespace quarn2
