// The log: one line per message in a file that several processes share.
//
// A line reads "2026-11-20 16:06:18.123 [PID:TID] PROGRAM MODULE LEVEL: TEXT" and is written with
// one append. Control characters of the text are written escaped ("\n"), so a message never makes
// two lines. Levels: 3 errors, 4 survived warnings, 5 facts about commands, 6 and 7 detail, 8
// trace, 9 buffers. Threads may log at the same time.
#pragma once

#include <string>

namespace kro_log {

// Logs to var/PROGRAM.log below the current directory from now on (created with mode 0600 at the
// first line), messages of `level` and more important ones. KRO_LOG_LEVEL in the environment can
// raise the level, not lower it. A file that was rotated away is noticed and made anew; a log that
// cannot be written is given up line by line, never an error.
void Init(const std::string& program, int level);

// Closes the file. The next Init opens it again; messages in between are lost.
void Close() noexcept;

bool Enabled(int level) noexcept;

// A source of messages, named in every line.
class Module {
  public:
    explicit constexpr Module(const char* name) noexcept : name_(name) {}

    // Logs a printf-formatted message when `level` is enabled.
    [[gnu::format(printf, 3, 4)]] void Write(int level, const char* format, ...) const noexcept;

    // Logs a text as it stands.
    void Text(int level, const std::string& text) const noexcept;

  private:
    const char* name_;
};

}  // namespace kro_log

// Asks for the level first, so that a message that nobody reads costs neither formatting nor its
// arguments.
#define KRO_LOG(module, level, ...)                                      \
    do {                                                                 \
        if (kro_log::Enabled(level)) (module).Write(level, __VA_ARGS__); \
    } while (false)
