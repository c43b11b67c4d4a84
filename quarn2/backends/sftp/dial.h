// A TCP connection, made within a bounded time.
#pragma once

#include <cstdint>
#include <string>

namespace quarn2::sftp {

// A descriptor with one owner, for libraries that take one over.
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

// Tries the host's addresses in turn. `seconds` bounds the name's resolution, then each address's
// attempt; it is also how long the socket's writes may stand still. Throws kUnavailable.
Socket Dial(const std::string& host, std::uint16_t port, int seconds);

}  // namespace quarn2::sftp
