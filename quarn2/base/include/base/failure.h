// The classes of storage errors that the program distinguishes. Each backend has one table that
// maps the error codes of its protocol to these classes.
#pragma once

#include <string>
#include <string_view>

#include "kro/kro_err.h"

namespace quarn2 {

enum class Failure {
    kUnauthorized,  // refused credentials: the program abandons the upload without a retry
    kNoRoom,        // a full disk or quota: the program deletes old backups to make room
    kNotFound,
    kUnavailable,  // a temporary error: the program retries
    kFailed,
};

// Returns the error kind that a backend throws for a failure. kNoRoom becomes kFailed, because
// kro_err::Kind has no value for a full storage: Put reports a full storage by returning false.
kro_err::Kind KindOf(Failure failure) noexcept;

// Converts a server's error text for a keyword search: returns it in lowercase, without `path` and
// the components of the path. Otherwise the name of a user "quota" would look like an exceeded
// quota.
std::string SearchableText(std::string_view text, std::string_view path);

}  // namespace quarn2
