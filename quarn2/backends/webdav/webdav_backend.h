// Storages behind WebDAV: "webdav" over TLS, "webdav+http" in the clear.
#pragma once

#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

BackendScheme WebdavScheme();
BackendScheme WebdavHttpScheme();

}  // namespace quarn2
