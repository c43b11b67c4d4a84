// Connects standard error to a terminal during the lifetime of this object.
#pragma once

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "kro/kro_proc.h"
#include "kro/res_handle.h"

class Terminal {
  public:
    Terminal() : master_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
        if (!master_ || grantpt(master_) != 0 || unlockpt(master_) != 0) {
            throw std::runtime_error("no terminal to be had");
        }
        slave_ = ResHandle(open(ptsname(master_), O_RDWR | O_NOCTTY | O_CLOEXEC));
        termios raw{};
        tcgetattr(slave_, &raw);
        cfmakeraw(&raw);
        tcsetattr(slave_, TCSANOW, &raw);
        std::fflush(stderr);
        dup2(slave_, STDERR_FILENO);
        kro_proc::SetNonBlocking(master_);
    }
    ~Terminal() {
        std::fflush(stderr);
        dup2(before_, STDERR_FILENO);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    // Returns the text that was printed since the last call.
    std::string Printed() const {
        std::fflush(stderr);
        std::string text;
        char piece[1024];
        for (ssize_t got = read(master_, piece, sizeof piece); got > 0;
             got = read(master_, piece, sizeof piece)) {
            text.append(piece, static_cast<std::size_t>(got));
        }
        return text;
    }

  private:
    ResHandle before_ = ResHandle(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
    ResHandle master_;
    ResHandle slave_;
};
