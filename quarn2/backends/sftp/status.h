// Classifies the status in SFTP replies.
#pragma once

#include <string>

#include "base/failure.h"
#include "packet.h"

namespace quarn2::sftp {

struct Status {
    Code code = Code::kOk;
    std::string text;  // the text that the server sent; may contain any bytes
};

// Returns the failure class of a status, from the only table of SFTP status codes. Most servers
// report a full disk or quota only in the text of the status, so the text is searched for such
// phrases. `path` is the path of the request, which is removed from the text before the search. A
// kFailure without such a text does not show whether the storage is full; an upload then queries
// the free space.
Failure FailureOf(const Status& status, const std::string& path);

// Returns a description of the status for error texts.
std::string Describe(const Status& status);

// Throws the error for a refused request, with the text "Failed to WHAT 'PATH' on the storage:
// ...".
[[noreturn]] void ThrowRefused(const std::string& what, const std::string& path,
                               const Status& status);

}  // namespace quarn2::sftp
