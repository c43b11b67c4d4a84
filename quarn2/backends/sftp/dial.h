// Opens a TCP connection within a bounded time.
#pragma once

#include <cstdint>
#include <string>

namespace quarn2::sftp {

// Owns a descriptor. Release() hands it over, for example to a library.
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

// Tries the host's addresses in turn. `seconds` limits the name resolution, then the attempt with
// each address. It is also the socket's timeout for reads and writes without progress. Throws
// kUnavailable.
Socket Dial(const std::string& host, std::uint16_t port, int seconds);

}  // namespace quarn2::sftp
