// A session with one FTP server over one control connection.
#pragma once

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "kro/kro_clock.h"
#include "net/curl_handle.h"
#include "quarn2_backend/storage_backend.h"
#include "reply.h"

namespace quarn2::ftp {

// The result of a transfer.
struct Outcome {
    CURLcode code = CURLE_OK;
    // The size of the file that the server reports; -1 if the server does not report a size.
    std::int64_t size = -1;
    // The exception that the source or the sink threw during the transfer; null if neither threw.
    std::exception_ptr thrown;
    // True if the sink has received data. The transfer cannot be repeated then.
    bool has_delivered = false;
};

// A session connects to the FTP server at its first use and keeps the control connection. If the
// server has closed the connection in the meantime, the session connects again and repeats the
// operation, unless the operation has already transferred data. The token's timeout limits every
// wait. All paths are absolute.
class Session {
  public:
    // With `tls`, the session encrypts both the control and the data connections.
    Session(const BackupToken& token, bool tls);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Sends all commands in order, even if the server refuses some of them. Returns one reply per
    // command. Throws if the connection fails.
    std::vector<Reply> Commands(const std::vector<std::string>& commands);
    Reply Command(const std::string& command) { return Commands({command}).front(); }

    // Removes an existing file at `path`, uploads the source to this path and queries the size of
    // the stored file.
    Outcome Store(const std::string& path, ByteSource& source);
    // Downloads the file at `path` and writes its bytes to the sink.
    Outcome Retrieve(const std::string& path, ByteSink& sink);
    // Sends a listing command and stores the listing of the directory in `text`. kNamed sends the
    // directory as the argument of the command. kWithin changes into the directory first, and
    // throws kUnavailable if the server does not confirm the change, because the server may then
    // list another directory.
    enum class Where { kNamed, kWithin };
    Outcome List(const std::string& command, const std::string& directory, Where where,
                 std::string& text);

    // Returns the replies of the last operation.
    const Transcript& transcript() const noexcept { return transcript_; }

    // Throws the error for the result of a failed transfer.
    [[noreturn]] void Throw(const Outcome& outcome) const;
    // Throws the error for a command that the server refused. `operation` names the refused
    // operation for the error text ("remove 'name'").
    [[noreturn]] void ThrowRefused(const Reply& reply, const std::string& operation) const;

    // Returns the name of the server for error texts.
    const std::string& what() const noexcept { return what_; }

  private:
    using Prepare = std::function<void()>;

    void SetProtocol(bool tls);
    std::string Url(const std::string& path);
    std::string ListingUrl(const std::string& directory, Where where);
    std::string EscapedForTelnet(const std::string& text);
    bool IsTelnet();
    // The FTP commands that libcurl sends before and after a transfer.
    struct ExtraCommands {
        net::CurlList before;
        net::CurlList behind;
    };
    void SetUp(const std::string& url, bool upload, bool body, const ExtraCommands& extra);
    // With `size_first`, queries the file's size before the data connection is opened. Otherwise
    // libcurl queries the size when the data connection is open.
    Outcome RetrieveOnce(const std::string& path, ByteSink& sink, bool size_first);
    Outcome StoreOnce(const std::string& path, ByteSource& source);
    Outcome ListOnce(const std::string& command, const std::string& directory, Where where,
                     std::string& text);
    void LimitTls(bool limited);
    // Runs the prepared transfer. Repeats it on a new connection if the server had closed the kept
    // connection, unless has_begun() returns true.
    CURLcode Run(const std::function<bool()>& has_begun);
    CURLcode RunFresh();
    void EndControl() noexcept;
    // Runs a transfer. If the server refuses its data connection, repeats the transfer on a new
    // control connection.
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
    static void WaitForClose(curl_socket_t socket, int timeout);
    static int OnDebug(CURL* handle, curl_infotype type, char* data, std::size_t size, void* self);
    static int OnProgress(void* self, curl_off_t down_total, curl_off_t down, curl_off_t up_total,
                          curl_off_t up);
    void RecordProgress() { moved_at_ = kro_date::SteadyClock::now(); }
    static std::size_t OnRead(char* buffer, std::size_t size, std::size_t count, void* self);
    static std::size_t OnWrite(char* buffer, std::size_t size, std::size_t count, void* self);

    bool tls_;
    std::string what_;
    int timeout_;
    std::string server_;
    CURLM* multi_;
    net::CurlHandle handle_;
    // The socket of the kept control connection.
    curl_socket_t control_ = CURL_SOCKET_BAD;
    // The socket of the open data connection.
    curl_socket_t data_ = CURL_SOCKET_BAD;
    Transcript transcript_;
    // True if the server has sent the port of the data connection, but libcurl has not opened this
    // connection yet.
    bool port_is_known_ = false;
    std::optional<bool> telnet_;
    bool knows_size_ = true;  // false after the server has refused SIZE before a transfer
    bool lists_with_slash_ = false;
    bool is_tls_limited_ = false;
    bool is_fresh_wanted_ = false;  // true if the next operation needs a new control connection
    // True if the TLS handshake of the data connection must be delayed until the server has begun
    // the transfer.
    bool is_handshake_late_ = false;
    bool is_new_ = false;  // true if the last operation opened the control connection

    // The members below describe the running transfer.
    ByteSource* source_ = nullptr;
    std::int64_t offset_ = 0;
    std::function<void(std::span<const std::byte>)> take_;
    std::exception_ptr thrown_;
    curl_off_t moved_ = 0;
    kro_date::SteadyClock::time_point moved_at_;
    bool is_stalled_ = false;
};

}  // namespace quarn2::ftp
