// The meaning of errno values in a local storage.
#pragma once

#include "failure.h"

namespace quarn2::local {

// Returns the failure of an errno value, by default kFailed. Never kUnauthorized, because file
// permissions are not credentials.
Failure FailureOf(int error) noexcept;

}  // namespace quarn2::local
