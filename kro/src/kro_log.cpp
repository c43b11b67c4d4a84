#include "kro/kro_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <string_view>

#include "fd_io.h"
#include "kro/kro_clock.h"
#include "kro/kro_env.h"
#include "kro/kro_file.h"
#include "kro/kro_log_reader.h"
#include "kro/res_handle.h"
#include "kro/str.h"

namespace kro_log {

namespace {

constexpr int kClosed = INT_MIN;

std::atomic<int> current_level{kClosed};

struct State {
    std::mutex mutex;
    std::string program;
    std::string path;
    int fd = -1;
};

// The object is never destroyed, because threads and destructors of other objects may log until the
// process exits.
State& TheState() {
    static State& state = *new State;
    return state;
}

// Restores errno at the end of the scope, because callers log between a failed call and the check
// of its errno.
class KeepErrno {
  public:
    KeepErrno() noexcept : error_(errno) {}
    ~KeepErrno() { errno = error_; }
    KeepErrno(const KeepErrno&) = delete;
    KeepErrno& operator=(const KeepErrno&) = delete;

  private:
    int error_;
};

void CloseFile(State& state) noexcept {
    if (state.fd >= 0) ::close(state.fd);
    state.fd = -1;
}

// True for a plain file without a second hard link.
bool IsLogFile(int fd) noexcept {
    struct stat status {};
    return ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink <= 1;
}

// Opens the log file at the path, or creates it when it is missing. After a rotation, closes the
// rotated file first.
bool OpenFile(State& state) {
    struct stat named {};
    struct stat open {};
    if (state.fd >= 0 && ::stat(state.path.c_str(), &named) == 0 && ::fstat(state.fd, &open) == 0 &&
        named.st_ino == open.st_ino && named.st_dev == open.st_dev) {
        return true;
    }
    CloseFile(state);
    // With O_NONBLOCK, the open of a named pipe without a reader fails instead of blocking.
    constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_NOCTTY | O_NONBLOCK;
    state.fd = kro_file::OpenFd(state.path, kFlags | O_NOFOLLOW, 0600);
    // Follows a symbolic link of root or this user: an administrator may have moved the log. A link
    // of another user could redirect root's writes to any file.
    if (state.fd < 0 && errno == ELOOP && !kro_file::IsForeignLink(state.path)) {
        state.fd = kro_file::OpenFd(state.path, kFlags, 0600);
    }
    if (state.fd >= 0 && !IsLogFile(state.fd)) CloseFile(state);
    return state.fd >= 0;
}

void AppendEscaped(std::string& line, char c) {
    const auto code = static_cast<unsigned char>(c);
    if (code >= 0x20 && code != 0x7f) {
        line += c;
    } else if (c == '\n') {
        line += "\\n";
    } else if (c == '\r') {
        line += "\\r";
    } else if (c == '\t') {
        line += "\\t";
    } else {
        char text[8];
        std::snprintf(text, sizeof text, "\\x%02x", static_cast<unsigned>(code));
        line += text;
    }
}

// The beginning of a log line: "2026-11-20 16:06:18.123 [PID:TID] ".
std::string Prefix() {
    constexpr std::int64_t kMsPerSecond = 1000;
    const std::int64_t now = kro_date::SystemNowMs();
    const std::time_t seconds = now / kMsPerSecond;
    std::tm civil{};
    localtime_r(&seconds, &civil);
    char text[128];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03ld [%d:%d] ",
                  civil.tm_year + 1900, civil.tm_mon + 1, civil.tm_mday, civil.tm_hour,
                  civil.tm_min, civil.tm_sec, static_cast<long>(now % kMsPerSecond), ::getpid(),
                  ::gettid());
    return text;
}

void WriteLine(const char* module, int level, std::string_view text) {
    State& state = TheState();
    const std::lock_guard<std::mutex> section(state.mutex);
    if (!Enabled(level) || !OpenFile(state)) return;
    std::string line = Prefix();
    line.reserve(line.size() + text.size() + 64);
    line.append(state.program).append(" ").append(module).append(" ").append(str::Str(level));
    line += ": ";
    for (const char c : text) AppendEscaped(line, c);
    line += '\n';
    // Writes the line with one call, so that the lines of several processes do not interleave. When
    // the disk is full, the rest of the line is lost.
    const ssize_t written =
        kro_file::NoEintr([&] { return ::write(state.fd, line.data(), line.size()); });
    if (written < 0) CloseFile(state);
}

std::string Formatted(const char* format, va_list arguments) __attribute__((format(printf, 1, 0)));

std::string Formatted(const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    char buffer[1024];
    const int size = std::vsnprintf(buffer, sizeof buffer, format, arguments);
    std::string text(buffer, static_cast<std::size_t>(std::clamp(size, 0, 1023)));
    if (size > 1023) {
        text.resize(static_cast<std::size_t>(size));
        std::vsnprintf(text.data(), text.size() + 1, format, again);
    }
    va_end(again);
    return text;
}

int LevelFromEnvironment() {
    const std::string text = kro_env::GetEnv("KRO_LOG_LEVEL");
    try {
        return str::Int(text);
    } catch (const std::exception&) {
        return 0;
    }
}

}  // namespace

