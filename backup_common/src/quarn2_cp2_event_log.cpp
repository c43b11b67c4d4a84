#include "quarn2_cp2_event_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "kro/kro_clock.h"
#include "kro/kro_err.h"
#include "kro/kro_log.h"
#include "quarn2_cp2_event_file.h"

namespace {

constexpr kro_log::Module kLog("main");

// True when the previous write was interrupted, so that the file ends within a line. False when the
// last byte cannot be read. Then the next line is appended without a line end before it.
bool EndsWithinLine(int fd, off_t size) noexcept {
    char last = '\n';
    return size > 0 && ::pread(fd, &last, 1, size - 1) == 1 && last != '\n';
}

}  // namespace

void EventLog::Append(Event event) noexcept {
    const int error_of_caller = errno;
    try {
        const std::lock_guard<std::mutex> section(mutex_);
        event.time = kro_date::SystemNowMs();
        Write(FormatEvent(event) + "\n");
    } catch (const std::exception& error) {
        LogFailure(error.what());
    }
    errno = error_of_caller;
}

void EventLog::Close() noexcept {
    const std::lock_guard<std::mutex> section(mutex_);
    handle_.Reset();
}

off_t EventLog::OpenCurrent() {
    struct stat status {};
    if (handle_ && ::lstat(path_.c_str(), &status) == 0 && status.st_dev == device_ &&
        status.st_ino == inode_) {
        return status.st_size;
    }
    handle_.Reset();
    handle_ = OpenEventFile(path_, O_RDWR | O_APPEND | O_CREAT, status);
    device_ = status.st_dev;
    inode_ = status.st_ino;
    end_ = 0;
    return status.st_size;
}

void EventLog::Write(const std::string& line) {
    const off_t size = OpenCurrent();
    const bool is_within_line = size != end_ && EndsWithinLine(handle_, size);
    const std::string text = is_within_line ? "\n" + line : line;
    ssize_t written = ::write(handle_, text.data(), text.size());
    while (written < 0 && errno == EINTR) written = ::write(handle_, text.data(), text.size());
    if (written < 0) {
        const auto error = kro_err::FromErrno("Failed to write '" + path_ + "'");
        handle_.Reset();
        throw error;
    }
    if (static_cast<std::size_t>(written) < text.size()) {
        throw kro_err::FromErrno("Failed to write '" + path_ + "'", ENOSPC);
    }
    end_ = size + written;
}

void EventLog::LogFailure(const char* reason) noexcept {
    if (has_failed_.exchange(true)) return;
    KRO_LOG(kLog, 4, "Cant write '%s', so this event and possibly later ones are lost. What: %s",
            path_.c_str(), reason);
}
