// Child processes for tests that need a second process.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <stdexcept>
#include <string>

#include "kro/kro_proc.h"

// Lets a process wait until another process opens the gate.
class Gate {
  public:
    Gate() : pipe_(kro_proc::Pipe()) {}

    void Open() const {
        if (::write(pipe_.second, "x", 1) != 1) throw std::runtime_error("Gate::Open failed");
    }
    void Wait() const {
        char c = 0;
        if (::read(pipe_.first, &c, 1) != 1) throw std::runtime_error("Gate::Wait failed");
    }

  private:
    std::pair<ResHandle, ResHandle> pipe_;
};

// A forked child that runs the body. It exits with 0, or with 1 if the body throws.
class Child {
  public:
    explicit Child(const std::function<void()>& body) : pid_(::fork()) {
        if (pid_ < 0) throw std::runtime_error("fork failed");
        if (pid_ == 0) Run(body);
    }
    ~Child() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            Wait();
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Waits for the end of the child. Returns its exit status, or 128 + the signal.
    int Wait() {
        int status = 0;
        if (::waitpid(pid_, &status, 0) != pid_) throw std::runtime_error("waitpid failed");
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    void Kill() const { ::kill(pid_, SIGKILL); }

    // Returns true if the child has not ended after a short pause. The pause is long enough for a
    // child that is not blocked to end.
    bool StillRuns() const {
        kro_proc::Sleep(150);
        siginfo_t info{};
        return ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid == 0;
    }

  private:
    [[noreturn]] static void Run(const std::function<void()>& body) {
        try {
            body();
            ::_exit(0);
        } catch (...) {
            ::_exit(1);
        }
    }

    pid_t pid_;
};
