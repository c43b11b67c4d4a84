// Child processes, pipes, signals and waiting.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

#include "kro/res_handle.h"

namespace kro_proc {

// The one place that waits for time to pass (kro_clock library; a test links its own).
void Sleep(int milliseconds);

// A pipe: read side, write side; both close-on-exec.
std::pair<ResHandle, ResHandle> Pipe();

void SetNonBlocking(int fd);

// A child process that runs another program. The child inherits no descriptor but its standard ones
// and starts with default signal handling.
class Execute {
  public:
    explicit Execute(std::vector<std::string> arguments);
    // A child that still runs is not waited for and not ended.
    ~Execute() = default;
    Execute(const Execute&) = delete;
    Execute& operator=(const Execute&) = delete;

    // The child's standard input (output, error output) will be `fd`; this process's own copy is
    // let go once the child runs.
    void RedirectInTo(ResHandle fd);
    void RedirectOutTo(ResHandle fd);

    void RedirectErrTo(ResHandle fd);

    // The child leads a session of its own, without a terminal: it can ask nobody anything.
    void LeaveTerminal() noexcept { leave_terminal_ = true; }

    // The child's environment is this process's own but for these: NAME=VALUE sets one, NAME takes
    // one away.
    void ChangeEnvironment(std::vector<std::string> changes);

    // Starts the program; a kro_err::Error says why it could not be started.
    void Run();

    // Waits for the end: the exit status, or 128 + the signal that ended it. -1 when never run.
    int Result();

    // Waits for the end for at most this long; true when the child has ended, or never ran.
    bool Wait(int milliseconds);

    // Sends a signal to a child that has not been waited for; to no other process.
    void Signal(int number) const noexcept;

    pid_t pid() const noexcept { return pid_; }

  private:
    [[noreturn]] void RunChild(char* const* argv, char* const* environment,
                               int report) const noexcept;
    bool HasEnded() noexcept;

    std::vector<std::string> arguments_;
    std::vector<std::string> environment_changes_;
    bool leave_terminal_ = false;
    ResHandle in_;
    ResHandle out_;
    ResHandle err_;
    pid_t pid_ = -1;
    int result_ = -1;
};

// From now on SIGTERM and SIGINT do not end the process: the returned descriptor becomes readable
// when one arrives. To be called before the process has a second thread. Children started by
// Execute do not inherit this.
ResHandle WatchTermination();

}  // namespace kro_proc
