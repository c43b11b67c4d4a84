// A server session with its two pipes. The test uses the client's ends.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "kro/kro_proc.h"
#include "quarn2_cp2_server_session.h"

class SessionLink {
  public:
    // `command` is the command line of the client. The session uses it only to identify the kind of
    // client, and never executes it.
    explicit SessionLink(GlobalSizeControl::StorageDesc& storage,
                         std::vector<std::string> command = {})
        : session_(std::make_shared<MasterSide>(storage, loop_, std::move(command))) {
        kro_proc::SetNonBlocking(from_client_.first);
        kro_proc::SetNonBlocking(to_client_.second);
        kro_proc::SetNonBlocking(to_client_.first);
        session_->Attach(from_client_.first, to_client_.second);
    }

    // Processes one line and returns the texts of the frames that the client receives.
    std::vector<std::string> Answers(const std::string& line) {
        session_->ProcessCommand(line);
        session_->Write(to_client_.second);
        return Frames();
    }

    // Returns the only answer to a line, or the number of frames in parentheses if there is not
    // exactly one.
    std::string Answer(const std::string& line) {
        const std::vector<std::string> answers = Answers(line);
        return answers.size() == 1 ? answers.front()
                                   : "(" + std::to_string(answers.size()) + " frames)";
    }

    // The bytes that have arrived at the client.
    std::string Bytes() const {
        std::string bytes;
        char piece[4096];
        for (ssize_t count = read(to_client_.first, piece, sizeof piece); count > 0;
             count = read(to_client_.first, piece, sizeof piece)) {
            bytes.append(piece, static_cast<std::size_t>(count));
        }
        return bytes;
    }

    std::vector<std::string> Frames() const { return Cut(Bytes()); }

    static std::vector<std::string> Cut(std::string bytes) {
        std::vector<std::string> texts;
        while (bytes.size() >= sizeof(std::uint32_t)) {
            std::uint32_t length = 0;
            std::memcpy(&length, bytes.data(), sizeof length);
            texts.push_back(bytes.substr(sizeof length, length));
            bytes.erase(0, sizeof length + length);
        }
        if (!bytes.empty()) texts.push_back("(a rest)");
        return texts;
    }

    void ClientWrites(const std::string& bytes) const {
        if (write(from_client_.second, bytes.data(), bytes.size()) !=
            static_cast<ssize_t>(bytes.size())) {
            throw std::runtime_error("the pipe does not take the bytes");
        }
    }

    quarn2::Expect& loop() { return loop_; }
    const std::shared_ptr<MasterSide>& session() const { return session_; }
    ResHandle& read_end() { return from_client_.first; }
    ResHandle& write_end() { return to_client_.second; }
    ResHandle& client_input() { return to_client_.first; }
    ResHandle& client_output() { return from_client_.second; }

  private:
    quarn2::Expect loop_;
    std::pair<ResHandle, ResHandle> to_client_ = kro_proc::Pipe();
    std::pair<ResHandle, ResHandle> from_client_ = kro_proc::Pipe();
    std::shared_ptr<MasterSide> session_;
};
