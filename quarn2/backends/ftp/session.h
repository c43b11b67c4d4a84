// One FTP server, spoken to over one control connection.
#pragma once

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "backends/ftp/reply.h"
#include "net/curl_handle.h"
#include "quarn2_backend/storage_backend.h"

namespace quarn2::ftp {

// How a transfer ended.
struct Outcome {
    CURLcode code = CURLE_OK;
    // The size that the server tells of what it has stored; -1 when it does not.
    std::int64_t size = -1;
    // What the source or the sink threw.
    std::exception_ptr thrown;
    // The sink has received something: the transfer cannot be repeated.
    bool has_delivered = false;
};

// Paths are absolute. The connection is made at the first use and kept; one that the server has
// closed meanwhile is replaced, and what had not begun is begun again. Every wait is bounded by the
// token's timeout.
class Session {
  public:
    // Over TLS, or without.
    Session(const BackupToken& token, bool tls);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Sends the commands one after another, also when some are refused: a reply for each. Throws
    // when the connection does not carry them.
    std::vector<Reply> Commands(const std::vector<std::string>& commands);
    Reply Command(const std::string& command) { return Commands({command}).front(); }

    // Removes what lies under the path, stores the source there and asks for the size.
    Outcome Store(const std::string& path, ByteSource& source);
    // Hands the file to the sink.
    Outcome Retrieve(const std::string& path, ByteSink& sink);
    // The text of a directory's listing. kNamed sends the directory with the command, kWithin
    // changes into it right before. kUnavailable when no change was confirmed: the listing may be
    // another directory's.
    enum class Where { kNamed, kWithin };
    Outcome List(const std::string& command, const std::string& directory, Where where,
                 std::string& text);

    // The replies of what ran last.
    const Transcript& transcript() const noexcept { return transcript_; }

    // Throws what the transfer's failure means.
    [[noreturn]] void Throw(const Outcome& outcome) const;
    // The same for a reply that refuses; `deed` says what ("store 'name'").
    [[noreturn]] void Refused(const Reply& reply, const std::string& deed) const;

    // The server in error texts.
    const std::string& what() const noexcept { return what_; }

  private:
    using Prepare = std::function<void()>;

    void SetProtocol(bool tls);
    std::string Url(const std::string& path);
    std::string ListingUrl(const std::string& directory, Where where);
    std::string Wire(const std::string& text);
    bool FindsTelnet();
    // The commands that go before and behind a transfer.
    struct Around {
        net::CurlList before;
        net::CurlList behind;
    };
    void SetUp(const std::string& url, bool upload, bool body, const Around& around);
    // With the size asked for before the data connection is opened, or by libcurl.
    Outcome RetrieveOnce(const std::string& path, ByteSink& sink, bool size_first);
    Outcome StoreOnce(const std::string& path, ByteSource& source);
    Outcome ListOnce(const std::string& command, const std::string& directory, Where where,
                     std::string& text);
    void LimitTls(bool limited);
    // Runs the transfer, again when the kept connection turns out to be closed.
    CURLcode Run(const std::function<bool()>& has_begun);
    CURLcode RunFresh();
    void EndControl() noexcept;
    // Repeats a transfer whose data connection the server refuses, on a new control connection.
    Outcome WithDataConnection(const std::function<Outcome()>& transfer);
    bool NeedsNewerTls(CURLcode code) const;
    bool NeedsNewDataConnection(const Outcome& outcome) const;
    bool IsHandshakeTooEarly(CURLcode code) const;
    CURLcode Perform();
    bool IsStale(CURLcode code) const;
    std::vector<Reply> RepliesTo(const std::vector<std::string>& commands, CURLcode code) const;
    [[noreturn]] void ThrowLogin(const Reply& reply) const;

    static curl_socket_t OnOpenSocket(void* self, curlsocktype purpose, curl_sockaddr* address);
    static int OnCloseSocket(void* self, curl_socket_t socket);
    static void AwaitEnd(curl_socket_t socket, int timeout);
    static int OnDebug(CURL* handle, curl_infotype type, char* data, std::size_t size, void* self);
    static int OnProgress(void* self, curl_off_t down_total, curl_off_t down, curl_off_t up_total,
                          curl_off_t up);
    void Moved() { moved_at_ = std::chrono::steady_clock::now(); }
    static std::size_t OnRead(char* buffer, std::size_t size, std::size_t count, void* self);
    static std::size_t OnWrite(char* buffer, std::size_t size, std::size_t count, void* self);

    bool tls_;
    std::string what_;
    int timeout_;
    std::string server_;
    CURLM* multi_;
    net::CurlHandle handle_;
    // The control connection that is kept.
    curl_socket_t control_ = CURL_SOCKET_BAD;
    // The open data connection.
    curl_socket_t data_ = CURL_SOCKET_BAD;
    Transcript transcript_;
    // The server has named a port for the data connection, which libcurl has not yet opened.
    bool port_is_known_ = false;
    std::optional<bool> telnet_;
    bool knows_size_ = true;  // until the server shows that it does not
    bool lists_with_slash_ = false;
    bool is_tls_limited_ = false;
    bool is_fresh_wanted_ = false;
    // The data connection's handshake waits until the server has begun the transfer.
    bool is_handshake_late_ = false;
    bool is_new_ = false;  // the control connection was made for what ran last

    // Of the running transfer.
    ByteSource* source_ = nullptr;
    std::int64_t offset_ = 0;
    std::function<void(std::span<const std::byte>)> take_;
    std::exception_ptr thrown_;
    curl_off_t moved_ = 0;
    std::chrono::steady_clock::time_point moved_at_;
    bool is_stalled_ = false;
};

}  // namespace quarn2::ftp
