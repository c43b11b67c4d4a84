// What an S3 server's refusal means.
#pragma once

#include <string>
#include <string_view>

#include "failure.h"

namespace quarn2::s3 {

// Servers leave out what they like: the message may be empty. An answer without a code is one to
// HEAD, or a page of a proxy in between.
struct Refusal {
    int status = 0;
    std::string code;
    std::string message;
    std::string region;  // of the bucket; empty when the reply names none
    std::string path;    // bucket and key of the request; not searched in the message

    // The one table of S3's codes; see the definition.
    Failure failure() const;
    kro_err::Kind kind() const { return KindOf(failure()); }
    bool IsNoRoom() const { return failure() == Failure::kNoRoom; }
    // The file or the upload does not exist. A proxy's 404 does not say that.
    bool IsMissing() const;
    // "QuotaExceeded (HTTP 403)", with the message and what to do about it where that is known.
    std::string Text() const;
};

}  // namespace quarn2::s3
