#include "report_archiver.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "kro/kro_err.h"
#include "kro/str.h"

namespace {

constexpr std::size_t kMaxMessages = 4096;
constexpr std::size_t kBufferSize = 64UL * 1024;

std::string LastLine(std::string_view text) {
    while (!text.empty()) {
        const std::size_t start = text.rfind('\n');
        const std::string_view line = start == text.npos ? text : text.substr(start + 1);
        if (!str::Trimmed(line).empty()) return std::string(str::Trimmed(line));
        text = start == text.npos ? std::string_view() : text.substr(0, start);
    }
    return {};
}

ResHandle Duplicate(int fd) {
    ResHandle copy(fcntl(fd, F_DUPFD_CLOEXEC, 3));
    if (!copy) throw kro_err::FromErrno("Failed to duplicate a descriptor");
    return copy;
}

// Variables that contain options of the programs, or the storage token.
const std::vector<std::string>& Removed() {
    static const std::vector<std::string> names = {"BACKUP_TOKEN", "DAR_DUC_PATH", "GZIP",  "UNZIP",
                                                   "UNZIPOPT",     "XZ_DEFAULTS",  "XZ_OPT"};
    return names;
}

}  // namespace

Archiver::Archiver(const Settings& settings)
    : program_(settings.command), idle_timeout_(settings.idle_timeout) {
    auto [input_read, input_write] = kro_proc::Pipe();
    auto [messages_read, messages_write] = kro_proc::Pipe();
    std::vector<std::string> environment = Removed();
    environment.emplace_back("LC_ALL=C");
    environment.insert(environment.end(), settings.environment.begin(), settings.environment.end());
    program_.ChangeEnvironment(std::move(environment));
    program_.RedirectInTo(std::move(input_read));
    program_.RedirectOutTo(Duplicate(messages_write));
    program_.RedirectErrTo(std::move(messages_write));
    program_.LeaveTerminal();
    kro_proc::SetNonBlocking(input_write);
    kro_proc::SetNonBlocking(messages_read);
    input_ = std::move(input_write);
    messages_ = std::move(messages_read);
    program_.Run();
    ExtendDeadline();
}

Archiver::~Archiver() {
    try {
        if (!program_.Wait(0)) Kill();
        program_.Result();
    } catch (const std::exception&) {
        // The program has been killed. The destructor does not wait for it; the init process does
        // when this process has ended.
        return;
    }
}

// Kills the processes that the program has started too, such as the shell in which dar requests a
// slice. The program leads its own session, so its process group contains no other processes.
void Archiver::Kill() { kill(-program_.pid(), SIGKILL); }

Archiver::Event Archiver::KillHung() {
    was_hung_ = true;
    Kill();
    return Event::kEnded;
}

void Archiver::ReadMessages() {
    std::array<char, kMaxMessages> buffer{};
    const ssize_t count = read(messages_, buffer.data(), buffer.size());
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count <= 0) return messages_.Reset();
    ExtendDeadline();
    text_.append(buffer.data(), static_cast<std::size_t>(count));
    if (text_.size() > kMaxMessages) text_.erase(0, text_.size() - kMaxMessages);
}

Archiver::Event Archiver::WaitFor(int fd, short events) {
    while (messages_) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline_ - kro_date::SteadyClock::now());
        std::array<pollfd, 2> states = {pollfd{messages_, POLLIN, 0}, pollfd{fd, events, 0}};
        const int wait = std::max(0, static_cast<int>(left.count()));
        const int count = poll(states.data(), states.size(), wait);
        if (count < 0 && errno != EINTR)
            throw kro_err::FromErrno("Failed to wait for the program that tests the archive");
        if (count == 0) return KillHung();
        if (count < 0) continue;
        if (states[0].revents != 0) ReadMessages();
        if (states[1].revents == 0) continue;
        ExtendDeadline();
        return Event::kReady;
    }
    return Event::kEnded;
}

bool Archiver::Write(std::string_view bytes) {
    while (!bytes.empty()) {
        if (WaitFor(input_, POLLOUT) == Event::kEnded) return false;
        const ssize_t done = write(input_, bytes.data(), bytes.size());
        if (done < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        if (done < 0 && errno == EPIPE) return false;
        if (done < 0)
            throw kro_err::FromErrno("Failed to write to the program that tests the archive");
        bytes.remove_prefix(static_cast<std::size_t>(done));
    }
    return true;
}

bool Archiver::Feed(const std::string& path) {
    const ResHandle file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) throw kro_err::FromErrno("Failed to open '" + path + "'");
    std::vector<char> buffer(kBufferSize);
    // The time of a download does not count for the idle timeout of the archiver.
    ExtendDeadline();
    for (;;) {
        const ssize_t count = read(file, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw kro_err::FromErrno("Failed to read '" + path + "'");
        if (count == 0) return true;
        if (!Write({buffer.data(), static_cast<std::size_t>(count)})) return false;
    }
}

std::optional<std::string> Archiver::NextLine(int requests) {
    ExtendDeadline();
    for (;;) {
        const std::size_t end = line_.find('\n');
        if (end != line_.npos) {
            std::string line = line_.substr(0, end);
            line_.erase(0, end + 1);
            return line;
        }
        if (WaitFor(requests, POLLIN) == Event::kEnded) return std::nullopt;
        std::array<char, 64> buffer{};
        const ssize_t count = read(requests, buffer.data(), buffer.size());
        if (count > 0) line_.append(buffer.data(), static_cast<std::size_t>(count));
        if (line_.size() > kMaxMessages) return std::nullopt;
    }
}

Archiver::Result Archiver::Finish() {
    input_.Close();
    ExtendDeadline();
    constexpr int kNoDescriptor = -1;  // poll ignores a negative descriptor
    WaitFor(kNoDescriptor, 0);
    // The program has closed its output or was killed, so it will end soon.
    if (!was_hung_ && !program_.Wait(static_cast<int>(idle_timeout_.count()))) KillHung();
    const int status = program_.Result();
    return {status, was_hung_, LastLine(text_)};
}
