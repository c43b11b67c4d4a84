// The registry of the schemes whose storages the program can open.
#pragma once

#include <string>

#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

// Returns a registered scheme, or null for an unknown scheme. The built-in schemes are listed in
// registry.cpp.
const BackendScheme* FindScheme(const std::string& scheme);

// Registers a scheme in addition to the built-in schemes, such as the memory storage of the tests.
// Must not be called while other threads parse tokens or open storages.
void RegisterScheme(BackendScheme scheme);

}  // namespace quarn2
