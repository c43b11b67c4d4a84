// Internal functions of the registry. Its public interface is quarn2_backend/storage_backend.h.
#pragma once

#include <string>

namespace quarn2 {

// Returns the names of all schemes, separated by ", ", for error texts.
std::string KnownSchemes();

}  // namespace quarn2
