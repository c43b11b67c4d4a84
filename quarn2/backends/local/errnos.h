// What the errors of system calls mean in a local storage.
#pragma once

#include "failure.h"

namespace quarn2::local {

// The one table of errno values. None is kUnauthorized: the rights of a file are no matter of
// credentials.
Failure FailureOf(int error) noexcept;

}  // namespace quarn2::local
