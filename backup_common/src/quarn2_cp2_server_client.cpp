#include "quarn2_cp2_server_client.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <utility>

#include "kro/kro_env.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/str.h"

namespace {

using namespace std::chrono_literals;

constexpr kro_log::Module kLog("main");
constexpr const char* kSsh = "ssh";
constexpr std::size_t kPipeSize = 65536;
constexpr auto kListenEvery = 200ms;  // the client's error pipe must not stay full
constexpr ClientProcess::KillTimes kRemotePatience{60s, 65s};
// The server sends SIGTERM to a client on this machine that has not ended after 10 seconds. It
// never kills the client, because that would interrupt the client's uploads. On SIGTERM and at the
// end of its input, the client finishes its uploads and exits.
constexpr ClientProcess::KillTimes kLocalPatience{10s, std::chrono::seconds::max()};

}  // namespace

std::vector<std::string> NodeClientCommand(std::string node, const std::string& ssh_key) {
    str::GetWord(node, ":");
    if (node.empty()) {
        return {kro_file::ConcatPath(kro_env::InstallRoot(), "sbin/quarn2_cp"), "--client"};
    }
    const std::string port = str::RGetWord(node, ":");
    return {kSsh, "-i", ssh_key, "-p", port, node, "/usr/local/kro5/sbin/quarn2_cp --client"};
}

void LastWords::Add(const char* text, std::size_t size) {
    words_.append(text, size);
    if (words_.size() <= kMaxSize) return;
    words_.erase(0, words_.size() - kMaxSize);
    shortened_ = true;
}

std::string LastWords::Text() const {
    std::string text;
    std::string rest = words_;
    while (!rest.empty()) {
        std::string line = str::GetWord(rest, "\n");
        while (!line.empty() && line.back() == '\r') line.pop_back();
        if (!line.empty()) str::inpl::Append(text, line, "; ");
    }
    std::replace(text.begin(), text.end(), '\0', '?');  // a NUL would end the log line
    return shortened_ ? "..." + text : text;
}

ClientProcess::ClientProcess(const std::vector<std::string>& command)
    : child_(command), is_remote_(!command.empty() && command.front() == kSsh) {}

ClientProcess::~ClientProcess() {
    try {
        const auto since = Clock::now();
        while (!FinishWithin(kListenEvery, since)) continue;
    } catch (const std::exception& error) {
        KRO_LOG(kLog, 4, "%s", error.what());
    }
    // Closes the pipe even if the event loop still has a copy of the handle.
    output_.Close();
}

ClientProcess::Pipes ClientProcess::Start() {
    auto [to_client_read, to_client_write] = kro_proc::Pipe();
    auto [from_client_read, from_client_write] = kro_proc::Pipe();
    auto [errors_read, errors_write] = kro_proc::Pipe();
    child_.RedirectInTo(std::move(to_client_read));
    child_.RedirectOutTo(std::move(from_client_write));
    child_.RedirectErrTo(std::move(errors_write));
    // The client gets the token only over the master link, so BACKUP_TOKEN is removed from its
    // environment. ssh must not prompt, because no user is at a terminal.
    child_.LeaveTerminal();
    child_.ChangeEnvironment({"BACKUP_TOKEN", "SSH_ASKPASS", "SSH_ASKPASS_REQUIRE=never"});
    child_.Run();
    kro_proc::SetNonBlocking(from_client_read);
    kro_proc::SetNonBlocking(to_client_write);
    kro_proc::SetNonBlocking(errors_read);
    errors_ = std::move(errors_read);
    return {std::move(from_client_read), std::move(to_client_write)};
}

void ClientProcess::Listen() {
    if (!errors_) return;
    char piece[4096];
    for (std::size_t taken = 0; taken < kPipeSize;) {
        const ssize_t count = read(errors_, piece, sizeof piece);
        if (count <= 0) return;
        words_.Add(piece, static_cast<std::size_t>(count));
        taken += static_cast<std::size_t>(count);
    }
}

bool ClientProcess::HasEnded(std::chrono::milliseconds wait) {
    if (!child_.Wait(static_cast<int>(wait.count()))) return false;
    Listen();
    return true;
}

void ClientProcess::SignalWhenDue(Clock::time_point since, Clock::time_point now, KillTimes times) {
    const auto waited = std::chrono::duration_cast<std::chrono::seconds>(now - since);
    const int signal = waited >= times.until_killed  ? SIGKILL
                       : waited >= times.until_asked ? SIGTERM
                                                     : 0;
    if (signal == pressed_) return;
    pressed_ = signal;
    child_.Signal(signal);
}

bool ClientProcess::FinishWithin(std::chrono::milliseconds wait, Clock::time_point since) {
    if (HasEnded(wait)) return true;
    Listen();
    SignalWhenDue(since, Clock::now(), is_remote_ ? kRemotePatience : kLocalPatience);
    return false;
}
