#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string_view>
#include <vector>

#include "kro/kro_date.h"
#include "kro/kro_err.h"
#include "quarn2_cp2_event_file.h"
#include "quarn2_cp2_event_log.h"

namespace {

// The longest line that is parsed. FormatEvent writes less than half of it.
constexpr std::size_t kMaxLine = 64UL * 1024;

// Reads the lines of a file in constant memory.
class LineReader {
  public:
    LineReader(const ResHandle& handle, const std::string& path)
        : handle_(handle), path_(path), buffer_(kMaxLine) {}

    struct Line {
        std::string_view text;     // valid until the next call
        bool is_too_long = false;  // then `text` is empty
        bool is_ended = true;      // false for a last line without a line end
    };

    // The next line, or nothing at the end of the file.
    std::optional<Line> Next() {
        bool is_too_long = false;
        for (;;) {
            const auto begin = buffer_.begin() + begin_;
            const auto end = std::find(begin, buffer_.begin() + end_, '\n');
            if (end != buffer_.begin() + end_) return Take(end - begin, 1, is_too_long);
            if (end_ - begin_ == static_cast<std::ptrdiff_t>(buffer_.size())) {
                is_too_long = true;
                begin_ = end_;
            }
            if (Fill()) continue;
            if (begin_ == end_ && !is_too_long) return std::nullopt;
            return Take(end_ - begin_, 0, is_too_long);
        }
    }

  private:
    // Consumes the line and `line_end` bytes of its line end.
    Line Take(std::ptrdiff_t size, std::ptrdiff_t line_end, bool is_too_long) {
        const std::string_view text(buffer_.data() + begin_, static_cast<std::size_t>(size));
        begin_ += size + line_end;
        return {is_too_long ? std::string_view() : text, is_too_long, line_end > 0};
    }

    // Moves the rest to the front of the buffer and reads more. Returns false at the end of the
    // file.
    bool Fill() {
        std::copy(buffer_.begin() + begin_, buffer_.begin() + end_, buffer_.begin());
        end_ -= begin_;
        begin_ = 0;
        const std::size_t room = buffer_.size() - static_cast<std::size_t>(end_);
        ssize_t got = ::read(handle_, buffer_.data() + end_, room);
        while (got < 0 && errno == EINTR) got = ::read(handle_, buffer_.data() + end_, room);
        if (got < 0) throw kro_err::FromErrno("Failed to read '" + path_ + "'");
        end_ += got;
        return got > 0;
    }

    const ResHandle& handle_;
    const std::string& path_;
    std::vector<char> buffer_;
    std::ptrdiff_t begin_ = 0;
    std::ptrdiff_t end_ = 0;
};

struct EventFile {
    std::string path;
    ResHandle handle;
    bool is_current = true;  // a process may be writing its last line
};

// An empty handle for a missing file.
ResHandle OpenIfPresent(const std::string& path) {
    try {
        struct stat status {};
        return OpenEventFile(path, O_RDONLY, status);
    } catch (const kro_err::Error& error) {
        if (error.kind() == kro_err::Kind::kNotFound) return {};
        throw;
    }
}

// Like OpenIfPresent, but sets `fault` instead of throwing.
ResHandle TryOpen(const std::string& path, std::string& fault) {
    fault.clear();
    try {
        return OpenIfPresent(path);
    } catch (const kro_err::Error& error) {
        fault = error.what();
        return {};
    }
}

bool IsSameFile(int fd, const std::string& path) noexcept {
    struct stat open {};
    struct stat named {};
    if (fd < 0) return ::lstat(path.c_str(), &named) != 0;
    return ::fstat(fd, &open) == 0 && ::lstat(path.c_str(), &named) == 0 &&
           open.st_dev == named.st_dev && open.st_ino == named.st_ino;
}

// Opens both files. Opens them again when the current file was rotated meanwhile, because its
// events would be missing, or read twice.
std::vector<EventFile> OpenFiles(const std::string& path, const OnBrokenLine& on_broken) {
    constexpr int kAttempts = 10;
    const std::string rotated_path = path + ".1";
    std::vector<EventFile> files;
    std::string fault;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        files = {{rotated_path, TryOpen(rotated_path, fault), false},
                 {path, OpenIfPresent(path), true}};
        if (IsSameFile(files[0].handle, rotated_path)) break;
    }
    if (!fault.empty()) on_broken({rotated_path, 0, fault});
    std::erase_if(files, [](const EventFile& file) { return !file.handle; });
    return files;
}

// Sets `reason` when the text is not an event.
std::optional<Event> TryParse(std::string_view text, std::string& reason) {
    try {
        return ParseEvent(text);
    } catch (const kro_err::Error& error) {
        reason = error.what();
        return std::nullopt;
    }
}

// Passes on the events of one file.
class FileScan {
  public:
    FileScan(const EventFile& file, const EventFilter& filter, const OnEvent& on_event,
             const OnBrokenLine& on_broken)
        : file_(file), filter_(filter), on_event_(on_event), on_broken_(on_broken) {}

    void Run() {
        LineReader reader(file_.handle, file_.path);
        while (const auto line = reader.Next()) {
            ++number_;
            if (line->is_too_long) {
                ReportBroken("the line is too long");
            } else if (!line->text.empty()) {
                Parse(line->text, file_.is_current && !line->is_ended);
            }
        }
    }

  private:
    void Parse(std::string_view text, bool may_be_unfinished) {
        std::string reason;
        std::optional<Event> event = TryParse(text, reason);
        if (!event && may_be_unfinished) return;
        if (!event) {
            ReportBroken(reason);
            event = TryParse(EventBehindFragment(text), reason);
        }
        if (event) PassOn(*event);
    }

    void PassOn(const Event& event) const {
        if (!filter_.user.empty() && event.user != filter_.user) return;
        if (filter_.storage && event.storage != *filter_.storage) return;
        if (!filter_.since.empty() && DateOfDay(EventDay(event.time)) < filter_.since) return;
        on_event_(event);
    }

    void ReportBroken(const std::string& reason) const {
        on_broken_({file_.path, number_, reason});
    }

    const EventFile& file_;
    const EventFilter& filter_;
    const OnEvent& on_event_;
    const OnBrokenLine& on_broken_;
    std::int64_t number_ = 0;
};

}  // namespace

void ReadEvents(const std::string& path, const EventFilter& filter, const OnEvent& on_event,
                const OnBrokenLine& on_broken) {
    if (!filter.since.empty()) static_cast<void>(kro_date::Date(filter.since));
    for (const EventFile& file : OpenFiles(path, on_broken)) {
        FileScan(file, filter, on_event, on_broken).Run();
    }
}
