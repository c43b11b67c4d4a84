// The log: one line per message in a file that several processes share.
//
// The format of a line is "2026-11-20 16:06:18.123 [PID:TID] PROGRAM MODULE LEVEL: TEXT". Each line
// is written with one append. Control characters of the text are escaped ("\n"), so a message is
// always one line. Levels: 3 errors, 4 warnings after which the command continues, 5 main steps of
// commands, 6 and 7 details, 8 trace of calls, 9 contents of buffers. Threads may log at the same
// time.
#pragma once

#include <string>

namespace kro_log {

// Starts to log messages up to `level` to var/PROGRAM.log below the current directory. The first
// message creates the file with mode 0600. KRO_LOG_LEVEL in the environment can raise the level,
// not lower it. After a rotation of the log, the next message creates a new file. A message that
// cannot be written is lost without an error.
void Init(const std::string& program, int level);

// Closes the log file. Messages before the next Init are lost.
void Close() noexcept;

bool Enabled(int level) noexcept;

// A part of the program that logs messages. Each of its log lines contains its name.
class Module {
  public:
    explicit constexpr Module(const char* name) noexcept : name_(name) {}

    // Logs a printf-formatted message when `level` is enabled.
    [[gnu::format(printf, 3, 4)]] void Write(int level, const char* format, ...) const noexcept;

    // Logs `text` without printf formatting when `level` is enabled.
    void Text(int level, const std::string& text) const noexcept;

  private:
    const char* name_;
};

}  // namespace kro_log

// Logs a message. Checks the level first, so that a disabled message costs neither formatting nor
// the evaluation of its arguments.
#define KRO_LOG(module, level, ...)                                      \
    do {                                                                 \
        if (kro_log::Enabled(level)) (module).Write(level, __VA_ARGS__); \
    } while (false)
