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
    std::map<std::string, std::string> headers;  // the names are in lower case
    // The body of the response; empty if the request has a sink and the response is a success. The
    // body of an error response is truncated after 64 KiB.
    std::string body;

    bool IsSuccess() const noexcept { return status >= 200 && status < 300; }
    // Returns the value of a header, or "" if the server did not send the header. `name` must be in
    // lower case.
    std::string Header(const std::string& name) const;
};

// Receives the body of a successful response in several calls.
class ReplySink {
  public:
    virtual ~ReplySink() = default;
    // The client calls Begin once per response, before the first Write, when the status and the
    // headers are known. Begin is also called for an empty body.
    virtual void Begin(const HttpReply& /*reply*/) {}
    virtual void Write(std::span<const std::byte> bytes) = 0;
};

// Minimum size in bytes of request bodies that are sent with the header "Expect: 100-continue".
// With this header the server can refuse a request before it receives the body. The header costs a
// round trip, so small bodies are sent without it.
inline constexpr std::int64_t kWorthWaiting = 1024L * 1024;

struct HttpRequest {
    std::string method = "GET";
    std::string url;                   // complete, percent-encoded
    std::vector<std::string> headers;  // "Name: value"
    std::unique_ptr<HttpBody> body;    // required for PUT and POST
    ReplySink* sink = nullptr;         // must outlive the request; null: see HttpReply::body
    bool waits_for_invitation = true;  // sends "Expect: 100-continue" for a large body
};

// The result of a request. `error` is null if the server sent a response, even with an error
// status.
struct HttpResult {
    HttpReply reply;
    std::exception_ptr error;
};

// Keeps connections open for later requests. If the server has closed a kept connection, the client
// sends the request again over a new connection. Does not follow redirections. Not thread-safe.
class HttpClient {
  public:
    using Done = std::function<void(HttpResult)>;

    explicit HttpClient(ServerSettings settings);
    ~HttpClient();
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    // Sends a request and returns the response with any status, including error statuses. Throws
    // kUnavailable if the server does not respond, and kUnauthorized if its certificate is not
    // trusted. Rethrows exceptions of the request's body and sink.
    HttpReply Do(HttpRequest request);

    // Starts a request without waiting for the response. Wait(), Pump() or Do() calls `done` when
    // the request has ended.
    void Start(HttpRequest request, Done done);
    // Waits until at least one of the started requests has ended. Returns at once if no request is
    // running.
    void Wait();
    // Advances the running requests. If no request has ended, waits up to `wait_ms` milliseconds
    // for the network. Pump(0) does not block, so a thread can advance the requests between other
    // work.
    void Pump(int wait_ms);
    std::size_t running() const noexcept { return running_.size(); }
    // Cancels all running requests without calling their `done` callbacks.
    void Cancel() noexcept;

    const std::string& what() const noexcept { return settings_.what; }

  private:
    class Transfer;
    using Clock = kro_date::SteadyClock;

    std::unique_ptr<Transfer> AcquireTransfer();
    void Add(CURL* handle);
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
