// Classifies the replies of FTP servers.
#pragma once

#include <string_view>

#include "kro/kro_err.h"
#include "reply.h"

namespace quarn2::ftp {

enum class Meaning { kDone, kUnauthorized, kNoRoom, kNotFound, kUnavailable, kFailed };

// Classifies a reply by its code, and by its text if the code is ambiguous. Returns kUnauthorized
// and kNoRoom only if the reply has no other possible meaning, because for kUnauthorized the
// program abandons the upload and deletes the local file, and for kNoRoom it deletes old backups. A
// refusal without a reason (550, 451) is kFailed or kUnavailable.
Meaning MeaningOf(const Reply& reply);

// Returns the error kind that the backend throws for a refusal. There is no error kind for a full
// storage, because Put() reports a full storage by returning false. For such a refusal, KindOf()
// returns kUnavailable or kFailed.
kro_err::Kind KindOf(const Reply& reply);

// Returns true if the reply means that the storage is full.
bool IsFull(const Reply& reply);

// Returns true if the reply means that the server does not support the command.
bool IsUnknownCommand(const Reply& reply) noexcept;

// Returns true if the reply means that the server does not accept the data connection of a
// transfer.
bool RefusesDataConnection(const Reply& reply) noexcept;

// ReportsMissing, ReportsDenied and ReportsTlsNeeded search the text of a refusal (Reply::words)
// for phrases that common servers use.
bool ReportsMissing(std::string_view words);
bool ReportsDenied(std::string_view words);
bool ReportsTlsNeeded(std::string_view words);
// Returns true if the text of the reply to a successful listing command reports that the listing is
// incomplete.
bool ReportsTruncation(std::string_view text);

}  // namespace quarn2::ftp
