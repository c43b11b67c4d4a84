// The backend for a storage in a directory of this machine.
#pragma once

#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

BackendScheme LocalScheme();

}  // namespace quarn2
