// The identity of a storage. It does not depend on the user or the secret in the token.
#pragma once

#include <string>

#include "quarn2/token.h"

// Scheme, host, port and path of the storage in a normalised form, such as
// "sftp://host/srv/backups". User, password, parameters and the scheme's default port are left out.
// Symbolic links in a local path are resolved. Tokens of the same storage give the same text. The
// token must be valid.
std::string StorageIdentity(const quarn2::BackupToken& token);
