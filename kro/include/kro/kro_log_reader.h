// Reads lines of the log. kro_log.cpp contains both the reader and the writer, so that only one
// file depends on the line format.
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
    std::string text;  // as in the file: control characters are escaped
};

// Parses one log line, given without its line feed. Returns nothing when the text is not a log
// line.
std::optional<Line> ParseLine(const std::string& line);

// A position in the log file that the last call of Init opened.
class Bookmark {
  public:
    // Points to the current end of the log.
    Bookmark();

    // The complete lines that the process has written after this position, the oldest first. Reads
    // at most the last 256 KiB of the log. Returns nothing when the log was replaced or truncated
    // meanwhile, or cannot be read.
    std::vector<Line> LinesOf(pid_t process) const;

  private:
    std::string path_;
    // All three are 0 when the log file did not exist. Then every line of a log file that is
    // created later counts as written after this position.
    dev_t device_ = 0;
    ino_t inode_ = 0;
    off_t size_ = 0;
};

}  // namespace kro_log
