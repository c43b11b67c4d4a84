// The storage that is a directory of an SFTP server.
#pragma once

#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

BackendScheme SftpScheme();

}  // namespace quarn2
