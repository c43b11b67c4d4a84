// The attempts of an upload or a download.
#pragma once

#include <exception>
#include <functional>
#include <optional>
#include <string>

#include "kro/kro_err.h"

// The error of the last attempt.
struct FailedTransfer {
    kro_err::Kind kind;
    std::string reason;
    std::exception_ptr error;  // a kro_err::Error
};

// Calls `transfer` up to three times, and waits one minute between two attempts. After a
// kro_err::Error, makes no further attempt when the error is "unauthorized" or `may_retry` returns
// false. Otherwise logs `failure`, the reason and the number of the attempt. Returns nothing after
// a successful attempt. Does not catch other exceptions of `transfer`, or exceptions of
// `may_retry`.
std::optional<FailedTransfer> RunAttempts(
    const std::string& failure, const std::function<void()>& transfer,
    const std::function<bool(const kro_err::Error&)>& may_retry);
