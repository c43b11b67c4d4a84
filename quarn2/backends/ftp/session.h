// A session with one FTP server over one control connection.
#pragma once

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "backends/ftp/reply.h"
#include "kro/kro_clock.h"
#include "net/curl_handle.h"
#include "quarn2_backend/storage_backend.h"

namespace quarn2::ftp {

// How a transfer ended.
struct Outcome {
    CURLcode code = CURLE_OK;
    // The size of the file as the server reports it; -1 if it does not.
    std::int64_t size = -1;
    // The exception that the source or the sink threw.
    std::exception_ptr thrown;
    // The sink has received data, so the transfer cannot be repeated.
    bool has_delivered = false;
};

// Paths are absolute. The session connects at its first use and keeps the connection. If the server
// has closed it in the meantime, the session connects again and repeats the operation, unless that
// has already transferred data. The token's timeout bounds every wait.
class Session {
  public:
    // `tls`: encrypts both the control and the data connections.
    Session(const BackupToken& token, bool tls);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Sends all commands in order, even if the server refuses some of them. Returns one reply for
    // each. Throws if the connection fails.
    std::vector<Reply> Commands(const std::vector<std::string>& commands);
    Reply Command(const std::string& command) { return Commands({command}).front(); }

    // Removes an existing file at the path, stores the source there and queries the size.
    Outcome Store(const std::string& path, ByteSource& source);
    // Passes the file's bytes to the sink.
    Outcome Retrieve(const std::string& path, ByteSink& sink);
    // Stores the listing of a directory in `text`. kNamed sends the directory as the command's
    // argument, kWithin changes into it first. Throws kUnavailable if the server has not confirmed
    // the change, because the listing may be that of another directory.
    enum class Where { kNamed, kWithin };
    Outcome List(const std::string& command, const std::string& directory, Where where,
                 std::string& text);

    // The replies of the last operation.
    const Transcript& transcript() const noexcept { return transcript_; }

    // Throws the error for a failed transfer.
    [[noreturn]] void Throw(const Outcome& outcome) const;
    // Throws the error for a refusal. `deed` is the refused operation ("store 'name'").
    [[noreturn]] void ThrowRefused(const Reply& reply, const std::string& deed) const;

    // The name of the server in error texts.
    const std::string& what() const noexcept { return what_; }

  private:
    using Prepare = std::function<void()>;

    void SetProtocol(bool tls);
    std::string Url(const std::string& path);
    std::string ListingUrl(const std::string& directory, Where where);
    std::string Wire(const std::string& text);
    bool FindsTelnet();
    // The commands to send before and after a transfer.
    struct Around {
        net::CurlList before;
        net::CurlList behind;
    };
    void SetUp(const std::string& url, bool upload, bool body, const Around& around);
    // `size_first`: queries the size before the data connection is opened. Otherwise libcurl
    // queries it later.
    Outcome RetrieveOnce(const std::string& path, ByteSink& sink, bool size_first);
    Outcome StoreOnce(const std::string& path, ByteSource& source);
    Outcome ListOnce(const std::string& command, const std::string& directory, Where where,
                     std::string& text);
    void LimitTls(bool limited);
    // Runs the transfer. Repeats it if the kept connection turns out to be closed.
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
    void Moved() { moved_at_ = kro_date::SteadyClock::now(); }
    static std::size_t OnRead(char* buffer, std::size_t size, std::size_t count, void* self);
    static std::size_t OnWrite(char* buffer, std::size_t size, std::size_t count, void* self);

    bool tls_;
    std::string what_;
    int timeout_;
    std::string server_;
    CURLM* multi_;
    net::CurlHandle handle_;
    // The kept control connection.
    curl_socket_t control_ = CURL_SOCKET_BAD;
    // The open data connection.
    curl_socket_t data_ = CURL_SOCKET_BAD;
    Transcript transcript_;
    // The server has sent the port of the data connection, but libcurl has not opened it yet.
    bool port_is_known_ = false;
    std::optional<bool> telnet_;
    bool knows_size_ = true;  // until a server refuses SIZE before a transfer
    bool lists_with_slash_ = false;
    bool is_tls_limited_ = false;
    bool is_fresh_wanted_ = false;
    // The TLS handshake of the data connection is delayed until the server has begun the transfer.
    bool is_handshake_late_ = false;
    bool is_new_ = false;  // the last operation opened the control connection

    // The state of the running transfer.
    ByteSource* source_ = nullptr;
    std::int64_t offset_ = 0;
    std::function<void(std::span<const std::byte>)> take_;
    std::exception_ptr thrown_;
    curl_off_t moved_ = 0;
    kro_date::SteadyClock::time_point moved_at_;
    bool is_stalled_ = false;
};

}  // namespace quarn2::ftp
