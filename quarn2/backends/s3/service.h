// Sends signed requests for one storage on an S3 server.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "backends/s3/address.h"
#include "backends/s3/answers.h"
#include "backends/s3/signature.h"
#include "digest.h"
#include "net/http_client.h"
#include "quarn2/token.h"

namespace quarn2::s3 {

struct Call {
    std::string method = "GET";
    std::string key = {};  // "" is the bucket itself
    Params query = {};
    Params headers = {};  // names in lower case; all are signed
    std::string payload_hash = EmptySha256();
    std::unique_ptr<net::HttpBody> body = nullptr;
    net::ReplySink* sink = nullptr;  // must outlive the request
};

// Not thread-safe: used by one thread at a time.
class Service {
  public:
    explicit Service(const BackupToken& token);

    const Address& address() const noexcept { return address_; }
    const std::string& what() const noexcept { return client_.what(); }
    net::HttpClient& client() noexcept { return client_; }

    // Returns the key of a file, including the storage's prefix; for "", the prefix alone. Throws
    // kFailed if the key is longer than S3 allows.
    std::string KeyOf(const std::string& name) const;
    // Returns the common prefix of all keys below a directory.
    std::string KeyOfDirectory(const std::string& name) const;

    net::HttpRequest Signed(Call call);

    // Returns the response. Throws unless its status is a success. The error's text contains
    // `doing`: "cannot store 'x'".
    net::HttpReply Do(Call call, const std::string& doing);
    // Returns the response, also one that reports an error.
    net::HttpReply Ask(Call call);

    // Like Ask(), over a new connection and with a timeout of at most 10 seconds. For cleaning up
    // after a failed request, when the server may not answer at all.
    net::HttpReply AskAnew(Call call);

    // Parses the error response to a request for the key.
    Refusal RefusalOfKey(const net::HttpReply& reply, const std::string& key) const;

    [[noreturn]] void ThrowRefused(const net::HttpReply& reply, const std::string& doing) const;
    [[noreturn]] void ThrowRefused(const Refusal& refusal, const std::string& doing) const;

    // True once the bucket is known to exist.
    bool bucket_seen() const noexcept { return bucket_seen_; }

  private:
    Address address_;
    net::ServerSettings settings_;
    net::HttpClient client_;
    Signer signer_;
    bool bucket_seen_ = false;
};

// Sets the request's body and its hash.
void SetBody(Call& call, std::string text);

// Returns the value of the Content-MD5 header, which some requests need in addition to the
// signature.
std::string ContentMd5(std::string_view text);

}  // namespace quarn2::s3
