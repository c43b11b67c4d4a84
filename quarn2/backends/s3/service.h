// Sends signed requests for one storage on an S3 server.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "address.h"
#include "answers.h"
#include "base/digest.h"
#include "net/http_client.h"
#include "quarn2/token.h"
#include "signature.h"

namespace quarn2::s3 {

struct Call {
    std::string method = "GET";
    std::string key = {};  // key of the object; "" for a request to the bucket
    Params query = {};
    Params headers = {};  // the names are in lower case; all headers are signed
    std::string payload_hash = EmptySha256();
    std::unique_ptr<net::HttpBody> body = nullptr;
    net::ReplySink* sink = nullptr;  // must outlive the request
};

// Signs and sends the requests of one storage. Not thread-safe.
class Service {
  public:
    explicit Service(const BackupToken& token);

    const Address& address() const noexcept { return address_; }
    const std::string& what() const noexcept { return client_.what(); }
    net::HttpClient& client() noexcept { return client_; }

    // Returns the key of a file, which begins with the storage's prefix. Returns only the prefix
    // for the name "". Throws kFailed if the key is longer than S3 allows.
    std::string KeyOf(const std::string& name) const;
    // Returns the prefix of the keys of all files below a directory.
    std::string KeyOfDirectory(const std::string& name) const;

    net::HttpRequest Signed(Call call);

    // Sends a request and returns the response. Throws if the status of the response is not a
    // success. `operation` names the operation in the error text: "cannot store 'x'".
    net::HttpReply Do(Call call, const std::string& operation);
    // Sends a request and returns the response, even if it reports an error. Throws kUnavailable if
    // the server does not respond.
    net::HttpReply Ask(Call call);

    // Works like Ask(), but uses a new connection and a timeout of at most 10 seconds. Used for the
    // cleanup after a failed request, when the server may not respond at all.
    net::HttpReply AskOnNewConnection(Call call);

    // Parses the error response to a request for the object with this key.
    Refusal RefusalOfKey(const net::HttpReply& reply, const std::string& key) const;

    [[noreturn]] void ThrowRefused(const net::HttpReply& reply, const std::string& operation) const;
    [[noreturn]] void ThrowRefused(const Refusal& refusal, const std::string& operation) const;

    // Returns true if an earlier response has shown that the bucket exists.
    bool bucket_seen() const noexcept { return bucket_seen_; }

  private:
    Address address_;
    net::ServerSettings settings_;
    net::HttpClient client_;
    Signer signer_;
    bool bucket_seen_ = false;
};

// Sets the body of a request and the hash of the body.
void SetBody(Call& call, std::string text);

// Returns the value of the Content-MD5 header for a body. Some S3 requests require this header in
// addition to the signature.
std::string ContentMd5(std::string_view text);

}  // namespace quarn2::s3
