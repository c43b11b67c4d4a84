#include "net/http_client.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <exception>
#include <optional>
#include <string_view>
#include <utility>

#include "kro/str.h"

namespace quarn2::net {

namespace {

using kro_err::Error;
using kro_err::Kind;

constexpr std::size_t kMaxRefusalBytes = 64UL * 1024;
constexpr std::size_t kMaxAnswerBytes = 16UL * 1024 * 1024;
constexpr std::size_t kMaxHeaderBytes = 256UL * 1024;
// The maximum number of responses to one request. Normally there are at most three: a 100, a 401
// and the final response.
constexpr int kMaxAnswers = 100;
constexpr int kPollMs = 1000;
constexpr long kKeptConnections = 16;

}  // namespace

std::string HttpReply::Header(const std::string& name) const {
    const auto found = headers.find(name);
    return found == headers.end() ? std::string() : found->second;
}

// Runs one request at a time with one libcurl handle. The object is reused for later requests,
// because the handle keeps the state of the digest authentication.
class HttpClient::Transfer {
  public:
    explicit Transfer(HttpClient& client)
        : handle_(client.settings_),
          what_(client.what()),
          timeout_(client.settings_.timeout),
          waited_(client.waited_),
          headers_came_(client.headers_came_) {
        handle_.RecordSockets(client.sockets_);
        handle_.Set(CURLOPT_PROTOCOLS_STR, "http,https");
        // With HTTP/1.1 each parallel transfer has its own connection, so that a slow transfer does
        // not delay the others.
        handle_.Set(CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_1_1);
        handle_.Set(CURLOPT_PATH_AS_IS, 1);
        handle_.SetFunction(CURLOPT_READFUNCTION, OnRead);
        handle_.SetPointer(CURLOPT_READDATA, this);
        handle_.SetFunction(CURLOPT_SEEKFUNCTION, OnSeek);
        handle_.SetPointer(CURLOPT_SEEKDATA, this);
        handle_.SetFunction(CURLOPT_WRITEFUNCTION, OnWrite);
        handle_.SetPointer(CURLOPT_WRITEDATA, this);
        handle_.SetFunction(CURLOPT_HEADERFUNCTION, OnHeader);
        handle_.SetPointer(CURLOPT_HEADERDATA, this);
        handle_.SetPointer(CURLOPT_PRIVATE, this);
        handle_.Set(CURLOPT_NOPROGRESS, 0);
        handle_.SetFunction(CURLOPT_XFERINFOFUNCTION, OnProgress);
        handle_.SetPointer(CURLOPT_XFERINFODATA, this);
    }

    CURL* handle() const noexcept { return handle_.get(); }

    void Prepare(HttpRequest request, Done done) {
        request_ = std::move(request);
        done_ = std::move(done);
        reply_ = HttpReply();
        header_bytes_ = 0;
        answers_ = 0;
        refusal_bytes_ = 0;
        begun_ = false;
        thrown_ = nullptr;
        moved_ = 0;
        moved_at_ = waited_;
        is_stalled_ = false;
        headers_ = std::make_unique<CurlList>();
        for (const std::string& header : request_.headers) headers_->Add(header);
        const bool waits = request_.waits_for_invitation && request_.body != nullptr &&
                           request_.body->size() >= kWorthWaiting;
        if (!waits) headers_->Add("Expect:");
        handle_.SetList(CURLOPT_HTTPHEADER, *headers_);
        handle_.Set(CURLOPT_URL, request_.url);
        handle_.Set(CURLOPT_FRESH_CONNECT, 0);
        is_repeated_ = false;
        SetMethod();
    }

