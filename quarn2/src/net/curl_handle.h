// One libcurl transfer handle, with the settings that all network storages share.
#pragma once

#include <array>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "net/curl_library.h"
#include "quarn2/token.h"

namespace quarn2::net {

// The settings common to all transfers with one server.
struct ServerSettings {
    enum class Auth { kNone, kBasic, kDigest, kPlain };

    std::string what;         // the server in error texts: "S3 server localhost:9000"
    std::string ca;           // a file with the only certificates to trust; "" for the system's
    int timeout = 0;          // seconds without any progress
    Auth auth = Auth::kNone;  // kPlain: user and password in the protocol's own login (FTP)
    std::string user;
    std::string password;
};

// Seconds without progress until a transfer fails, unless the token sets another value.
inline constexpr int kDefaultTimeout = 60;

// Returns the settings in the common parts of a token. `protocol` ("S3", "WebDAV", ...) begins
// `what`.
ServerSettings SettingsOf(const BackupToken& token, const std::string& protocol,
                          ServerSettings::Auth auth);

// Returns "host:port" in the form of a URL: an IPv6 address in brackets, no port if the token has
// none.
std::string HostAndPort(const BackupToken& token);

// A list of texts for libcurl.
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

// Owns the handle. Each type of option has its own setter, so that no option is passed in the wrong
// width. TLS certificates are always verified. Not thread-safe: used by one thread at a time.
class CurlHandle {
  public:
    explicit CurlHandle(const ServerSettings& settings);
    ~CurlHandle();
    CurlHandle(const CurlHandle&) = delete;
    CurlHandle& operator=(const CurlHandle&) = delete;

    CURL* get() const noexcept { return handle_; }

    void Set(CURLoption option, long value);
    void SetSize(CURLoption option, std::int64_t value);
    // libcurl copies the text.
    void Set(CURLoption option, const std::string& value);
    void SetPointer(CURLoption option, void* value);
    // The list must outlive the transfer.
    void SetList(CURLoption option, const CurlList& list) { SetPointer(option, list.get()); }
    // Restores the option's default.
    void Clear(CURLoption option) { SetPointer(option, nullptr); }
    template <class Function>
    void SetFunction(CURLoption option, Function* function) {
        Check(Curl().easy_setopt(handle_, option, function), "set up a transfer");
    }

    // Keeps `sockets` equal to the open sockets of the connections that transfers with this handle
    // have opened. The set must outlive the connections.
    void TellSockets(std::set<curl_socket_t>& sockets);

    long Info(CURLINFO info) const;

    // Clears the reason of the previous transfer's failure.
    void ForgetReason() noexcept { reason_.front() = '\0'; }

    // Throws the error for a failed transfer. The text contains the server and the reason.
    [[noreturn]] void Throw(CURLcode code) const;

  private:
    void SetTls(const std::string& ca);
    void SetUser(const ServerSettings& settings);
    void Check(CURLcode code, const char* what) const;

    CURL* handle_;
    std::string what_;
    std::array<char, CURL_ERROR_SIZE> reason_ = {};
};

// Returns the text in a form for one line of an error: control characters become blanks, and a long
// text is truncated.
std::string OneLine(std::string_view text);

}  // namespace quarn2::net
