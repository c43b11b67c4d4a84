// The identity of a storage: which one it is, whoever asks and with whatever secret.
#pragma once

#include <string>

#include "quarn2/token.h"

// Scheme, host and path in one form, such as "sftp://host/srv/backups": without user, password and
// parameters, without the scheme's own port, a local path with its links resolved. Tokens of the
// same storage give the same text. For a valid token.
std::string StorageIdentity(const quarn2::BackupToken& token);
