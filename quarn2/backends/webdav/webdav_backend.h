// The backends for WebDAV servers: "webdav" with TLS, "webdav+http" without.
#pragma once

#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

BackendScheme WebdavScheme();
BackendScheme WebdavHttpScheme();

}  // namespace quarn2
