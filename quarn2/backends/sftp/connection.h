// Opens the SSH channel to an SFTP server: connects, checks the host key, logs in and starts the
// SFTP subsystem.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "session.h"

namespace quarn2::sftp {

// The address of the server and the credentials of the user.
struct Account {
    std::string host;
    std::uint16_t port = 22;
    std::string user;
    std::string password;          // empty: no password
    std::string key_file;          // empty: no key file
    std::string known_hosts_file;  // empty: the known_hosts files of the user and of the system
    int timeout = 60;              // seconds without progress until an operation fails
};

// Connects to the server and logs in. Throws kUnauthorized if the server's host key is not trusted
// or the server refuses the login, and kUnavailable if the server cannot be reached.
std::unique_ptr<Stream> Connect(const Account& account);

}  // namespace quarn2::sftp
