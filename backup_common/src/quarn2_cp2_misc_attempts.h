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

// Calls `transfer` in up to three attempts, one minute apart. Calls `may_retry` after each attempt
// that ended with a kro_err::Error, except "unauthorized", and then logs the failure: `failure`,
// the reason and the number of the attempt. Makes no other attempt after "unauthorized", and when
// `may_retry` returns false; then the failure is not logged. Returns nothing after a successful
// attempt. Does not catch other exceptions of `transfer` and exceptions of `may_retry`.
std::optional<FailedTransfer> RunAttempts(
    const std::string& failure, const std::function<void()>& transfer,
    const std::function<bool(const kro_err::Error&)>& may_retry);
