// The backend for a directory on an SFTP server.
#pragma once

#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

BackendScheme SftpScheme();

}  // namespace quarn2
