// What a token says about a place on an S3 server.
#pragma once

#include <cstdint>
#include <string>

#include "quarn2/token.h"

namespace quarn2::s3 {

inline constexpr std::int64_t kMiB = 1024LL * 1024;
inline constexpr std::int64_t kSmallestPart = 5 * kMiB;
inline constexpr std::int64_t kDefaultPart = 16 * kMiB;
// Also all the memory that parts may take together.
inline constexpr std::int64_t kLargestPart = 64 * kMiB;

struct Address {
    std::string url;     // "https://host:port", with the bucket before the host in virtual style
    std::string host;    // "host:port" as the Host header has it
    std::string base;    // "/bucket/", or "/" in virtual style, percent-encoded
    std::string bucket;  // its plain name
    std::string prefix;  // before every key: "" or "a/b/"
    std::string region;
    std::string storage_class;
    std::int64_t part_size = kDefaultPart;
};

// What is wrong with the token, "" when nothing is; never a secret.
std::string Fault(const BackupToken& token);

// Of a token without a fault.
Address AddressOf(const BackupToken& token);

}  // namespace quarn2::s3
