// What the error codes of a storage mean for its caller. Each backend has one table that maps its
// protocol's codes to these.
#pragma once

#include <string>
#include <string_view>

#include "kro/kro_err.h"

namespace quarn2 {

enum class Failure {
    kUnauthorized,  // the credentials are refused: the caller drops the upload at once
    kNoRoom,        // a full disk or quota: the caller deletes old backups to make room
    kNotFound,
    kUnavailable,  // worth another try
    kFailed,
};

// The kind of error that is thrown for it. Only an upload can report kNoRoom otherwise: for every
// other operation it is kFailed.
kro_err::Kind KindOf(Failure failure) noexcept;

// The text in small letters, without the path and without its components. For searching a server's
// words: a file of user "quota" must not look like a quota.
std::string SearchableText(std::string_view text, std::string_view path);

}  // namespace quarn2
