// The private key of a login.
#pragma once

#include <string>

#include "backends/sftp/ssh_library.h"

namespace quarn2::sftp {

// Throws kUnauthorized for a key that is missing, that others than its owner may read, or that is
// locked with a passphrase.
SshKey LoadKey(const std::string& path);

}  // namespace quarn2::sftp
