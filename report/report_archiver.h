// A running program that tests an archive.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kro/kro_clock.h"
#include "kro/kro_proc.h"
#include "kro/res_handle.h"

// Runs the program without a shell, without a terminal, and without the storage token in its
// environment. Kills the program when it makes no progress for `idle_timeout`: when it neither
// reads its input nor writes a message nor requests a slice. The destructor kills a program that
// still runs.
class Archiver {
  public:
    // A program without progress for this time is considered hung. The time is sufficient to test a
    // slice of 100 GB, which can be one step of progress.
    static constexpr std::chrono::minutes kIdleTimeout{30};

    struct Settings {
        std::vector<std::string> command;      // the first word is the path of the program
        std::vector<std::string> environment;  // NAME=VALUE
        std::chrono::milliseconds idle_timeout = kIdleTimeout;
    };
    struct Result {
        int status = 0;         // the exit status, or 128 + the signal
        bool was_hung = false;  // the program was killed
        std::string message;    // the last line that the program wrote
    };

    // Starts the program. Throws kro_err::Error when it cannot be started.
    explicit Archiver(const Settings& settings);
    ~Archiver();
    Archiver(const Archiver&) = delete;
    Archiver& operator=(const Archiver&) = delete;

    // Writes the content of the file to the standard input of the program. Returns false when the
    // program reads no more, because it has ended or was killed.
    bool Feed(const std::string& path);

    // Waits for a line on `requests`, which must be non-blocking. Returns nothing when the program
    // has ended or was killed.
    std::optional<std::string> NextLine(int requests);

    // Waits for the end of the program.
    Result Finish();

  private:
    enum class Event { kReady, kEnded };

    // Waits until the descriptor is ready for these poll events, and collects messages meanwhile.
    Event WaitFor(int fd, short events);
    bool Write(std::string_view bytes);
    void ReadMessages();
    void Kill();
    Event KillHung();
    void ExtendDeadline() { deadline_ = kro_date::SteadyClock::now() + idle_timeout_; }

    kro_proc::Execute program_;
    std::chrono::milliseconds idle_timeout_;
    kro_date::SteadyClock::time_point deadline_;
    ResHandle input_;
    ResHandle messages_;  // closed when the program has ended
    std::string text_;    // the end of the messages
    std::string line_;    // the beginning of the next request
    bool was_hung_ = false;
};
