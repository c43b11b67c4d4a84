#include "dial.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <future>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "base/stored_name.h"
#include "kro/kro_clock.h"
#include "kro/kro_err.h"

namespace quarn2::sftp {

namespace {

using kro_err::Error;
using kro_err::Kind;

struct Address {
    int family;
    std::vector<std::byte> bytes;
};

struct Resolved {
    int error = 0;
    int error_number = 0;
    std::vector<Address> addresses;
};

Resolved Resolve(const std::string& host, std::uint16_t port, int flags) {
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV | flags;
    addrinfo* found = nullptr;
    Resolved resolved;
    resolved.error = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    resolved.error_number = errno;
    if (resolved.error != 0) return resolved;
    for (const addrinfo* each = found; each != nullptr; each = each->ai_next) {
        Address address{each->ai_family, std::vector<std::byte>(each->ai_addrlen)};
        std::memcpy(address.bytes.data(), each->ai_addr, each->ai_addrlen);
        resolved.addresses.push_back(std::move(address));
    }
    freeaddrinfo(found);
    return resolved;
}

// Resolves the host name in a separate thread. getaddrinfo() cannot be interrupted while a name
// server does not respond, so after the timeout the thread continues to run until getaddrinfo()
// returns. The wait for the thread uses the real time, because the simulated clock of a test does
// not advance during it.
Resolved ResolveWithin(const std::string& host, std::uint16_t port, int seconds) {
    std::promise<Resolved> promise;
    std::future<Resolved> future = promise.get_future();
    try {
        std::thread([host, port, promise = std::move(promise)]() mutable {
            promise.set_value(Resolve(host, port, AI_ADDRCONFIG));
        }).detach();
    } catch (const std::system_error& error) {
        throw Error(Kind::kUnavailable, std::string("Failed to start a thread: ") + error.what());
    }
    if (future.wait_for(std::chrono::seconds(seconds)) != std::future_status::ready) {
        throw Error(Kind::kUnavailable, "cannot resolve host " + Quoted(host) +
                                            ": no response from a name server for " +
                                            std::to_string(seconds) + " seconds");
    }
    return future.get();
}

std::vector<Address> AddressesOf(const std::string& host, std::uint16_t port, int seconds) {
    Resolved resolved = Resolve(host, port, AI_NUMERICHOST);
    if (resolved.error != 0) resolved = ResolveWithin(host, port, seconds);
    if (resolved.error != 0) {
        const std::string reason = resolved.error == EAI_SYSTEM
                                       ? std::generic_category().message(resolved.error_number)
                                       : gai_strerror(resolved.error);
        throw Error(Kind::kUnavailable, "cannot resolve host " + Quoted(host) + ": " + reason);
    }
    return std::move(resolved.addresses);
}

template <class T>
void SetOption(int fd, int level, int option, const T& value) {
    // Ignore errors, because the connection also works without these options.
    static_cast<void>(setsockopt(fd, level, option, &value, sizeof value));
}

void Tune(int fd, int seconds) {
    SetOption(fd, IPPROTO_TCP, TCP_NODELAY, 1);
    SetOption(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
    SetOption(fd, IPPROTO_TCP, TCP_KEEPIDLE, 30);
    SetOption(fd, IPPROTO_TCP, TCP_KEEPINTVL, 10);
    SetOption(fd, IPPROTO_TCP, TCP_KEEPCNT, 3);
    SetOption(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, static_cast<unsigned>(seconds) * 1000U);
    timeval timeout = {};
    timeout.tv_sec = seconds;
    SetOption(fd, SOL_SOCKET, SO_SNDTIMEO, timeout);
    SetOption(fd, SOL_SOCKET, SO_RCVTIMEO, timeout);
}

// Waits up to `seconds` for the result of a connection attempt. Returns 0 if the attempt succeeded,
// else the errno value.
int Finish(int fd, int seconds) {
    const auto end = kro_date::SteadyClock::now() + std::chrono::seconds(seconds);
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - kro_date::SteadyClock::now());
        if (left.count() <= 0) return ETIMEDOUT;
        pollfd wanted = {fd, POLLOUT, 0};
        const int ready = poll(&wanted, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno != EINTR) return errno;
        if (ready == 0) return ETIMEDOUT;
        if (ready > 0) break;
    }
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

int Connect(int fd, const Address& address, int seconds) {
    sockaddr_storage name = {};
    std::memcpy(&name, address.bytes.data(), std::min(address.bytes.size(), sizeof name));
    const void* const bytes = &name;
    const int done = connect(fd, static_cast<const sockaddr*>(bytes),
                             static_cast<socklen_t>(address.bytes.size()));
    if (done == 0) return 0;
    return errno == EINPROGRESS || errno == EINTR ? Finish(fd, seconds) : errno;
}

}  // namespace

Socket::~Socket() {
    if (fd_ >= 0) close(fd_);
}

int Socket::Release() noexcept { return std::exchange(fd_, -1); }

Socket Dial(const std::string& host, std::uint16_t port, int seconds) {
    int error = EADDRNOTAVAIL;
    for (const Address& address : AddressesOf(host, port, seconds)) {
        Socket socket(::socket(address.family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (socket.fd() < 0) {
            error = errno;
            continue;
        }
        error = Connect(socket.fd(), address, seconds);
        if (error != 0) continue;
        Tune(socket.fd(), seconds);
        return socket;
    }
    throw Error(Kind::kUnavailable, "cannot connect to host " + Quoted(host) + ", port " +
                                        std::to_string(port) + ": " +
                                        std::generic_category().message(error));
}

}  // namespace quarn2::sftp
