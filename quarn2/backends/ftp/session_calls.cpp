// The callbacks that libcurl calls during the transfers of a Session.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <utility>

#include "session.h"

namespace quarn2::ftp {

namespace {

// Sets or clears TCP_CORK of a socket. With TCP_CORK the kernel delays small writes until TCP_CORK
// is cleared, or until the retransmission timeout has passed. This timeout is at least 200 ms and
// about three round trips.
void Cork(curl_socket_t socket, bool corked) noexcept {
    const int value = corked ? 1 : 0;
    setsockopt(socket, IPPROTO_TCP, TCP_CORK, &value, sizeof value);
}

}  // namespace

// Opens a socket for libcurl with SOCK_CLOEXEC, because child processes of this program must not
// inherit it.
curl_socket_t Session::OnOpenSocket(void* self, curlsocktype /*purpose*/, curl_sockaddr* address) {
    auto& session = *static_cast<Session*>(self);
    const int handle = socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
    if (std::exchange(session.port_is_known_, false)) {
        session.data_ = handle;
        if (session.is_handshake_late_) Cork(handle, true);
    } else {
        session.is_new_ = true;
    }
    return handle;
}

int Session::OnCloseSocket(void* self, curl_socket_t socket) {
    auto& session = *static_cast<Session*>(self);
    const bool is_data = socket == session.data_;
    if (is_data) session.data_ = CURL_SOCKET_BAD;
    const bool sent_all = session.source_ != nullptr && session.offset_ == session.source_->size();
    if (is_data && sent_all) WaitForClose(socket, session.timeout_);
    return close(socket);
}

// Waits after an upload until the server closes the data connection. A TLS 1.3 server sends session
// tickets, which libcurl does not read. If a socket with unread input is closed, the kernel resets
// the connection, and the server can lose the end of the upload.
void Session::WaitForClose(curl_socket_t socket, int timeout) {
    constexpr int kMilliseconds = 1000;
    std::array<char, 4096> unwanted = {};
    shutdown(socket, SHUT_WR);
    pollfd waited = {socket, POLLIN, 0};
    while (poll(&waited, 1, timeout * kMilliseconds) > 0) {
        if (recv(socket, unwanted.data(), unwanted.size(), MSG_DONTWAIT) <= 0) return;
    }
}

int Session::OnDebug(CURL* /*handle*/, curl_infotype type, char* data, std::size_t size,
                     void* self) {
    auto& session = *static_cast<Session*>(self);
    if (type == CURLINFO_HEADER_OUT) session.transcript_.Sent({data, size});
    if (type != CURLINFO_HEADER_IN) return 0;
    session.transcript_.Received({data, size});
    session.port_is_known_ = session.transcript_.HasPort();
    const bool is_corked = session.is_handshake_late_ && session.data_ != CURL_SOCKET_BAD;
    if (is_corked && session.transcript_.IsTransferStart()) Cork(session.data_, false);
    return 0;
}

int Session::OnProgress(void* self, curl_off_t /*down_total*/, curl_off_t down,
                        curl_off_t /*up_total*/, curl_off_t up) {
    auto& session = *static_cast<Session*>(self);
    // Does nothing before the first byte of data, because libcurl's own timeouts for connecting and
    // for replies apply until then.
    if (down + up != session.moved_ || down + up == 0) session.RecordProgress();
    session.moved_ = down + up;
    const auto still = kro_date::SteadyClock::now() - session.moved_at_;
    session.is_stalled_ = still > std::chrono::seconds(session.timeout_);
    return session.is_stalled_ ? 1 : 0;
}

// libcurl calls this to read the source. An exception must not propagate into the C library, so it
// is stored; Throw() rethrows it after the transfer.
std::size_t Session::OnRead(char* buffer, std::size_t size, std::size_t count, void* self) {
    auto& session = *static_cast<Session*>(self);
    try {
        if (session.source_ == nullptr || session.offset_ >= session.source_->size()) return 0;
        const auto room = std::as_writable_bytes(std::span(buffer, size * count));
        const std::size_t got = session.source_->ReadAt(session.offset_, room);
        session.offset_ += static_cast<std::int64_t>(got);
        session.RecordProgress();
        return got;
    } catch (...) {
        session.thrown_ = std::current_exception();
        return CURL_READFUNC_ABORT;
    }
}

std::size_t Session::OnWrite(char* buffer, std::size_t size, std::size_t count, void* self) {
    auto& session = *static_cast<Session*>(self);
    const auto bytes = std::as_bytes(std::span(buffer, size * count));
    try {
        if (session.take_) session.take_(bytes);
        session.RecordProgress();
        return bytes.size();
    } catch (...) {
        session.thrown_ = std::current_exception();
        return bytes.empty() ? 1 : 0;
    }
}

}  // namespace quarn2::ftp
