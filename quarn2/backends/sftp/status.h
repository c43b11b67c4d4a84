// What the status of an SFTP reply means.
#pragma once

#include <string>

#include "backends/sftp/packet.h"
#include "failure.h"

namespace quarn2::sftp {

struct Status {
    Code code = Code::kOk;
    std::string text;  // the server's own, any bytes
};

// The one table of the protocol's codes. Most servers have no code for a full disk or quota, but a
// text: it is searched without the request's `path`. Without such a text kFailure says nothing
// about the room: an upload asks for the free space.
Failure FailureOf(const Status& status, const std::string& path);

// What the server said, in words.
std::string Describe(const Status& status);

// Throws "Failed to WHAT 'PATH' on the storage: ...".
[[noreturn]] void Refused(const std::string& what, const std::string& path, const Status& status);

}  // namespace quarn2::sftp
