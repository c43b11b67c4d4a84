// The address of a storage on an S3 server, parsed from its token.
#pragma once

#include <cstdint>
#include <string>

#include "quarn2/token.h"
#include "token/s3_scheme.h"

namespace quarn2::s3 {

inline constexpr std::int64_t kDefaultPart = 16 * kMiB;

struct Address {
    std::string url;     // "https://host:port", or "https://bucket.host:port" in virtual style
    std::string host;    // the value of the Host header: "host:port"
    std::string base;    // percent-encoded bucket path in URLs: "/bucket/", or "/" in virtual style
    std::string bucket;  // name of the bucket, not percent-encoded
    std::string prefix;  // the beginning of every key: "" or "a/b/"
    std::string region;
    std::string storage_class;
    std::int64_t part_size = kDefaultPart;
};

// Returns the address in a valid token.
Address AddressOf(const BackupToken& token);

}  // namespace quarn2::s3
