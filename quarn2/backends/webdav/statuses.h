// What the statuses of a WebDAV server mean.
#pragma once

#include <string>

#include "failure.h"

namespace quarn2::webdav {

// Statuses that decide something here.
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

// The one table. `accepted`: the server has already let this user do something. A 403 before that
// may be a proxy's, afterwards it is a missing right.
Failure FailureOf(int status, bool accepted) noexcept;

// What a status may mean to the administrator that its number does not say; begins with a blank,
// "" when there is nothing to add.
std::string Hint(const std::string& method, int status);

}  // namespace quarn2::webdav
