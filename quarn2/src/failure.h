// The classes of storage errors that a caller distinguishes. Each backend has one table that maps
// the error codes of its protocol to these.
#pragma once

#include <string>
#include <string_view>

#include "kro/kro_err.h"

namespace quarn2 {

enum class Failure {
    kUnauthorized,  // refused credentials: the caller abandons the upload at once
    kNoRoom,        // a full disk or quota: the caller deletes old backups to make room
    kNotFound,
    kUnavailable,  // the caller may retry
    kFailed,
};

// Returns the error kind to throw for a failure. kNoRoom becomes kFailed, because only an upload
// can report it in another way: Put returns false.
kro_err::Kind KindOf(Failure failure) noexcept;

// Returns the text of a server in lowercase, without the path and its components, for a search for
// keywords: the name of user "quota" must not look like an exceeded quota.
std::string SearchableText(std::string_view text, std::string_view path);

}  // namespace quarn2
