// Limits the transfer rate of any backend.
#pragma once

#include <cstdint>
#include <memory>

#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

// Limits each upload and each download to `bytes_per_second`, averaged over about a second.
std::unique_ptr<StorageBackend> RateLimited(std::unique_ptr<StorageBackend> backend,
                                            std::int64_t bytes_per_second);

}  // namespace quarn2
