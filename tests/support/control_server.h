// Acts as the node client behind a control socket. Calls a function that the test supplies to
// answer each command.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kro/kro_proc.h"
#include "kro/res_handle.h"

class ControlServer {
  public:
    using Answer = std::function<std::string(const std::string& command)>;

    ControlServer(const std::string& path, Answer answer)
        : path_(path), answer_(std::move(answer)) {
        listening_ = Listen(path);
        thread_ = std::thread([this] { Serve(); });
    }
    ~ControlServer() {
        stop_.second.Close();
        thread_.join();
        unlink(path_.c_str());
    }
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    // Returns a socket that listens at the path. The address contains at most the first 108 bytes
    // of the path.
    static ResHandle Listen(const std::string& path) {
        ResHandle listening(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_un address = Address(path);
        if (bind(listening, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            listen(listening, 5) != 0) {
            throw std::runtime_error("cannot listen at " + path);
        }
        return listening;
    }

    static sockaddr_un Address(const std::string& path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof address.sun_path));
        return address;
    }

    // Sends one command as a client and returns the bytes of the answer.
    static std::string Ask(const std::string& path, const std::string& command) {
        const ResHandle connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_un address = Address(path);
        if (connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            send(connection, command.data(), command.size(), 0) !=
                static_cast<ssize_t>(command.size())) {
            throw std::runtime_error("cannot ask " + path);
        }
        shutdown(connection, SHUT_WR);
        return ReadToEnd(connection);
    }

    std::vector<std::string> commands() const {
        const std::lock_guard section(mutex_);
        return commands_;
    }

  private:
    static std::string ReadToEnd(int fd) {
        std::string text;
        char piece[4096];
        for (ssize_t count = read(fd, piece, sizeof piece); count > 0;
             count = read(fd, piece, sizeof piece)) {
            text.append(piece, static_cast<std::size_t>(count));
        }
        return text;
    }

    void Serve() {
        for (;;) {
            pollfd states[] = {{listening_, POLLIN, 0}, {stop_.first, POLLIN, 0}};
            if (poll(states, 2, -1) < 0 || states[1].revents != 0) return;
            const ResHandle connection(accept4(listening_, nullptr, nullptr, SOCK_CLOEXEC));
            const std::string command = ReadToEnd(connection);
            {
                const std::lock_guard section(mutex_);
                commands_.push_back(command);
            }
            const std::string answer = answer_(command);
            if (send(connection, answer.data(), answer.size(), 0) < 0) return;
        }
    }

    std::string path_;
    Answer answer_;
    ResHandle listening_;
    std::pair<ResHandle, ResHandle> stop_ = kro_proc::Pipe();
    mutable std::mutex mutex_;
    std::vector<std::string> commands_;
    std::thread thread_;
};
