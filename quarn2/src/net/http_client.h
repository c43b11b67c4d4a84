// HTTP requests to one server, one after another or several at once, on one thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "kro/kro_err.h"
#include "net/curl_handle.h"
#include "net/http_body.h"

namespace quarn2::net {

struct HttpReply {
    int status = 0;
    std::map<std::string, std::string> headers;  // names in small letters
    // What no sink took; of a refusal at most its first 64 KiB.
    std::string body;

    bool IsSuccess() const noexcept { return status >= 200 && status < 300; }
    // The header's value, "" when it was not sent; `name` in small letters.
    std::string Header(const std::string& name) const;
};

// Takes the body of a successful answer piece by piece.
class ReplySink {
  public:
    virtual ~ReplySink() = default;
    // Once, before the first byte: status and headers are known.
    virtual void Begin(const HttpReply& /*reply*/) {}
    virtual void Write(std::span<const std::byte> bytes) = 0;
};

// A server may refuse a body before it is sent ("Expect: 100-continue"). Waiting for its invitation
// costs a round trip, which only pays for bodies that take longer than that to send.
inline constexpr std::int64_t kWorthWaiting = 1024L * 1024;

struct HttpRequest {
    std::string method = "GET";
    std::string url;                   // whole, percent-encoded
    std::vector<std::string> headers;  // "Name: value"
    std::unique_ptr<HttpBody> body;    // PUT and POST always have one
    ReplySink* sink = nullptr;         // outlives the request; null: the reply keeps the body
    bool waits_for_invitation = true;  // with a body of kWorthWaiting and more
};

// How a started request ended: with an answer, whatever its status, or with an error.
struct HttpResult {
    HttpReply reply;
    std::exception_ptr error;
};

// Connections are kept for the next requests; a stale one is replaced and the request sent again.
// Redirections are answers like others. Used by one thread.
class HttpClient {
  public:
    using Done = std::function<void(HttpResult)>;

    explicit HttpClient(ServerSettings settings);
    ~HttpClient();
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    // The server's answer; throws when there is none (kUnavailable, kUnauthorized for a certificate
    // that is not trusted), and what the body or the sink threw.
    HttpReply Do(HttpRequest request);

    // Begins a request; `done` is called from Wait (or Do) when it has ended.
    void Start(HttpRequest request, Done done);
    // Waits until at least one of the started requests has ended. At once when none runs.
    void Wait();
    // Moves on what runs as far as it goes now, or at the latest in `wait_ms`; for whoever has
    // other work in between.
    void Pump(int wait_ms);
    std::size_t running() const noexcept { return running_.size(); }
    // Breaks off all that run; nobody is called.
    void Cancel() noexcept;

    const std::string& what() const noexcept { return settings_.what; }

  private:
    class Transfer;
    using Clock = std::chrono::steady_clock;

    std::unique_ptr<Transfer> TakeTransfer();
    bool Finish();
    bool Move(int wait_ms);
    void Acknowledge();

    ServerSettings settings_;
    std::set<curl_socket_t> sockets_;
    bool headers_came_ = false;
    CURLM* multi_;
    Clock::duration waited_{};
    std::map<CURL*, std::unique_ptr<Transfer>> running_;
    std::vector<std::unique_ptr<Transfer>> idle_;
};

}  // namespace quarn2::net
