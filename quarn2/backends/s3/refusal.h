// Classifies the error responses of S3 servers.
#pragma once

#include <string>
#include <string_view>

#include "base/failure.h"

namespace quarn2::s3 {

// The content of an S3 error response. `message` is empty if the server sent no message. `code` is
// empty for the response to a HEAD request and for the page of a proxy.
struct Refusal {
    int status = 0;
    std::string code;
    std::string message;
    std::string region;  // the region of the bucket; empty if the response does not contain it
    std::string path;    // bucket and key of the request; not searched for keywords

    // Returns the failure class of the error code from kCodes, the only table of S3 error codes.
    // For an unknown code, the status determines the class.
    Failure failure() const;
    kro_err::Kind kind() const { return KindOf(failure()); }
    bool IsNoRoom() const { return failure() == Failure::kNoRoom; }
    // Returns true if the file or the multipart upload does not exist. Returns false for a 404
    // without an error code, which may come from a proxy.
    bool IsMissing() const;
    // Returns a description for error texts, such as "QuotaExceeded (HTTP 403)". Includes the
    // server's message, and advice for the administrator if the cause is known.
    std::string Text() const;
};

}  // namespace quarn2::s3
