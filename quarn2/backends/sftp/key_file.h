// Loads the private key file that is used to log in.
#pragma once

#include <string>

#include "ssh_library.h"

namespace quarn2::sftp {

// Loads a private key from a file. Throws kUnauthorized if the file is missing or invalid, if other
// users may read or change it, or if the key has a passphrase.
SshKey LoadKey(const std::string& path);

}  // namespace quarn2::sftp
