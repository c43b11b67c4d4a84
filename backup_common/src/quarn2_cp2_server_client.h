// The process that the server starts for a node client: the client of this machine, or the ssh
// process that runs a client on another machine.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "kro/kro_clock.h"
#include "kro/kro_proc.h"
#include "kro/res_handle.h"

// The command that starts a node client. `node` is "local" or NAME:DESTINATION:PORT.
std::vector<std::string> NodeClientCommand(std::string node, const std::string& ssh_key);

// Keeps the last kMaxSize bytes of a client's error output, which are logged as one line.
class LastWords {
  public:
    static constexpr std::size_t kMaxSize = 2048;

    void Add(const char* text, std::size_t size);

    // The lines of the error output joined with "; ". Begins with "..." if earlier output was
    // discarded.
    std::string Text() const;

  private:
    std::string words_;
    bool shortened_ = false;
};

class ClientProcess {
  public:
    using Clock = kro_date::SteadyClock;

    // How long a client may take to end before it gets SIGTERM (`until_asked`) and SIGKILL
    // (`until_killed`).
    struct KillTimes {
        std::chrono::seconds until_asked;
        std::chrono::seconds until_killed;
    };

    struct Pipes {
        ResHandle from_client;
        ResHandle to_client;
    };

    explicit ClientProcess(const std::vector<std::string>& command);
    // Waits until the client has ended (see FinishWithin).
    ~ClientProcess();
    ClientProcess(const ClientProcess&) = delete;
    ClientProcess& operator=(const ClientProcess&) = delete;

    // Starts the client and returns the server's ends of the two pipes, both non-blocking. Throws
    // kro_err::Error with the reason when the client cannot be started.
    Pipes Start();

    // Keeps the client's output pipe open until the client has ended. The pipe is not read.
    void KeepOutput(ResHandle from_client) { output_ = std::move(from_client); }

    // Reads the available error output of the client, but at most as much as a pipe can contain.
    void Listen();

    // Waits at most `wait` for the end of the client. Returns true when the client has ended or
    // never ran.
    bool HasEnded(std::chrono::milliseconds wait = {});

    // Sends SIGTERM or SIGKILL to the client when the time in `times`, counted from `since`, has
    // passed. Sends each signal once.
    void SignalWhenDue(Clock::time_point since, Clock::time_point now, KillTimes times);

    // Waits at most `wait` for the end of a client whose input was closed at `since`. Returns true
    // when it has ended. Never kills a client of this machine, so that its uploads can finish.
    // Terminates an ssh process after a minute; the client on the other machine finishes by itself.
    bool FinishWithin(std::chrono::milliseconds wait, Clock::time_point since);

    bool is_remote() const noexcept { return is_remote_; }

    // The exit status. The client must have ended.
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
