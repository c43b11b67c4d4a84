// Loads the private key of a login.
#pragma once

#include <string>

#include "backends/sftp/ssh_library.h"

namespace quarn2::sftp {

// Throws kUnauthorized for a key that is missing or invalid, that other users may read or change,
// or that has a passphrase.
SshKey LoadKey(const std::string& path);

}  // namespace quarn2::sftp
