// The backend for S3 object storages.
#pragma once

#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

// "s3": over TLS.
BackendScheme S3Scheme();
// "s3+http": without TLS, for servers on the same machine or behind a tunnel.
BackendScheme S3PlainScheme();

}  // namespace quarn2
