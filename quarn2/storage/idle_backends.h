// Keeps backends with open connections for the next storage object of the same token.
//
// A node client creates a new storage object for every upload. Without idle backends, each upload
// would open a new connection, authenticate and exchange keys.
#pragma once

#include <functional>
#include <memory>

#include "quarn2/token.h"
#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

// Returns an idle backend of this token, or calls `open` when no backend of the token is idle. When
// the returned object is destroyed, its backend becomes idle for the next call. After an operation
// that failed with an error other than kNotFound, the backend is closed instead, because its
// connection may be broken. Thread-safe. A forked child does not reuse the connections of its
// parent.
std::unique_ptr<StorageBackend> AcquireBackend(
    const BackupToken& token, const std::function<std::unique_ptr<StorageBackend>()>& open);

}  // namespace quarn2
