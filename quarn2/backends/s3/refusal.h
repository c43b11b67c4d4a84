// Classifies the error responses of S3 servers.
#pragma once

#include <string>
#include <string_view>

#include "failure.h"

namespace quarn2::s3 {

// Some servers send no message. A response without a code is one to a HEAD request, or a proxy's
// page.
struct Refusal {
    int status = 0;
    std::string code;
    std::string message;
    std::string region;  // of the bucket; empty when the reply names none
    std::string path;    // bucket and key of the request; ignored in searches of the message

    // Looks the code up in kCodes, the only table of S3's error codes; if it is unknown, the
    // status.
    Failure failure() const;
    kro_err::Kind kind() const { return KindOf(failure()); }
    bool IsNoRoom() const { return failure() == Failure::kNoRoom; }
    // True if the file or the upload does not exist. False for a 404 without a code, which may come
    // from a proxy.
    bool IsMissing() const;
    // Returns "QuotaExceeded (HTTP 403)", with the server's message and with advice where there is
    // any.
    std::string Text() const;
};

}  // namespace quarn2::s3
