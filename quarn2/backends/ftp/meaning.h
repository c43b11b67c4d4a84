// Classifies the replies of FTP servers.
#pragma once

#include <string_view>

#include "backends/ftp/reply.h"
#include "kro/kro_err.h"

namespace quarn2::ftp {

enum class Meaning { kDone, kUnauthorized, kNoRoom, kNotFound, kUnavailable, kFailed };

// Classifies a reply by its code, and by its text if the code is ambiguous. Returns kUnauthorized
// and kNoRoom only if the reply can mean nothing else: callers delete files for kUnauthorized and
// evict backups for kNoRoom. A refusal without a reason (550, 451) is kFailed or kUnavailable.
Meaning MeaningOf(const Reply& reply);

// Returns the error kind for a refusal. For a full storage it is kUnavailable or kFailed, because
// only Put() reports a full storage, by its result.
kro_err::Kind KindOf(const Reply& reply);

// True if the storage is full.
bool IsFull(const Reply& reply);

// True if the server does not know or does not support the command.
bool IsUnknownCommand(const Reply& reply) noexcept;

// True if the server does not accept the data connection of a transfer.
bool RefusesDataConnection(const Reply& reply) noexcept;

// These search a text for phrases that common servers use. Pass Reply::words of a refusal.
bool SaysMissing(std::string_view words);
bool SaysDenied(std::string_view words);
bool SaysTlsNeeded(std::string_view words);
// True if a successful listing is incomplete.
bool SaysTruncated(std::string_view text);

}  // namespace quarn2::ftp
