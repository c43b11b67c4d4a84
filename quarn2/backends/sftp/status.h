// Classifies the status of SFTP replies.
#pragma once

#include <string>

#include "backends/sftp/packet.h"
#include "failure.h"

namespace quarn2::sftp {

struct Status {
    Code code = Code::kOk;
    std::string text;  // the server's text; may contain any bytes
};

// Looks the status up in the only table of the protocol's codes. Most servers have no code for a
// full disk or quota, but a text. The text is searched without the request's `path`. A kFailure
// without such a text does not show whether the storage is full: an upload then queries the free
// space.
Failure FailureOf(const Status& status, const std::string& path);

// Returns a description of the status for error texts.
std::string Describe(const Status& status);

// Throws "Failed to WHAT 'PATH' on the storage: ...".
[[noreturn]] void ThrowRefused(const std::string& what, const std::string& path,
                               const Status& status);

}  // namespace quarn2::sftp
