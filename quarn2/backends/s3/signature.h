// Computes S3's signature version 4, which proves that the sender of a request knows the secret
// key.
#pragma once

#include <ctime>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quarn2::s3 {

using Params = std::vector<std::pair<std::string, std::string>>;

// Returns the query of a URL: "a=1&b=2", sorted and percent-encoded. This text is signed and sent.
std::string CanonicalQuery(const Params& params);

struct Credentials {
    std::string access;
    std::string secret;
    std::string region;
    std::string service = "s3";
};

struct Unsigned {
    std::string method;
    std::string path;          // the path of the URL, percent-encoded
    std::string query;         // the result of CanonicalQuery()
    Params headers;            // all headers to sign, including "host"; the names are in lower case
    std::string payload_hash;  // SHA-256 of the body in hexadecimal digits
};

// Formats the time for the x-amz-date header: "20261120T193331Z" (UTC).
std::string AmzDate(std::time_t now);

// Returns the canonical form of a request. The hash of this text is signed.
std::string CanonicalRequest(const Unsigned& request);

// Signs requests. Caches the signing key, which changes every day.
class Signer {
  public:
    explicit Signer(Credentials credentials);

    // Returns the value of the Authorization header. `now` is part of the signature and must equal
    // the time in the x-amz-date header.
    std::string Authorization(const Unsigned& request, std::time_t now);

  private:
    const std::string& KeyOfDay(const std::string& day);

    Credentials credentials_;
    std::string day_;
    std::string key_;
};

}  // namespace quarn2::s3
