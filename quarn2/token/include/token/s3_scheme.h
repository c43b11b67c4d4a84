// The parts of a token with the scheme "s3" or "s3+http".
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "quarn2/token.h"

namespace quarn2::s3 {

inline constexpr std::int64_t kMiB = 1024LL * 1024;
inline constexpr std::int64_t kMinPart = 5 * kMiB;
// The maximum size of a part that is read into memory, and also the maximum memory for all parts of
// an upload together.
inline constexpr std::int64_t kMaxPart = 64 * kMiB;

// Returns true for a token of the scheme without TLS.
bool IsPlain(const BackupToken& token);

// Returns true when the bucket is a part of the host name in the URLs of the server.
bool IsVirtual(const BackupToken& token);

// Splits the path of a token into bucket and prefix. Strips slashes at both ends of the path.
std::pair<std::string, std::string> BucketAndPrefix(const BackupToken& token);

}  // namespace quarn2::s3
