// Child processes, pipes, signals and waiting.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

#include "kro/kro_clock.h"
#include "kro/res_handle.h"

namespace kro_proc {

// Creates a pipe and returns its read side and write side, both close-on-exec.
std::pair<ResHandle, ResHandle> Pipe();

void SetNonBlocking(int fd);

// A child process that runs another program. The child inherits only its standard descriptors. It
// starts with an empty signal mask and the default actions of SIGPIPE, SIGXFSZ, SIGTERM, SIGINT and
// SIGCHLD.
class Execute {
  public:
    explicit Execute(std::vector<std::string> arguments);
    // Neither waits for a running child nor terminates the child.
    ~Execute() = default;
    Execute(const Execute&) = delete;
    Execute& operator=(const Execute&) = delete;

    // Makes `fd` the child's standard input (output, error output). After the fork, Run releases
    // this object's copy of `fd`.
    void RedirectInTo(ResHandle fd);
    void RedirectOutTo(ResHandle fd);

    void RedirectErrTo(ResHandle fd);

    // Starts the child in a new session without a terminal, so that the child cannot prompt the
    // user.
    void LeaveTerminal() noexcept { leave_terminal_ = true; }

    // The child gets this process's environment with these changes: NAME=VALUE sets a variable,
    // NAME removes one.
    void ChangeEnvironment(std::vector<std::string> changes);

    // Starts the program. Throws kro_err::Error with the reason when it cannot be started.
    void Run();

    // Waits until the child has ended. Returns its exit status, or 128 + the signal that ended it,
    // or -1 when Run was never called.
    int Result();

    // Waits up to `milliseconds` for the child to end. Returns true when the child has ended or was
    // never started.
    bool Wait(int milliseconds);

    // Sends a signal to the child. Does nothing when the child was not started, or when its end was
    // already detected.
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

// Blocks SIGTERM and SIGINT for the process and returns a descriptor that becomes readable when one
// of them arrives. Must be called before the process has a second thread. Children started by
// Execute do not inherit the blocked signals.
ResHandle WatchTermination();

}  // namespace kro_proc
