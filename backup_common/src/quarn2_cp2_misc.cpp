#include "quarn2_cp2_misc.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "kro/kro_env.h"
#include "kro/kro_err.h"
#include "kro/kro_hint.h"
#include "kro/kro_log.h"
#include "kro/kro_log_reader.h"
#include "kro/str.h"
#include "quarn2_cp2_misc_control.h"
#include "quarn2_cp2_misc_refusal.h"

namespace {

constexpr kro_log::Module kLog("main");

// Throws when another user's process holds the control socket, because that process could confirm
// uploads that it does not make. Returns the process id of the node client.
pid_t CheckPeer(int connection) {
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        throw kro_err::FromErrno("Failed to determine which user owns the control socket");
    }
    if (peer.uid == 0 || peer.uid == geteuid()) return peer.pid;
    throw std::runtime_error("the control socket belongs to another user (uid " +
                             str::Str(peer.uid) + "); nothing was sent");
}

std::string HowToStartServer() {
    const std::string storage = kro_env::GetEnv("BACKUP_STORAGE");
    return "No size control server runs here for this storage. Start one and keep its standard "
           "input open: mkfifo /run/hold; quarn2_cp --server " +
           (storage.empty() ? "" : "--storage '" + storage + "' ") +
           "--size-limit BYTES --count-limit FULL:DAILY </run/hold & exec 3>/run/hold";
}

[[noreturn]] void ThrowNotConnected(const std::string& path, int error) {
    const bool no_server = error == ENOENT || error == ECONNREFUSED;
    throw kro_err::HintedError(
        "Failed to connect to size control server socket",
        no_server ? HowToStartServer() : kro_err::FromErrno(str::Quoted(path), error).what());
}

ResHandle ConnectToNodeClient(const std::string& path) {
    ResHandle connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!connection) throw std::runtime_error("Failed to open socket");
    const sockaddr_un address = AddressToConnect(path);
    if (connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ThrowNotConnected(path, errno);
    }
    return connection;
}

[[noreturn]] void ThrowRefused(const kro_log::Bookmark& begin, pid_t node_client) {
    const std::string reason = FindRefusal(begin, node_client);
    throw std::runtime_error(reason.empty() ? ""
                                            : "the node client refused the command: " + reason);
}

}  // namespace

std::string Read(ResHandle handle) {
    std::string text;
    char piece[1024];
    for (;;) {
        const ssize_t count = read(handle, piece, sizeof piece);
        if (count == 0) return text;
        if (count < 0) {
            if (errno == EINTR) continue;
            throw std::runtime_error("Failed to read");
        }
        text.append(piece, static_cast<std::size_t>(count));
    }
}

std::string SendCommand(const std::string& command) {
    const std::string path = ControlSocketPath(kro_env::GetEnv("BACKUP_STORAGE"));
    KRO_LOG(kLog, 8, "%s command = %s, storage = '%s'", "SendCommand", command.c_str(),
            path.c_str());
    const kro_log::Bookmark begin;
    const ResHandle connection = ConnectToNodeClient(path);
    const pid_t node_client = CheckPeer(connection);
    if (send(connection, command.data(), command.size(), 0) !=
        static_cast<ssize_t>(command.size())) {
        throw std::runtime_error("Failed to send command");
    }
    shutdown(connection, SHUT_WR);
    const ControlAnswer answer = ParseControlAnswer(Read(connection));
    if (answer.status.empty()) ThrowRefused(begin, node_client);
    if (answer.status != "OK") throw std::runtime_error(answer.status);
    return answer.info;
}

quarn2::Expect::Result* FinishOnClose::operator()(ResHandle handle) {
    const kro_thread::SafeSection section(lock_);
    pollfd state{handle, POLLIN, 0};
    return poll(&state, 1, 0) > 0 ? quarn2::Expect::erFinish : quarn2::Expect::erOk;
}

quarn2::Expect::Result* FinishOnSignal::operator()(ResHandle signals) {
    signalfd_siginfo signal{};
    if (read(signals, &signal, sizeof signal) == static_cast<ssize_t>(sizeof signal)) {
        KRO_LOG(kLog, 5, "Signal %u received. Finish", signal.ssi_signo);
        arrived_ = true;
    }
    return arrived_ ? quarn2::Expect::erFinish : quarn2::Expect::erOk;
}

ResHandle StandardInput() {
    ResHandle copy(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    if (!copy) throw kro_err::FromErrno("cannot watch standard input");
    return copy;
}
