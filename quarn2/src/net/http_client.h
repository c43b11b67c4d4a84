// Sends HTTP requests to one server, in sequence or in parallel, on one thread.
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

#include "kro/kro_clock.h"
#include "kro/kro_err.h"
#include "net/curl_handle.h"
#include "net/http_body.h"

namespace quarn2::net {

struct HttpReply {
    int status = 0;
    std::map<std::string, std::string> headers;  // names in lower case
    // The body, unless a sink took it. Of an error response it is at most the first 64 KiB.
    std::string body;

    bool IsSuccess() const noexcept { return status >= 200 && status < 300; }
    // Returns the header's value, "" if the server did not send it. `name` is in lower case.
    std::string Header(const std::string& name) const;
};

// Receives the body of a successful response incrementally.
class ReplySink {
  public:
    virtual ~ReplySink() = default;
    // Called once, before the first byte, when the status and the headers are known. Also called
    // for an empty body.
    virtual void Begin(const HttpReply& /*reply*/) {}
    virtual void Write(std::span<const std::byte> bytes) = 0;
};

// Minimum size of the bodies that are sent with "Expect: 100-continue", which allows the server to
// refuse a request before it receives the body. The header costs a round trip, so it is used only
// for bodies that take longer than that to send.
inline constexpr std::int64_t kWorthWaiting = 1024L * 1024;

struct HttpRequest {
    std::string method = "GET";
    std::string url;                   // complete, percent-encoded
    std::vector<std::string> headers;  // "Name: value"
    std::unique_ptr<HttpBody> body;    // PUT and POST always have one
    ReplySink* sink = nullptr;         // must outlive the request; null: the reply holds the body
    bool waits_for_invitation = true;  // only for a body of at least kWorthWaiting
};

// The result of a request: a response of any status, or an error.
struct HttpResult {
    HttpReply reply;
    std::exception_ptr error;
};

// Keeps connections for later requests. Replaces a stale connection and sends the request again.
// Does not follow redirections. Not thread-safe: used by one thread at a time.
class HttpClient {
  public:
    using Done = std::function<void(HttpResult)>;

    explicit HttpClient(ServerSettings settings);
    ~HttpClient();
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    // Sends a request and returns the response of any status. Throws if there is none
    // (kUnavailable; kUnauthorized for a certificate that is not trusted). Rethrows exceptions of
    // the body and of the sink.
    HttpReply Do(HttpRequest request);

    // Starts a request. Wait(), Pump() or Do() calls `done` when the request has ended.
    void Start(HttpRequest request, Done done);
    // Waits until at least one of the started requests has ended. Returns at once if none is
    // running.
    void Wait();
    // Advances the running requests without blocking. If none has ended, waits up to `wait_ms` for
    // the network. For callers that do other work in between.
    void Pump(int wait_ms);
    std::size_t running() const noexcept { return running_.size(); }
    // Cancels all running requests. Their `done` is not called.
    void Cancel() noexcept;

    const std::string& what() const noexcept { return settings_.what; }

  private:
    class Transfer;
    using Clock = kro_date::SteadyClock;

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
