// What the replies of FTP servers mean.
#pragma once

#include <string_view>

#include "backends/ftp/reply.h"
#include "kro/kro_err.h"

namespace quarn2::ftp {

enum class Meaning { kDone, kUnauthorized, kNoRoom, kNotFound, kUnavailable, kFailed };

// By the code, and by the text where the code leaves it open. kUnauthorized and kNoRoom only when
// nothing else can be meant: the one makes callers delete files, the other makes them evict
// backups. A refusal that names no reason (550, 451) is kFailed or kUnavailable.
Meaning MeaningOf(const Reply& reply);

// What a refusal means for a caller of the storage. Only an upload can be refused for want of room.
kro_err::Kind KindOf(const Reply& reply);

// The storage has no room.
bool IsFull(const Reply& reply);

// The command is not known or not supported.
bool IsUnknownCommand(const Reply& reply) noexcept;

// The server does not accept the data connection of a transfer.
bool RefusesDataConnection(const Reply& reply) noexcept;

// These search a text for the phrases of the usual servers; pass Reply::words of a refusal.
bool SaysMissing(std::string_view words);
bool SaysDenied(std::string_view words);
bool SaysTlsNeeded(std::string_view words);
// A listing that has succeeded is incomplete.
bool SaysTruncated(std::string_view text);

}  // namespace quarn2::ftp
