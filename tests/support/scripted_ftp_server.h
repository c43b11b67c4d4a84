// An FTP server on the loopback interface. A test defines its replies to selected commands. To
// other commands it replies like an ordinary server with an empty directory.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kro/res_handle.h"
#include "scripted_http_server.h"

// A listening socket on the loopback interface.
class LoopbackListener {
  public:
    explicit LoopbackListener(const char* address = "127.0.0.1")
        : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in place = {};
        place.sin_family = AF_INET;
        place.sin_addr.s_addr = inet_addr(address);
        auto* const generic = reinterpret_cast<sockaddr*>(&place);
        socklen_t size = sizeof place;
        if (bind(socket_, generic, size) != 0 || listen(socket_, 16) != 0 ||
            getsockname(socket_, generic, &size) != 0) {
            throw std::runtime_error("no socket to listen at");
        }
        port_ = ntohs(place.sin_port);
    }

    int port() const { return port_; }
    int Accept() const {
        const int fd = accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
        // Without TCP_NODELAY, each short reply would wait until the client acknowledges the
        // previous reply.
        const int yes = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
        return fd;
    }
    bool HasCaller() const {
        pollfd state = {socket_, POLLIN, 0};
        return poll(&state, 1, 0) > 0;
    }
    void Stop() const { shutdown(socket_, SHUT_RDWR); }

  private:
    ResHandle socket_;
    int port_ = 0;
};

// The control connection of one client.
class FtpSession {
  public:
    explicit FtpSession(std::unique_ptr<ServerStream> stream) : stream_(std::move(stream)) {}

    // Sends the text without adding a line end. Returns false if the client has disconnected.
    bool Write(const std::string& text) { return WriteTo(*stream_, text); }
    bool Say(const std::string& line) { return Write(line + "\r\n"); }
    void SayWithoutEnd(const std::string& line) {
        std::string lines;
        while (lines.size() < 4096) lines += line + "\r\n";
        while (Write(lines)) continue;
    }

    // Switches the control connection to TLS.
    bool Encrypt(const ScriptedHttpServer::MakeStream& make) {
        stream_ = make(stream_->fd());
        return stream_->Accept();
    }

    // Encrypts all later data connections.
    void EncryptData(ScriptedHttpServer::MakeStream make) { make_data_ = std::move(make); }

    bool Next(std::string& line) {
        std::size_t end = 0;
        while ((end = buffered_.find("\r\n")) == std::string::npos) {
            char piece[4096];
            const ssize_t count = stream_->Read(piece, sizeof piece);
            if (count <= 0) return false;
            buffered_.append(piece, static_cast<std::size_t>(count));
        }
        line = buffered_.substr(0, end);
        buffered_.erase(0, end + 2);
        return true;
    }

    void OpenDataPort() { data_ = std::make_unique<LoopbackListener>(); }
    int data_port() const { return data_->port(); }

    // Transfers `text` to the client, and then repeats `piece` until the client disconnects.
    void Send(const std::string& text, const std::string& piece = {}) {
        Say("150 Here it comes");
        const ResHandle fd(data_->Accept());
        const std::unique_ptr<ServerStream> stream = make_data_(fd);
        ServerStream& data = *stream;
        if (!data.Accept()) return;
        std::string pieces;
        while (!piece.empty() && pieces.size() < 64UL * 1024) pieces += piece;
        if (WriteTo(data, text)) {
            while (!pieces.empty() && WriteTo(data, pieces)) continue;
        }
        shutdown(fd, SHUT_RDWR);
        Say("226 Done");
    }
    void Receive() {
        ReceiveBytes();
        Say("226 Done");
    }
    // Receives the data of a transfer and returns their size in bytes. The script sends the final
    // reply.
    std::size_t ReceiveBytes() {
        Say("150 Give it");
        const ResHandle fd(data_->Accept());
        char piece[4096];
        std::size_t received = 0;
        for (ssize_t count = 0; (count = recv(fd, piece, sizeof piece, 0)) > 0;) {
            received += static_cast<std::size_t>(count);
        }
        return received;
    }

