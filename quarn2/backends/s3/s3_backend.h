// The backend for S3 object storages.
#pragma once

#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

// Returns the scheme "s3", which uses TLS.
BackendScheme S3Scheme();
// Returns the scheme "s3+http", which uses no TLS. It is meant for servers on the same machine or
// behind a tunnel.
BackendScheme S3PlainScheme();

}  // namespace quarn2
