// Object storages that speak S3.
#pragma once

#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

// "s3": over TLS.
BackendScheme S3Scheme();
// "s3+http": in the clear, for servers on the same machine or behind a tunnel.
BackendScheme S3PlainScheme();

}  // namespace quarn2
