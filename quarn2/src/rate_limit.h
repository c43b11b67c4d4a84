// A limit of the bytes per second around any backend.
#pragma once

#include <cstdint>
#include <memory>

#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

// Carries at most `bytes_per_second` in each direction, averaged over a second.
std::unique_ptr<StorageBackend> RateLimited(std::unique_ptr<StorageBackend> backend,
                                            std::int64_t bytes_per_second);

}  // namespace quarn2
