// An HTTP server on the loopback interface. A test writes its responses, as raw bytes if necessary.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kro/res_handle.h"

// The byte stream of one connection. Encrypted streams derive from this class.
class ServerStream {
  public:
    explicit ServerStream(int fd) : fd_(fd) {}
    virtual ~ServerStream() = default;
    ServerStream(const ServerStream&) = delete;
    ServerStream& operator=(const ServerStream&) = delete;

    int fd() const { return fd_; }
    // Performs the handshake of an encrypted stream. Returns false if the handshake fails.
    virtual bool Accept() { return true; }
    virtual ssize_t Read(char* buffer, std::size_t size) { return recv(fd_, buffer, size, 0); }
    virtual ssize_t Write(const char* text, std::size_t size) {
        return send(fd_, text, size, MSG_NOSIGNAL);
    }

  private:
    int fd_;
};

// One request and the functions that answer it. The script runs when the request's headers have
// arrived.
class HttpExchange {
  public:
    std::string method;
    std::string target;
    std::map<std::string, std::string> headers;  // names in lower case
    int connection = 0;                          // counted from 0
    int number = 0;                              // among all requests, counted from 0

    HttpExchange(ServerStream& stream, std::string& buffered)
        : stream_(stream), buffered_(buffered) {}

    // Called with the request's body when it has been read.
    std::function<void(const std::string&)> on_body;

    std::string Header(const std::string& name) const {
        const auto found = headers.find(name);
        return found == headers.end() ? std::string() : found->second;
    }

    // Reads and returns the request's body. Sends "100 Continue" first if the client expects it.
    const std::string& Body() {
        if (std::exchange(body_read_, true)) return body_;
        const std::size_t size =
            Header("content-length").empty() ? 0 : std::stoul(Header("content-length"));
        if (!Header("expect").empty()) Write("HTTP/1.1 100 Continue\r\n\r\n");
        while (buffered_.size() < size && Fill()) continue;
        body_ = buffered_.substr(0, size);
        buffered_.erase(0, body_.size());
        on_body(body_);
        return body_;
    }

    // Sends a complete response. Reads the request's body first if the script has not.
    void Answer(int status, const std::string& body = {},
                const std::vector<std::string>& more_headers = {}) {
        Body();
        AnswerNow(status, body, more_headers);
    }

    // Sends a complete response without reading the request's body.
    void AnswerNow(int status, const std::string& body = {},
                   const std::vector<std::string>& more_headers = {}) {
        std::string text = "HTTP/1.1 " + std::to_string(status) + " Text\r\n";
        for (const std::string& header : more_headers) text += header + "\r\n";
        text += "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n";
        Write(method == "HEAD" ? text : text + body);
    }

    // Sends raw bytes. Returns false if the client has closed the connection.
    bool Write(const std::string& text) {
        std::size_t done = 0;
        while (done < text.size()) {
            const ssize_t count = stream_.Write(text.data() + done, text.size() - done);
            if (count <= 0) return false;
            done += static_cast<std::size_t>(count);
        }
        return true;
    }
    // Sends `head`, and then repeats `piece` until the client closes the connection.
    void WriteWithoutEnd(const std::string& head, const std::string& piece) {
        std::string pieces;
        while (pieces.size() < 64UL * 1024) pieces += piece;
        if (Write(head)) {
            while (Write(pieces)) continue;
        }
        Close();
    }

