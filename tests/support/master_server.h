// Acts as the size control server of a master link for a node client in the same process.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kro/kro_proc.h"
#include "kro/res_handle.h"
#include "quarn2_cp2_put_node.h"

// Returns the message as a frame of the link: its length in 4 bytes, then the text.
inline std::string Frame(const std::string& text) {
    const auto length = static_cast<std::uint32_t>(text.size());
    std::string frame(reinterpret_cast<const char*>(&length), sizeof length);
    return frame + text;
}

class MasterServer {
  public:
    // A function that returns the answer to a line of the node client. The line has no line feed.
    // The result nullopt closes the link.
    using Answer = std::function<std::optional<std::string>(const std::string& line)>;

    // Sends the token to the node client at once. A thread then answers the client's lines.
    explicit MasterServer(const std::string& token, Answer answer = Usual)
        : answer_(std::move(answer)) {
        Send(Frame(token));
        thread_ = std::thread([this] { Serve(); });
    }
    ~MasterServer() {
        commands_pipe_.second.Close();
        thread_.join();
    }
    MasterServer(const MasterServer&) = delete;
    MasterServer& operator=(const MasterServer&) = delete;

    MasterLink link() const { return {answers_pipe_.first, commands_pipe_.second}; }

    std::vector<std::string> lines() const {
        const std::lock_guard section(mutex_);
        return lines_;
    }

    // Grants every request and reports a maximum of two backups per user.
    static std::optional<std::string> Usual(const std::string& line) {
        const bool counts = line.starts_with("RESERVE") || line.starts_with("COMPLETE");
        return counts ? "OK 2" : "OK";
    }

  private:
    void Send(const std::string& bytes) {
        if (write(answers_pipe_.second, bytes.data(), bytes.size()) < 0)
            answers_pipe_.second.Close();
    }

    void Serve() {
        std::string line;
        char byte = '\0';
        while (read(commands_pipe_.first, &byte, 1) == 1) {
            if (byte != '\n') {
                line += byte;
                continue;
            }
            {
                const std::lock_guard section(mutex_);
                lines_.push_back(line);
            }
            const std::optional<std::string> answer = answer_(line);
            line.clear();
            if (!answer) {
                answers_pipe_.second.Close();
                return;
            }
            Send(Frame(*answer));
        }
    }

    Answer answer_;
    std::pair<ResHandle, ResHandle> answers_pipe_ = kro_proc::Pipe();
    std::pair<ResHandle, ResHandle> commands_pipe_ = kro_proc::Pipe();
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
    std::thread thread_;
};
