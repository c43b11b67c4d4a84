// The parts of a token with the scheme "sftp".
#pragma once

#include <string>

#include "quarn2/token.h"

namespace quarn2 {

// Returns the storage directory. A relative path, which the token writes as "/~/PATH", is relative
// to the login directory.
std::string SftpRootOf(const BackupToken& token);

}  // namespace quarn2
