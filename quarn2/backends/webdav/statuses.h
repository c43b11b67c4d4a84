// Classifies the HTTP statuses of WebDAV responses.
#pragma once

#include <string>

#include "base/failure.h"

namespace quarn2::webdav {

// The HTTP statuses that the WebDAV backend checks for.
inline constexpr int kOk = 200;
inline constexpr int kMultistatus = 207;
inline constexpr int kBadRequest = 400;
inline constexpr int kUnauthorizedStatus = 401;
inline constexpr int kForbidden = 403;
inline constexpr int kNotFoundStatus = 404;
inline constexpr int kNotAllowed = 405;
inline constexpr int kConflict = 409;
inline constexpr int kGone = 410;
inline constexpr int kPreconditionFailed = 412;
inline constexpr int kTooLarge = 413;
inline constexpr int kLocked = 423;
inline constexpr int kFailedDependency = 424;
inline constexpr int kServerError = 500;
inline constexpr int kNoRoom = 507;

// Returns the failure class of an HTTP status, from the only table of statuses. `accepted` is true
// if the server has already accepted a request of this user. A 403 then means a missing permission.
// Otherwise the 403 may come from a proxy.
Failure FailureOf(int status, bool accepted) noexcept;

// Returns an explanation of an error status for the administrator, which begins with a blank, or ""
// for a status without an explanation.
std::string Hint(const std::string& method, int status);

}  // namespace quarn2::webdav
