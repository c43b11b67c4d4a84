// The secured channel to an SFTP server: address, SSH handshake, host key, login, subsystem.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "backends/sftp/session.h"

namespace quarn2::sftp {

// Where to connect and who to be.
struct Account {
    std::string host;
    std::uint16_t port = 22;
    std::string user;
    std::string password;          // empty: none
    std::string key_file;          // empty: none
    std::string known_hosts_file;  // empty: the user's and the system's
    int timeout = 60;              // seconds without progress
};

// Connects and logs in. Throws kUnauthorized when the host key is not trusted or the server refuses
// the user, kUnavailable when it cannot be reached.
std::unique_ptr<Stream> Connect(const Account& account);

}  // namespace quarn2::sftp
