// The storages that are FTP servers: over TLS, and without.
#pragma once

#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

BackendScheme FtpsScheme();
BackendScheme FtpScheme();

}  // namespace quarn2