    // Returns true when the transfer must be started again on a new connection, because the server
    // has closed the kept connection before it received the complete request. libcurl itself
    // repeats the request if it detects the closed connection while it sends the headers or
    // receives the response. If it detects the closed connection while it sends the body, it
    // reports an error.
    bool RepeatsOnNewConnection(CURLcode code) {
        const bool is_kept_connection = handle_.Info(CURLINFO_NUM_CONNECTS) == 0;
        if (code != CURLE_SEND_ERROR || !is_kept_connection || answers_ > 0) return false;
        if (std::exchange(is_repeated_, true)) return false;
        handle_.Set(CURLOPT_FRESH_CONNECT, 1);
        return Guarded(
            [this] {
                if (request_.body != nullptr) request_.body->Rewind();
                return true;
            },
            false);
    }

    HttpResult Result(CURLcode code) {
        HttpResult result;
        try {
            if (thrown_) std::rethrow_exception(thrown_);
            if (is_stalled_) {
                throw Error(Kind::kUnavailable,
                            what_ + ": no data transferred for " + str::Str(timeout_) + " seconds");
            }
            if (code != CURLE_OK) handle_.Throw(code);
            reply_.status = Status();
            if (reply_.IsSuccess()) Begin();
            result.reply = std::move(reply_);
        } catch (...) {
            result.error = std::current_exception();
        }
        return result;
    }

    // Destroys the finished request and returns its `done` callback.
    Done Release() {
        request_ = HttpRequest();
        return std::exchange(done_, nullptr);
    }

  private:
    void SetMethod() {
        // Set these options in this order, because each of them also changes values that the
        // previous ones have set.
        handle_.Set(CURLOPT_HTTPGET, 1);
        handle_.Set(CURLOPT_NOBODY, request_.method == "HEAD" ? 1 : 0);
        if (request_.body != nullptr) {
            handle_.Set(CURLOPT_UPLOAD, 1);
            handle_.SetSize(CURLOPT_INFILESIZE_LARGE, request_.body->size());
        }
        if (request_.method == "HEAD") {
            handle_.Clear(CURLOPT_CUSTOMREQUEST);
        } else {
            handle_.Set(CURLOPT_CUSTOMREQUEST, request_.method);
        }
    }

    int Status() const { return static_cast<int>(handle_.Info(CURLINFO_RESPONSE_CODE)); }

    void Begin() {
        if (std::exchange(begun_, true) || request_.sink == nullptr) return;
        request_.sink->Begin(reply_);
    }

    // Calls `action` inside a libcurl callback. An exception must not propagate into the C library,
    // so it is stored here; Result() rethrows it when the transfer has ended.
    template <class Action, class Result>
    Result Guarded(const Action& action, Result on_error) noexcept {
        try {
            return action();
        } catch (...) {
            thrown_ = std::current_exception();
            return on_error;
        }
    }

    static std::size_t OnRead(char* buffer, std::size_t size, std::size_t count, void* data) {
        auto* const self = static_cast<Transfer*>(data);
        const std::size_t error = CURL_READFUNC_ABORT;
        return self->Guarded(
            [&] {
                return self->request_.body->Read(
                    std::as_writable_bytes(std::span(buffer, size * count)));
            },
            error);
    }

    static int OnSeek(void* data, curl_off_t offset, int origin) {
        auto* const self = static_cast<Transfer*>(data);
        if (offset != 0 || origin != SEEK_SET || self->request_.body == nullptr) {
            return CURL_SEEKFUNC_CANTSEEK;
        }
        const int error = CURL_SEEKFUNC_FAIL;
        return self->Guarded(
            [self] {
                self->request_.body->Rewind();
                return CURL_SEEKFUNC_OK;
            },
            error);
    }

    static std::size_t OnWrite(char* buffer, std::size_t size, std::size_t count, void* data) {
        auto* const self = static_cast<Transfer*>(data);
        const auto bytes = std::as_bytes(std::span(buffer, size * count));
        const std::size_t error = bytes.empty() ? 1 : 0;
        return self->Guarded(
            [self, bytes] {
                self->Take(bytes);
                return bytes.size();
            },
            error);
    }

