#include "net/curl_handle.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "base/stored_name.h"
#include "kro/kro_err.h"
#include "kro/str.h"

namespace quarn2::net {

namespace {

using kro_err::Error;
using kro_err::Kind;

// Sizes of the transfer buffers in bytes. They are larger than libcurl's defaults, because a
// transfer of a large file then needs fewer system calls. libcurl allocates and frees the buffers
// for each request, so larger buffers would make small requests expensive under a sanitizer.
constexpr long kSendBuffer = 512L * 1024;
constexpr long kReceiveBuffer = 128L * 1024;
constexpr std::size_t kMaxReasonBytes = 300;

// Opens a socket for libcurl with SOCK_CLOEXEC, because child processes of this program must not
// inherit it.
curl_socket_t OpenSocket(void* /*data*/, curlsocktype /*purpose*/, curl_sockaddr* address) {
    return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

curl_socket_t OpenToldSocket(void* data, curlsocktype purpose, curl_sockaddr* address) noexcept {
    const curl_socket_t opened = OpenSocket(data, purpose, address);
    if (opened != CURL_SOCKET_BAD) static_cast<std::set<curl_socket_t>*>(data)->insert(opened);
    return opened;
}

int CloseToldSocket(void* data, curl_socket_t socket) noexcept {
    static_cast<std::set<curl_socket_t>*>(data)->erase(socket);
    return close(socket);
}

Kind KindOf(CURLcode code) {
    switch (code) {
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_ISSUER_ERROR:
        case CURLE_LOGIN_DENIED:
        case CURLE_AUTH_ERROR:
            return Kind::kUnauthorized;
        case CURLE_COULDNT_RESOLVE_PROXY:
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_CONNECT:
        case CURLE_WEIRD_SERVER_REPLY:
        // libcurl reports this code when the server's response belongs to another protocol. An
        // unsupported URL cannot be the cause, because the program's URLs contain only supported
        // schemes.
        case CURLE_UNSUPPORTED_PROTOCOL:
        case CURLE_FTP_ACCEPT_TIMEOUT:
        case CURLE_FTP_CANT_GET_HOST:
        case CURLE_FTP_WEIRD_PASV_REPLY:
        case CURLE_PARTIAL_FILE:
        case CURLE_OPERATION_TIMEDOUT:
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_GOT_NOTHING:
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_SSL_SHUTDOWN_FAILED:
        case CURLE_AGAIN:
            return Kind::kUnavailable;
        default:
            return Kind::kFailed;
    }
}

}  // namespace

std::string OneLine(std::string_view text) {
    std::string line(text.substr(0, kMaxReasonBytes));
    std::replace_if(line.begin(), line.end(), IsControl, ' ');
    while (!line.empty() && line.back() == ' ') line.pop_back();
    return line;
}

std::string HostAndPort(const BackupToken& token) {
    const bool is_address = token.host().find(':') != std::string::npos;
    std::string text = is_address ? "[" + token.host() + "]" : token.host();
    if (token.port() != 0) text += ":" + str::Str(token.port());
    return text;
}

ServerSettings SettingsOf(const BackupToken& token, const std::string& protocol,
                          ServerSettings::Auth auth) {
    ServerSettings settings;
    settings.what = protocol + " server " + HostAndPort(token);
    settings.ca = token.Param("ca");
    const std::int64_t timeout = str::Int64(token.Param("timeout"));
    constexpr std::int64_t kMaxSeconds = 86400;
    settings.timeout =
        timeout > 0 ? static_cast<int>(std::min(timeout, kMaxSeconds)) : kDefaultTimeout;
    settings.auth = auth;
    settings.user = token.user();
    settings.password = token.password();
    return settings;
}

CurlList::~CurlList() {
    if (list_ != nullptr) Curl().slist_free_all(list_);
}

void CurlList::Add(const std::string& text) {
    curl_slist* const longer = Curl().slist_append(list_, text.c_str());
    if (longer == nullptr) throw std::bad_alloc();
    list_ = longer;
}

CurlHandle::CurlHandle(const ServerSettings& settings)
    : handle_(Curl().easy_init()), what_(settings.what) {
    if (handle_ == nullptr) throw Error(Kind::kFailed, "libcurl cannot create a transfer handle");
    SetPointer(CURLOPT_ERRORBUFFER, reason_.data());
    Set(CURLOPT_NOSIGNAL, 1);
    SetFunction(CURLOPT_OPENSOCKETFUNCTION, OpenSocket);
    Set(CURLOPT_TCP_KEEPALIVE, 1);
    // When the handle is destroyed, libcurl must not wait for its resolver thread, which can be
    // blocked by a name server that does not answer.
    Set(CURLOPT_QUICK_EXIT, 1);
    Set(CURLOPT_CONNECTTIMEOUT, settings.timeout);
    Set(CURLOPT_BUFFERSIZE, kReceiveBuffer);
    Set(CURLOPT_UPLOAD_BUFFERSIZE, kSendBuffer);
    SetTls(settings.ca);
    SetUser(settings);
}

CurlHandle::~CurlHandle() { Curl().easy_cleanup(handle_); }

void CurlHandle::SetTls(const std::string& ca) {
    Set(CURLOPT_SSL_VERIFYPEER, 1);
    Set(CURLOPT_SSL_VERIFYHOST, 2);
    Set(CURLOPT_SSLVERSION, CURL_SSLVERSION_TLSv1_2);
    if (ca.empty()) return;
    Set(CURLOPT_CAINFO, ca);
    // A token with a `ca` file trusts only the certificates in this file, so the system's
    // certificates are disabled.
    Clear(CURLOPT_CAPATH);
}

void CurlHandle::SetUser(const ServerSettings& settings) {
    using Auth = ServerSettings::Auth;
    if (settings.auth == Auth::kNone) return;
    if (settings.auth == Auth::kBasic) Set(CURLOPT_HTTPAUTH, CURLAUTH_BASIC);
    if (settings.auth == Auth::kDigest) Set(CURLOPT_HTTPAUTH, CURLAUTH_DIGEST);
    Set(CURLOPT_USERNAME, settings.user);
    Set(CURLOPT_PASSWORD, settings.password);
}

void CurlHandle::Set(CURLoption option, long value) {
    Check(Curl().easy_setopt(handle_, option, value), "set up a transfer");
}

void CurlHandle::SetSize(CURLoption option, std::int64_t value) {
    Check(Curl().easy_setopt(handle_, option, static_cast<curl_off_t>(value)), "set up a transfer");
}

void CurlHandle::Set(CURLoption option, const std::string& value) {
    Check(Curl().easy_setopt(handle_, option, value.c_str()), "set up a transfer");
}

void CurlHandle::SetPointer(CURLoption option, void* value) {
    Check(Curl().easy_setopt(handle_, option, value), "set up a transfer");
}

void CurlHandle::Check(CURLcode code, const char* what) const {
    if (code == CURLE_OK) return;
    throw Error(Kind::kFailed, what_ + ": cannot " + what + ": " + Curl().easy_strerror(code));
}

long CurlHandle::Info(CURLINFO info) const {
    long value = 0;
    Check(Curl().easy_getinfo(handle_, info, &value), "query a transfer");
    return value;
}

void CurlHandle::RecordSockets(std::set<curl_socket_t>& sockets) {
    SetFunction(CURLOPT_OPENSOCKETFUNCTION, OpenToldSocket);
    SetPointer(CURLOPT_OPENSOCKETDATA, &sockets);
    SetFunction(CURLOPT_CLOSESOCKETFUNCTION, CloseToldSocket);
    SetPointer(CURLOPT_CLOSESOCKETDATA, &sockets);
}

void CurlHandle::Throw(CURLcode code) const {
    const std::string reason = OneLine(reason_.data());
    throw Error(KindOf(code),
                what_ + ": " + (reason.empty() ? Curl().easy_strerror(code) : reason));
}

}  // namespace quarn2::net
