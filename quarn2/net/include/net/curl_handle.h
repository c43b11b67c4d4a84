// A libcurl transfer handle with the settings that all HTTP and FTP storages share.
#pragma once

#include <array>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "net/curl_library.h"
#include "quarn2/token.h"

namespace quarn2::net {

// The settings of all transfers with one server.
struct ServerSettings {
    enum class Auth { kNone, kBasic, kDigest, kPlain };

    std::string what;         // name of the server in error texts: "S3 server localhost:9000"
    std::string ca;           // file with trusted certificates; "": the system's certificates
    int timeout = 0;          // seconds without progress until a transfer fails
    Auth auth = Auth::kNone;  // kPlain: FTP login with USER and PASS
    std::string user;
    std::string password;
};

// Seconds without progress until a transfer fails, for tokens without a `timeout` parameter.
inline constexpr int kDefaultTimeout = 60;

// Returns the server settings from the parts of a token that all protocols share. `protocol` ("S3",
// "WebDAV", ...) is the first word of ServerSettings::what.
ServerSettings SettingsOf(const BackupToken& token, const std::string& protocol,
                          ServerSettings::Auth auth);

// Returns "host:port" as it is written in a URL: an IPv6 address is in brackets, and the port is
// omitted if the token contains no port.
std::string HostAndPort(const BackupToken& token);

// Owns a curl_slist, libcurl's list of strings.
class CurlList {
  public:
    CurlList() = default;
    ~CurlList();
    CurlList(const CurlList&) = delete;
    CurlList& operator=(const CurlList&) = delete;

    void Add(const std::string& text);
    curl_slist* get() const noexcept { return list_; }

  private:
    curl_slist* list_ = nullptr;
};

// Owns a libcurl transfer handle. Each type of option has its own setter, so that every value is
// passed with the width that libcurl expects. TLS certificates are always verified. Not
// thread-safe.
class CurlHandle {
  public:
    explicit CurlHandle(const ServerSettings& settings);
    ~CurlHandle();
    CurlHandle(const CurlHandle&) = delete;
    CurlHandle& operator=(const CurlHandle&) = delete;

    CURL* get() const noexcept { return handle_; }

    void Set(CURLoption option, long value);
    void SetSize(CURLoption option, std::int64_t value);
    // Sets a string option. libcurl copies the string.
    void Set(CURLoption option, const std::string& value);
    void SetPointer(CURLoption option, void* value);
    // Sets a list option. libcurl does not copy the list, which must outlive the transfer.
    void SetList(CURLoption option, const CurlList& list) { SetPointer(option, list.get()); }
    // Restores the default value of an option.
    void Clear(CURLoption option) { SetPointer(option, nullptr); }
    template <class Function>
    void SetFunction(CURLoption option, Function* function) {
        Check(Curl().easy_setopt(handle_, option, function), "set up a transfer");
    }

    // Registers a set in which the handle records the sockets of its open connections. The set must
    // outlive the connections.
    void RecordSockets(std::set<curl_socket_t>& sockets);

    long Info(CURLINFO info) const;

    // Clears the error text of the previous transfer.
    void ForgetReason() noexcept { reason_.front() = '\0'; }

    // Throws the error for libcurl's result code of a failed transfer. The error text contains the
    // server and the reason.
    [[noreturn]] void Throw(CURLcode code) const;

  private:
    void SetTls(const std::string& ca);
    void SetUser(const ServerSettings& settings);
    void Check(CURLcode code, const char* what) const;

    CURL* handle_;
    std::string what_;
    std::array<char, CURL_ERROR_SIZE> reason_ = {};
};

// Converts a server's text for an error message of one line: replaces control characters by blanks
// and truncates a long text.
std::string OneLine(std::string_view text);

}  // namespace quarn2::net
