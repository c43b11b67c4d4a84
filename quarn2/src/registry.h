// The registry's own helper; its interface is quarn2_backend/storage_backend.h.
#pragma once

#include <string>

namespace quarn2 {

// The schemes that exist, as an error text lists them.
std::string KnownSchemes();

}  // namespace quarn2
