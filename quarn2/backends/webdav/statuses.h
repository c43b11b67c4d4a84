// Classifies the statuses of WebDAV servers.
#pragma once

#include <string>

#include "failure.h"

namespace quarn2::webdav {

// The statuses that the code of this folder checks for.
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

// Looks the status up in the only table of statuses. `accepted`: the server has already accepted a
// request of this user. A 403 is then a missing right; before that it may come from a proxy.
Failure FailureOf(int status, bool accepted) noexcept;

// Returns an explanation of the status for the administrator, beginning with a blank, or "" if
// there is none.
std::string Hint(const std::string& method, int status);

}  // namespace quarn2::webdav