    // Closes the connection after this request.
    void Close() { closed_ = true; }
    // Resets the connection after this request.
    void Reset() {
        const linger at_once = {1, 0};
        setsockopt(stream_.fd(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        Close();
    }
    // Sends nothing until the client closes the connection or the server stops.
    void Stall() {
        while (Fill()) buffered_.clear();
        Close();
    }

    bool ReadHead() {
        std::size_t end = 0;
        while ((end = buffered_.find("\r\n\r\n")) == std::string::npos) {
            if (!Fill()) return false;
        }
        ParseHead(buffered_.substr(0, end + 2));
        buffered_.erase(0, end + 4);
        return true;
    }
    bool closed() const { return closed_; }

  private:
    bool Fill() {
        std::string piece(64UL * 1024, '\0');
        const ssize_t count = stream_.Read(piece.data(), piece.size());
        if (count <= 0) return false;
        buffered_.append(piece, 0, static_cast<std::size_t>(count));
        return true;
    }

    void ParseHead(const std::string& head) {
        const std::size_t line_end = head.find("\r\n");
        const std::string line = head.substr(0, line_end);
        method = line.substr(0, line.find(' '));
        target = line.substr(method.size() + 1, line.rfind(' ') - method.size() - 1);
        for (std::size_t begin = line_end + 2; begin < head.size();) {
            const std::size_t end = head.find("\r\n", begin);
            const std::size_t colon = head.find(": ", begin);
            std::string name = head.substr(begin, colon - begin);
            for (char& c : name) c = static_cast<char>(std::tolower(c));
            headers[name] = head.substr(colon + 2, end - colon - 2);
            begin = end + 2;
        }
    }

    ServerStream& stream_;
    std::string& buffered_;
    std::string body_;
    bool body_read_ = false;
    bool closed_ = false;
};

// A copy of a request.
struct SeenRequest {
    std::string method;
    std::string target;
    std::map<std::string, std::string> headers;
    std::string body;  // "" until the script has read it
    int connection = 0;

    std::string Header(const std::string& name) const {
        const auto found = headers.find(name);
        return found == headers.end() ? std::string() : found->second;
    }
};

// Each connection has its own thread, which calls the script for each request.
class ScriptedHttpServer {
  public:
    using Script = std::function<void(HttpExchange&)>;
    using MakeStream = std::function<std::unique_ptr<ServerStream>(int)>;

    explicit ScriptedHttpServer(
        Script script,
        MakeStream make_stream = [](int fd) { return std::make_unique<ServerStream>(fd); })
        : script_(std::move(script)),
          make_stream_(std::move(make_stream)),
          listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        socklen_t size = sizeof address;
        if (bind(listener_, generic, size) != 0 || listen(listener_, 64) != 0 ||
            getsockname(listener_, generic, &size) != 0) {
            throw std::runtime_error("no socket to listen at");
        }
        port_ = ntohs(address.sin_port);
        acceptor_ = std::thread([this] { AcceptAll(); });
    }

    ~ScriptedHttpServer() {
        stopped_ = true;
        shutdown(listener_, SHUT_RDWR);
        acceptor_.join();
        {
            const std::lock_guard lock(mutex_);
            for (const int fd : open_) shutdown(fd, SHUT_RDWR);
        }
        for (std::thread& thread : threads_) thread.join();
    }
    ScriptedHttpServer(const ScriptedHttpServer&) = delete;
    ScriptedHttpServer& operator=(const ScriptedHttpServer&) = delete;

    int port() const { return port_; }
    std::string Url(const std::string& path, const std::string& scheme = "http") const {
        return scheme + "://127.0.0.1:" + std::to_string(port_) + path;
    }

    // All requests, in the order of their arrival.
    std::vector<SeenRequest> Seen() const {
        const std::lock_guard lock(mutex_);
        return seen_;
    }
    std::vector<std::string> SeenLines() const {
        std::vector<std::string> lines;
        for (const SeenRequest& request : Seen()) {
            lines.push_back(request.method + " " + request.target);
        }
        return lines;
    }
    int connections() const { return connections_; }

  private:
    void AcceptAll() {
        while (!stopped_) {
            const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) continue;
            const std::lock_guard lock(mutex_);
            open_.push_back(fd);
            threads_.emplace_back([this, fd, id = connections_++] {
                Serve(fd, id);
                const std::lock_guard closing(mutex_);
                open_.remove(fd);
                close(fd);
            });
        }
    }

    void Serve(int fd, int id) {
        const std::unique_ptr<ServerStream> stream = make_stream_(fd);
        if (!stream->Accept()) return;
        std::string buffered;
        for (;;) {
            HttpExchange exchange(*stream, buffered);
            if (!exchange.ReadHead()) return;
            exchange.connection = id;
            exchange.number = requests_++;
            exchange.on_body = Note(exchange);
            script_(exchange);
            if (exchange.closed()) return;
        }
    }

    std::function<void(const std::string&)> Note(const HttpExchange& exchange) {
        const std::lock_guard lock(mutex_);
        seen_.push_back(
            {exchange.method, exchange.target, exchange.headers, {}, exchange.connection});
        return [this, index = seen_.size() - 1](const std::string& body) {
            const std::lock_guard noting(mutex_);
            seen_[index].body = body;
        };
    }

    Script script_;
    MakeStream make_stream_;
    ResHandle listener_;
    int port_ = 0;
    std::atomic<bool> stopped_ = false;
    std::atomic<int> connections_ = 0;
    std::atomic<int> requests_ = 0;
    mutable std::mutex mutex_;
    std::list<int> open_;
    std::vector<SeenRequest> seen_;
    std::list<std::thread> threads_;
    std::thread acceptor_;
};
