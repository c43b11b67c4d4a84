// Writes and reads the events file.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "kro/res_handle.h"
#include "quarn2_cp2_event.h"

inline constexpr const char* kEventsPath = "var/quarn2_cp.events";

// Appends events to the events file. Several processes and threads may append at the same time.
// Each event is one write of a complete line. After a rotation of the file, the next event creates
// a new file, with mode 0600.
class EventLog {
  public:
    explicit EventLog(std::string path = kEventsPath) : path_(std::move(path)) {}

    // Sets the event's time to the current time and appends the event. An event that cannot be
    // written is lost: the first such failure is logged at level 4, later ones are not.
    void Append(Event event) noexcept;

    // Closes the file. The next event opens it again. A process must call this before it closes
    // descriptors that it does not own, because the descriptor's number could be reused for
    // another file.
    void Close() noexcept;

  private:
    // Opens the file, unless it is open and still at its path. Returns its size in bytes.
    off_t OpenCurrent();
    void Write(const std::string& line);
    void LogFailure(const char* reason) noexcept;

    std::string path_;
    std::mutex mutex_;
    ResHandle handle_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    // The size of the file after the last event of this object. While the size is the same, the
    // file ends with a line end.
    off_t end_ = 0;
    std::atomic<bool> has_failed_{false};
};

// Selects events. An empty `since` or `user`, and a `storage` without a value, select all.
struct EventFilter {
    std::string since;  // YYYY-MM-DD: the first local day
    std::string user;
    std::optional<std::string> storage = {};  // "" selects the events of the common storage
};

// A line that is not an event.
struct BrokenLine {
    std::string path;
    std::int64_t number = 0;  // in this file, from 1; 0: the file cannot be read at all
    std::string reason;
};

using OnEvent = std::function<void(const Event&)>;
using OnBrokenLine = std::function<void(const BrokenLine&)>;

// Passes the selected events to `on_event`, in the order of the files: first the rotated file
// PATH.1, if there is one, then PATH. Reads in constant memory. Reports each broken line and skips
// it. Ignores empty lines, and a last line of PATH without a line end, because a process may be
// writing it. Reports a rotated file that cannot be read, or could have been written by another
// user, as a broken line with the number 0. Throws kro_err::Error when PATH itself cannot be read
// or could have been written by another user, and when `since` is not a date. A missing file has no
// events.
void ReadEvents(const std::string& path, const EventFilter& filter, const OnEvent& on_event,
                const OnBrokenLine& on_broken);
