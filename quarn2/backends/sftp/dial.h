// Opens a TCP connection within a bounded time.
#pragma once

#include <cstdint>
#include <string>

namespace quarn2::sftp {

// Owns a socket descriptor. Release() returns the descriptor and gives up its ownership, for
// example to libssh.
class Socket {
  public:
    explicit Socket(int fd) noexcept : fd_(fd) {}
    ~Socket();
    Socket(Socket&& other) noexcept : fd_(other.Release()) {}
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    Socket& operator=(Socket&&) = delete;

    int fd() const noexcept { return fd_; }
    int Release() noexcept;

  private:
    int fd_;
};

// Connects to a host; tries its addresses in turn. `seconds` limits the name resolution and each
// attempt to connect. It is also the timeout of the socket for reads and writes without progress.
// Throws kUnavailable if the host cannot be resolved or reached.
Socket Dial(const std::string& host, std::uint16_t port, int seconds);

}  // namespace quarn2::sftp
