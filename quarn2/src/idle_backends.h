// Keeps backends with open connections for the next storage object of the same token.
//
// A node client makes a new storage object for every upload. Without this, each upload would
// connect, authenticate and agree on keys again.
#pragma once

#include <functional>
#include <memory>

#include "quarn2/token.h"
#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

// Returns an idle backend of this token, or the one that `open` makes. When the result is
// destroyed, its backend becomes idle for the next call, unless an operation has failed with an
// error other than kNotFound, because then the connection may be broken. Thread-safe. A forked
// child does not reuse the connections of its parent.
std::unique_ptr<StorageBackend> TakeBackend(
    const BackupToken& token, const std::function<std::unique_ptr<StorageBackend>()>& open);

}  // namespace quarn2
