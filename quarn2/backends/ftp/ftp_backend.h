// The backends for FTP servers: "ftps" with TLS and "ftp" without TLS.
#pragma once

#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

BackendScheme FtpsScheme();
BackendScheme FtpScheme();

}  // namespace quarn2
