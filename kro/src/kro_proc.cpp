#include "kro/kro_proc.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <string_view>

#include "fd_io.h"
#include "kro/kro_err.h"
#include "kro/str.h"

namespace kro_proc {

namespace {

using kro_file::NoEintr;

constexpr int kNotExecuted = 127;

// --- Between fork and exec: async-signal-safe calls only ---

void ResetSignals() noexcept {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    for (const int signal : {SIGPIPE, SIGXFSZ, SIGTERM, SIGINT, SIGCHLD}) {
        ::sigaction(signal, &action, nullptr);
    }
    sigset_t none;
    sigemptyset(&none);
    ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

// Duplicates `fd` to a number above 2, so that the redirection of a standard descriptor does not
// overwrite it. Returns -1 when `fd` is -1.
int OutOfTheWay(int fd) noexcept { return fd < 0 ? -1 : ::fcntl(fd, F_DUPFD_CLOEXEC, 3); }

// Makes `fd` the child's standard descriptor `number`. When `fd` is -1, the child inherits this
// process's descriptor. If that descriptor is closed or close-on-exec, opens /dev/null instead, so
// that a file that the child opens later does not get the number.
bool SetStandard(int number, int fd, int flags) noexcept {
    if (fd >= 0) return NoEintr([&]() noexcept { return ::dup2(fd, number); }) == number;
    const int state = ::fcntl(number, F_GETFD);
    if (state >= 0 && (state & FD_CLOEXEC) == 0) return true;
    const int null = NoEintr([&]() noexcept { return ::open("/dev/null", flags); });
    if (null < 0 || null == number) return null == number;
    const bool set = ::dup2(null, number) == number;
    ::close(null);
    return set;
}

// --- In the parent ---

// The errno that the child reported; 0 when the exec succeeded.
int ReadReport(int fd) noexcept {
    int error = 0;
    const ssize_t got = NoEintr([&]() noexcept { return ::read(fd, &error, sizeof error); });
    return got == static_cast<ssize_t>(sizeof error) ? error : 0;
}

int StatusOf(int status) noexcept {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string_view NameOf(std::string_view entry) noexcept {
    return entry.substr(0, entry.find('='));
}

// A copy of this process's environment with the changes applied.
std::vector<std::string> ChangedEnvironment(const std::vector<std::string>& changes) {
    std::vector<std::string> entries;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string_view name = NameOf(*entry);
        const bool changed =
            std::any_of(changes.begin(), changes.end(),
                        [name](const std::string& change) { return NameOf(change) == name; });
        if (!changed) entries.emplace_back(*entry);
    }
    std::copy_if(changes.begin(), changes.end(), std::back_inserter(entries),
                 [](const std::string& change) { return change.find('=') != change.npos; });
    return entries;
}

// A null-terminated array of pointers for exec. It points into `texts`.
std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace

std::pair<ResHandle, ResHandle> Pipe() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) throw kro_err::FromErrno("Failed to make a pipe");
    ResHandle read(fds[0]);
    return {std::move(read), ResHandle(fds[1])};
}

void SetNonBlocking(int fd) {
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
        throw kro_err::FromErrno("Failed to make a descriptor non-blocking");
    }
}

Execute::Execute(std::vector<std::string> arguments) : arguments_(std::move(arguments)) {}

void Execute::RedirectInTo(ResHandle fd) { in_ = std::move(fd); }

void Execute::RedirectOutTo(ResHandle fd) { out_ = std::move(fd); }

void Execute::RedirectErrTo(ResHandle fd) { err_ = std::move(fd); }

void Execute::ChangeEnvironment(std::vector<std::string> changes) {
    environment_changes_ = std::move(changes);
}

void Execute::RunChild(char* const* argv, char* const* environment, int report) const noexcept {
    ResetSignals();
    if (leave_terminal_) ::setsid();
    const int in = OutOfTheWay(in_);
    const int out = OutOfTheWay(out_);
    const int err = OutOfTheWay(err_);
    const int answer = OutOfTheWay(report);
    if (in >= (in_ ? 0 : -1) && out >= (out_ ? 0 : -1) && err >= (err_ ? 0 : -1) &&
        SetStandard(0, in, O_RDONLY) && SetStandard(1, out, O_WRONLY) &&
        SetStandard(2, err, O_WRONLY)) {
        // Descriptors that this process inherited may lack the close-on-exec flag.
        ::close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
        ::execvpe(argv[0], argv, environment);
    }
    const int error = errno;
    const ssize_t told = NoEintr([&]() noexcept { return ::write(answer, &error, sizeof error); });
    ::_exit(told < 0 ? kNotExecuted - 1 : kNotExecuted);
}

void Execute::Run() {
    if (arguments_.empty()) throw kro_err::Error(kro_err::Kind::kFailed, "No program to start");
    const std::vector<char*> argv = Pointers(arguments_);
    std::vector<std::string> entries = ChangedEnvironment(environment_changes_);
    const std::vector<char*> environment = Pointers(entries);

    auto [report, answer] = Pipe();
    result_ = -1;
    pid_ = ::fork();
    if (pid_ == 0) RunChild(argv.data(), environment.data(), answer);
    if (pid_ < 0) throw kro_err::FromErrno("Failed to start " + str::Quoted(arguments_[0]));
    answer.Reset();
    in_.Reset();
    out_.Reset();
    err_.Reset();
    if (const int error = ReadReport(report); error != 0) {
        Result();
        pid_ = -1;
        result_ = -1;
        throw kro_err::FromErrno("Failed to start " + str::Quoted(arguments_[0]), error);
    }
}

int Execute::Result() {
    if (pid_ < 0 || result_ >= 0) return result_;
    int status = 0;
    if (NoEintr([&] { return ::waitpid(pid_, &status, 0); }) < 0) {
        throw kro_err::FromErrno("Failed to wait for " + str::Quoted(arguments_[0]));
    }
    result_ = StatusOf(status);
    return result_;
}

bool Execute::Wait(int milliseconds) {
    if (HasEnded()) return true;
    if (milliseconds <= 0) return false;
    const ResHandle child(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
    if (!child) throw kro_err::FromErrno("Failed to watch " + str::Quoted(arguments_[0]));
    pollfd state{child, POLLIN, 0};
    NoEintr([&] { return ::poll(&state, 1, milliseconds); });
    return HasEnded();
}

bool Execute::HasEnded() noexcept {
    if (pid_ < 0 || result_ >= 0) return true;
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) != pid_) return false;
    result_ = StatusOf(status);
    return true;
}

void Execute::Signal(int number) const noexcept {
    if (pid_ > 0 && result_ < 0) ::kill(pid_, number);
}

ResHandle WatchTermination() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    if (const int error = ::pthread_sigmask(SIG_BLOCK, &signals, nullptr); error != 0) {
        throw kro_err::FromErrno("Failed to block signals", error);
    }
    const int fd = ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd < 0) throw kro_err::FromErrno("Failed to watch for signals");
    return ResHandle(fd);
}

}  // namespace kro_proc