void Init(const std::string& program, int level) {
    State& state = TheState();
    const std::lock_guard<std::mutex> section(state.mutex);
    CloseFile(state);
    state.program = program;
    state.path = "var/" + program + ".log";
    current_level = std::max(level, LevelFromEnvironment());
}

void Close() noexcept {
    State& state = TheState();
    const std::lock_guard<std::mutex> section(state.mutex);
    current_level = kClosed;
    CloseFile(state);
}

bool Enabled(int level) noexcept { return level <= current_level.load(std::memory_order_relaxed); }

void Module::Write(int level, const char* format, ...) const noexcept {
    const KeepErrno keep;
    if (!Enabled(level)) return;
    va_list arguments;
    va_start(arguments, format);
    try {
        WriteLine(name_, level, Formatted(format, arguments));
    } catch (const std::exception&) {
        // When memory is exhausted, the message is lost, as on a full disk.
    }
    va_end(arguments);
}

void Module::Text(int level, const std::string& text) const noexcept {
    const KeepErrno keep;
    if (!Enabled(level)) return;
    try {
        WriteLine(name_, level, text);
    } catch (const std::exception&) {
        // When memory is exhausted, the message is lost.
    }
}

namespace {

constexpr off_t kMaxReadBack = 256L * 1024;

// The bytes from `begin` to `end`. Returns fewer bytes when the file cannot be read up to `end`.
std::string ReadFrom(int fd, off_t begin, off_t end) {
    std::string text(static_cast<std::size_t>(end - begin), '\0');
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t count = kro_file::NoEintr([&] {
            return ::pread(fd, text.data() + done, text.size() - done,
                           begin + static_cast<off_t>(done));
        });
        if (count <= 0) break;
        done += static_cast<std::size_t>(count);
    }
    text.resize(done);
    return text;
}

std::vector<Line> CompleteLinesOf(pid_t process, std::string_view text) {
    std::vector<Line> lines;
    for (std::size_t end = text.find('\n'); end != text.npos; end = text.find('\n')) {
        std::optional<Line> line = ParseLine(std::string(text.substr(0, end)));
        if (line && line->process == process) lines.push_back(std::move(*line));
        text.remove_prefix(end + 1);
    }
    return lines;
}

ResHandle OpenToRead(const std::string& path) {
    if (path.empty() || kro_file::IsForeignLink(path)) return {};
    return ResHandle(kro_file::OpenFd(path, O_RDONLY | O_NOCTTY | O_NONBLOCK));
}

}  // namespace

std::optional<Line> ParseLine(const std::string& line) {
    Line parsed;
    int text_at = 0;
    const int fields =
        std::sscanf(  // NOLINT(cert-err34-c): a number out of range is no line of ours
            line.c_str(), "%*4d-%*2d-%*2d %*2d:%*2d:%*2d.%*3d [%d:%d] %*s %*s %d:%n",
            &parsed.process, &parsed.thread, &parsed.level, &text_at);
    const auto at = static_cast<std::size_t>(text_at);
    if (fields != 3 || at == 0 || at >= line.size()) return std::nullopt;
    parsed.text = line.substr(at + 1);
    return parsed;
}

Bookmark::Bookmark() {
    {
        State& state = TheState();
        const std::lock_guard<std::mutex> section(state.mutex);
        path_ = state.path;
    }
    struct stat status {};
    if (path_.empty() || ::stat(path_.c_str(), &status) != 0) return;
    device_ = status.st_dev;
    inode_ = status.st_ino;
    size_ = status.st_size;
}

std::vector<Line> Bookmark::LinesOf(pid_t process) const {
    const ResHandle file = OpenToRead(path_);
    struct stat status {};
    if (!file || ::fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) return {};
    const bool same = status.st_dev == device_ && status.st_ino == inode_;
    if ((inode_ != 0 && !same) || status.st_size < size_) return {};
    const off_t begin = std::max(size_, status.st_size - kMaxReadBack);
    std::string text = ReadFrom(file, begin, status.st_size);
    // Drops the first line, because its beginning may be missing.
    if (begin > size_) text.erase(0, std::min(text.find('\n'), text.size()));
    return CompleteLinesOf(process, text);
}

}  // namespace kro_log
