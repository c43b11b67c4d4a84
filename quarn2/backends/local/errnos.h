// Classifies the errno values of operations on a local storage.
#pragma once

#include "base/failure.h"

namespace quarn2::local {

// Returns the class of an errno value, by default kFailed. Never returns kUnauthorized, because the
// storage token of a local storage contains no credentials.
Failure FailureOf(int error) noexcept;

}  // namespace quarn2::local