    static std::size_t OnHeader(char* buffer, std::size_t size, std::size_t count, void* data) {
        auto* const self = static_cast<Transfer*>(data);
        const std::string_view line(buffer, size * count);
        const std::size_t error = 0;
        return self->Guarded(
            [self, line] {
                self->ParseHeader(line);
                return line.size();
            },
            error);
    }

    // The progress callback of libcurl. Aborts a transfer that makes no progress for the storage's
    // timeout, because libcurl's own timeout takes effect seconds later. Only the time spent
    // waiting for the network counts, not the time that the sources and sinks of all requests take.
    static int OnProgress(void* data, curl_off_t /*down_total*/, curl_off_t down,
                          curl_off_t /*up_total*/, curl_off_t up) {
        auto* const self = static_cast<Transfer*>(data);
        if (down + up != self->moved_) self->moved_at_ = self->waited_;
        self->moved_ = down + up;
        self->is_stalled_ = self->waited_ - self->moved_at_ > std::chrono::seconds(self->timeout_);
        return self->is_stalled_ ? 1 : 0;
    }

    void Take(std::span<const std::byte> bytes) {
        reply_.status = Status();
        if (reply_.IsSuccess() && request_.sink != nullptr) {
            Begin();
            request_.sink->Write(bytes);
            return;
        }
        const bool success = reply_.IsSuccess();
        if (success && reply_.body.size() + bytes.size() > kMaxAnswerBytes) {
            throw Error(Kind::kUnavailable, what_ + ": the response is too long");
        }
        if (!success) refusal_bytes_ += bytes.size();
        if (refusal_bytes_ > kMaxAnswerBytes) {
            throw Error(Kind::kUnavailable, what_ + ": the error response is too long");
        }
        const std::size_t room =
            success ? bytes.size()
                    : kMaxRefusalBytes - std::min(kMaxRefusalBytes, reply_.body.size());
        reply_.body.append(reinterpret_cast<const char*>(bytes.data()),
                           std::min(room, bytes.size()));
    }

    // Parses a header line. If the server sends several responses to a request (a 100, a 401), only
    // the last response is kept.
    void ParseHeader(std::string_view line) {
        moved_at_ = waited_;
        if (str::StartsWith(line, "HTTP/")) {
            if (++answers_ > kMaxAnswers) {
                throw Error(Kind::kUnavailable, what_ + ": too many responses to one request");
            }
            reply_.headers.clear();
            reply_.body.clear();
            header_bytes_ = 0;
            return;
        }
        header_bytes_ += line.size();
        if (header_bytes_ > kMaxHeaderBytes) {
            throw Error(Kind::kUnavailable, what_ + ": the response headers are too long");
        }
        if (line == "\r\n") headers_came_ = true;
        const std::size_t colon = line.find(':');
        if (colon == std::string_view::npos) return;
        reply_.headers[str::Lower(str::Trimmed(line.substr(0, colon)))] =
            str::Trimmed(line.substr(colon + 1));
    }

