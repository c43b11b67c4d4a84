// Signature version 4: how a request shows that its sender knows the secret key.
#pragma once

#include <ctime>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quarn2::s3 {

using Params = std::vector<std::pair<std::string, std::string>>;

// "a=1&b=2", sorted and percent-encoded: what is signed is also what is sent.
std::string CanonicalQuery(const Params& params);

struct Credentials {
    std::string access;
    std::string secret;
    std::string region;
    std::string service = "s3";
};

struct Unsigned {
    std::string method;
    std::string path;          // percent-encoded, as it is sent
    std::string query;         // canonical
    Params headers;            // all that is to be signed, "host" included; names in small letters
    std::string payload_hash;  // SHA-256 of the body in hexadecimal digits
};

// "20261120T193331Z"
std::string AmzDate(std::time_t now);

// The text whose hash is signed.
std::string CanonicalRequest(const Unsigned& request);

// Keeps the key that is made anew for each day. The time goes into the signature and must be the
// one that the x-amz-date header tells.
class Signer {
  public:
    explicit Signer(Credentials credentials);

    // The value of the Authorization header.
    std::string Authorization(const Unsigned& request, std::time_t now);

  private:
    const std::string& KeyOfDay(const std::string& day);

    Credentials credentials_;
    std::string day_;
    std::string key_;
};

}  // namespace quarn2::s3
