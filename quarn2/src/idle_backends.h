// Backends with open connections, kept for the next storage object of the same token.
//
// Every upload of a node client has a storage object of its own, one after another for each slice:
// without this each would connect, prove who it is and agree on keys anew.
#pragma once

#include <functional>
#include <memory>

#include "quarn2/token.h"
#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

// A backend of this token that lay idle, else the one that `open` makes. When the result goes, the
// backend inside is kept for the next call, unless an operation has failed in a way that may be the
// connection's. Thread-safe; nothing crosses a fork.
std::unique_ptr<StorageBackend> TakeBackend(
    const BackupToken& token, const std::function<std::unique_ptr<StorageBackend>()>& open);

}  // namespace quarn2
