// Reads the log back. The line format is known only to the file that writes it.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kro_log {

struct Line {
    pid_t process = 0;
    pid_t thread = 0;
    int level = 0;
    std::string text;  // as it is in the file: control characters are escaped
};

// A line without its line feed; nothing when it is no line of a log.
std::optional<Line> ParseLine(const std::string& line);

// A position in the log that Init names.
class Bookmark {
  public:
    // At the present end of the log.
    Bookmark();

    // The complete lines that the process has written after this position, the oldest first. Only
    // the last 256 KiB are read. Nothing when the log was replaced or shortened meanwhile, or
    // cannot be read.
    std::vector<Line> LinesOf(pid_t process) const;

  private:
    std::string path_;
    // All zero for a log that did not exist: every line of a later one comes after this position.
    dev_t device_ = 0;
    ino_t inode_ = 0;
    off_t size_ = 0;
};

}  // namespace kro_log
