// A wrapper that limits the transfer rate of a backend.
#pragma once

#include <cstdint>
#include <memory>

#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

// Wraps a backend. The wrapper limits the rate of each upload and each download to
// `bytes_per_second`, averaged over about a second.
std::unique_ptr<StorageBackend> RateLimited(std::unique_ptr<StorageBackend> backend,
                                            std::int64_t bytes_per_second);

}  // namespace quarn2
