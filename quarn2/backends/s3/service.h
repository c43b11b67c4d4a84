// Signed requests to one place on an S3 server.
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
    Params headers = {};  // names in small letters; all are signed
    std::string payload_hash = EmptySha256();
    std::unique_ptr<net::HttpBody> body = nullptr;
    net::ReplySink* sink = nullptr;  // outlives the request
};

// Used by one thread.
class Service {
  public:
    explicit Service(const BackupToken& token);

    const Address& address() const noexcept { return address_; }
    const std::string& what() const noexcept { return client_.what(); }
    net::HttpClient& client() noexcept { return client_; }

    // The key of a file of the storage, prefix included; "" gives the prefix. kFailed when no
    // server takes a key so long.
    std::string KeyOf(const std::string& name) const;
    // The same for a directory: everything below it begins with this.
    std::string KeyOfDirectory(const std::string& name) const;

    net::HttpRequest Signed(Call call);

    // The answer; one that is no success is thrown. `doing` begins the error's text: "cannot store
    // 'x'".
    net::HttpReply Do(Call call, const std::string& doing);
    // The answer whatever it says.
    net::HttpReply Ask(Call call);

    // For tidying up behind a request that broke: a connection of its own, and little patience with
    // a server that has shown that it does not answer.
    net::HttpReply AskAnew(Call call);

    // What the answer to a request for the key means.
    Refusal RefusalOfKey(const net::HttpReply& reply, const std::string& key) const;

    [[noreturn]] void Refuse(const net::HttpReply& reply, const std::string& doing) const;
    [[noreturn]] void Refuse(const Refusal& refusal, const std::string& doing) const;

    // True once the bucket is known to exist.
    bool bucket_seen() const noexcept { return bucket_seen_; }

  private:
    Address address_;
    net::ServerSettings settings_;
    net::HttpClient client_;
    Signer signer_;
    bool bucket_seen_ = false;
};

// A body of text with its hash.
void SetBody(Call& call, std::string text);

// The digest that some requests must carry beside the signature.
std::string ContentMd5(std::string_view text);

}  // namespace quarn2::s3
