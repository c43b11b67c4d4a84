// The process of a node client as the server sees it: this machine's own, or the ssh that leads to
// another one's.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "kro/kro_proc.h"
#include "kro/res_handle.h"

// The command that starts a node client. `node` is "local" or NAME:DESTINATION:PORT.
std::vector<std::string> NodeClientCommand(std::string node, const std::string& ssh_key);

// The end of what somebody says, for one line of a log: so much is kept, however much is said.
class LastWords {
  public:
    static constexpr std::size_t kMost = 2048;

    void Add(const char* text, std::size_t size);

    // Lines joined with "; ", an ellipsis in front of what lost its beginning.
    std::string Text() const;

  private:
    std::string words_;
    bool shortened_ = false;
};

class ClientProcess {
  public:
    using Clock = std::chrono::steady_clock;

    // How long one that should end is left alone, until it is asked to (SIGTERM), and until it is
    // made to (SIGKILL).
    struct Patience {
        std::chrono::seconds until_asked;
        std::chrono::seconds until_killed;
    };

    struct Pipes {
        ResHandle from_client;
        ResHandle to_client;
    };

    explicit ClientProcess(const std::vector<std::string>& command);
    // Waits for the end, see Finish.
    ~ClientProcess();
    ClientProcess(const ClientProcess&) = delete;
    ClientProcess& operator=(const ClientProcess&) = delete;

    // Starts it and gives this side's ends of its two pipes, both non-blocking. A kro_err::Error
    // says why it could not be started.
    Pipes Start();

    // Keeps the pipe that it speaks into open until its end. What it says there is not read.
    void KeepOutput(ResHandle from_client) { output_ = std::move(from_client); }

    // Takes what it has said on standard error, never more than a pipe holds.
    void Listen();

    // True when it has ended, or never ran; waits at most so long for it.
    bool HasEnded(std::chrono::milliseconds wait = {});

    // Asks or makes it end once it has had its time since `since`.
    void Press(Clock::time_point since, Clock::time_point now, Patience patience);

    // Waits at most so long for the end of one whose input is closed since then; true when it has
    // ended. One on this machine may finish its uploads; an ssh is ended after a minute, and what
    // it leads to finishes by itself.
    bool FinishWithin(std::chrono::milliseconds wait, Clock::time_point since);

    bool is_remote() const noexcept { return is_remote_; }

    // Of one that has ended.
    int status() { return child_.Result(); }
    std::string last_words() const { return words_.Text(); }
    pid_t pid() const noexcept { return child_.pid(); }

  private:
    kro_proc::Execute child_;
    bool is_remote_;
    ResHandle output_;
    ResHandle errors_;
    LastWords words_;
    int pressed_ = 0;  // the last signal sent
};