    CurlHandle handle_;
    std::string what_;
    int timeout_;
    // The total time that the client has waited for the network (waited_), and its value at the
    // last progress of this transfer (moved_at_).
    const Clock::duration& waited_;
    Clock::duration moved_at_{};
    curl_off_t moved_ = 0;
    bool is_stalled_ = false;
    bool& headers_came_;
    std::unique_ptr<CurlList> headers_;
    HttpRequest request_;
    Done done_;
    HttpReply reply_;
    std::size_t header_bytes_ = 0;
    std::size_t refusal_bytes_ = 0;
    int answers_ = 0;
    bool begun_ = false;
    bool is_repeated_ = false;
    std::exception_ptr thrown_;
};

HttpClient::HttpClient(ServerSettings settings)
    : settings_(std::move(settings)), multi_(Curl().multi_init()) {
    if (multi_ == nullptr) throw Error(Kind::kFailed, "libcurl cannot create a transfer handle");
    Curl().multi_setopt(multi_, CURLMOPT_MAXCONNECTS, kKeptConnections);
}

HttpClient::~HttpClient() {
    Cancel();
    // Destroy the idle transfers before the multi handle, because their libcurl handles must not
    // outlive the connections that they used.
    idle_.clear();
    Curl().multi_cleanup(multi_);
}

std::unique_ptr<HttpClient::Transfer> HttpClient::AcquireTransfer() {
    if (idle_.empty()) return std::make_unique<Transfer>(*this);
    std::unique_ptr<Transfer> transfer = std::move(idle_.back());
    idle_.pop_back();
    return transfer;
}

void HttpClient::Start(HttpRequest request, Done done) {
    std::unique_ptr<Transfer> transfer = AcquireTransfer();
    transfer->Prepare(std::move(request), std::move(done));
    CURL* const handle = transfer->handle();
    Add(handle);
    running_.emplace(handle, std::move(transfer));
}

void HttpClient::Add(CURL* handle) {
    const CURLMcode code = Curl().multi_add_handle(multi_, handle);
    if (code != CURLM_OK) throw Error(Kind::kFailed, what() + ": " + Curl().multi_strerror(code));
}

// Calls the `done` callbacks of all requests that have ended. Returns true if at least one request
// has ended. A callback may start new requests.
bool HttpClient::Finish() {
    int left = 0;
    bool any = false;
    while (const CURLMsg* const message = Curl().multi_info_read(multi_, &left)) {
        if (message->msg != CURLMSG_DONE) continue;
        CURL* const handle = message->easy_handle;
        const CURLcode code = message->data.result;
        Curl().multi_remove_handle(multi_, handle);
        if (running_.at(handle)->RepeatsOnNewConnection(code)) {
            Add(handle);
            continue;
        }
        auto node = running_.extract(handle);
        Transfer& transfer = *node.mapped();
        HttpResult result = transfer.Result(code);
        const Done done = transfer.Release();
        idle_.push_back(std::move(node.mapped()));
        any = true;
        done(std::move(result));
    }
    return any;
}

// Makes the kernel send TCP acknowledgements of received response headers at once instead of after
// 40 ms, because some servers send the body only after the acknowledgement.
void HttpClient::Acknowledge() {
    if (!std::exchange(headers_came_, false)) return;
    const int on = 1;
    for (const curl_socket_t socket : sockets_) {
        setsockopt(socket, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
    }
}

// Advances all running requests. Returns true if a request has ended. If none has ended, waits up
// to `wait_ms` milliseconds for the network and returns false.
bool HttpClient::Move(int wait_ms) {
    int active = 0;
    CURLMcode code = Curl().multi_perform(multi_, &active);
    Acknowledge();
    if (Finish()) return true;
    if (code == CURLM_OK && wait_ms > 0) {
        const Clock::time_point start = Clock::now();
        code = Curl().multi_poll(multi_, nullptr, 0, wait_ms, nullptr);
        waited_ += Clock::now() - start;
    }
    if (code != CURLM_OK) throw Error(Kind::kFailed, what() + ": " + Curl().multi_strerror(code));
    return false;
}

void HttpClient::Wait() {
    while (!running_.empty()) {
        if (Move(kPollMs)) return;
    }
}

void HttpClient::Pump(int wait_ms) {
    if (!running_.empty()) Move(wait_ms);
}

void HttpClient::Cancel() noexcept {
    for (const auto& [handle, transfer] : running_) {
        Curl().multi_remove_handle(multi_, handle);
    }
    running_.clear();
}

HttpReply HttpClient::Do(HttpRequest request) {
    std::optional<HttpResult> result;
    Start(std::move(request), [&result](HttpResult ended) { result = std::move(ended); });
    while (!result) Wait();
    if (result->error) std::rethrow_exception(result->error);
    return std::move(result->reply);
}

}  // namespace quarn2::net