  private:
    static bool WriteTo(ServerStream& stream, const std::string& text) {
        for (std::size_t done = 0; done < text.size();) {
            const ssize_t count = stream.Write(text.data() + done, text.size() - done);
            if (count <= 0) return false;
            done += static_cast<std::size_t>(count);
        }
        return true;
    }

    std::unique_ptr<ServerStream> stream_;
    std::string buffered_;
    std::unique_ptr<LoopbackListener> data_;
    ScriptedHttpServer::MakeStream make_data_ = [](int fd) {
        return std::make_unique<ServerStream>(fd);
    };
};

class ScriptedFtpServer {
  public:
    using Answer = std::function<void(FtpSession&, const std::string& argument)>;

    // `answers` maps a command to the function that answers it. The key "" sends the greeting.
    explicit ScriptedFtpServer(std::map<std::string, Answer> answers)
        : answers_(std::move(answers)), acceptor_([this] { AcceptAll(); }) {}
    ~ScriptedFtpServer() {
        stopped_ = true;
        listener_.Stop();
        acceptor_.join();
        {
            const std::lock_guard lock(mutex_);
            for (const int fd : open_) shutdown(fd, SHUT_RDWR);
        }
        for (std::thread& thread : threads_) thread.join();
    }
    ScriptedFtpServer(const ScriptedFtpServer&) = delete;
    ScriptedFtpServer& operator=(const ScriptedFtpServer&) = delete;

    int port() const { return listener_.port(); }
    // The received commands, without their arguments.
    std::vector<std::string> Seen() const {
        const std::lock_guard lock(mutex_);
        return seen_;
    }

  private:
    void AcceptAll() {
        while (!stopped_) {
            const int fd = listener_.Accept();
            if (fd < 0) continue;
            const std::lock_guard lock(mutex_);
            open_.push_back(fd);
            threads_.emplace_back([this, fd] {
                Serve(fd);
                const std::lock_guard closing(mutex_);
                open_.remove(fd);
                close(fd);
            });
        }
    }

    void Serve(int fd) {
        FtpSession session(std::make_unique<ServerStream>(fd));
        AnswerTo(session, "", "");
        std::string line;
        while (session.Next(line)) {
            const std::string verb = line.substr(0, line.find(' '));
            const std::string argument = line.substr(std::min(verb.size() + 1, line.size()));
            {
                const std::lock_guard lock(mutex_);
                seen_.push_back(verb);
            }
            AnswerTo(session, verb, argument);
        }
    }

    void AnswerTo(FtpSession& session, const std::string& verb, const std::string& argument) {
        const auto found = answers_.find(verb);
        if (found != answers_.end()) return found->second(session, argument);
        if (verb == "EPSV") {
            session.OpenDataPort();
            session.Say("229 Ready (|||" + std::to_string(session.data_port()) + "|)");
        } else if (verb == "MLSD") {
            session.Send("type=cdir; .\r\n");
        } else if (verb == "STOR") {
            session.Receive();
        } else {
            session.Say(PlainAnswer(verb));
        }
    }

    static std::string PlainAnswer(const std::string& verb) {
        static const std::map<std::string, std::string> answers = {{"", "220 Ready"},
                                                                   {"USER", "331 Password"},
                                                                   {"PASS", "230 In"},
                                                                   {"PWD", "257 \"/\""},
                                                                   {"TYPE", "200 Fine"},
                                                                   {"CWD", "250 Fine"},
                                                                   {"PBSZ", "200 Fine"},
                                                                   {"PROT", "200 Fine"},
                                                                   {"DELE", "550 No such file"},
                                                                   {"SIZE", "550 No such file"},
                                                                   {"MLST", "550 No such file"},
                                                                   {"MKD", "257 Made"},
                                                                   {"QUIT", "221 Bye"}};
        const auto found = answers.find(verb);
        return found == answers.end() ? "502 Unknown" : found->second;
    }

    std::map<std::string, Answer> answers_;
    LoopbackListener listener_;
    std::atomic<bool> stopped_ = false;
    mutable std::mutex mutex_;
    std::list<int> open_;
    std::vector<std::string> seen_;
    std::list<std::thread> threads_;
    std::thread acceptor_;
};
