#include "quarn2_cp2_put_control.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <utility>

#include "kro/kro_clock.h"
#include "kro/kro_log.h"
#include "kro/kro_proc.h"
#include "kro/str.h"
#include "quarn2_cp2_misc_refusal.h"

namespace {

constexpr kro_log::Module kLog("main");
constexpr std::chrono::seconds kMaxSilence{10};
// A command is one word and one path, so a longer line is not a command.
constexpr std::size_t kMaxCommandBytes = 64UL * 1024;
// The maximum number of connections at a time: each connection needs a descriptor, and a process
// has a limited number of them. A connection is short, because a command is executed as soon as it
// has arrived completely.
constexpr std::size_t kMaxPeers = 64;

// The process id of the peer; 0 when the system does not report it.
pid_t PeerProcess(int connection) {
    ucred peer{};
    socklen_t size = sizeof peer;
    return getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 ? peer.pid : 0;
}

bool HasInput(int connection) {
    pollfd state{connection, POLLIN, 0};
    return poll(&state, 1, 0) > 0;
}

}  // namespace

ControlPeer::ControlPeer(ResHandle connection, const ControlService& service)
    : connection_(std::move(connection)),
      service_(service),
      last_byte_(kro_date::SteadyClock::now()) {}

quarn2::Expect::Result* ControlPeer::operator()(ResHandle /*connection*/) {
    try {
        if (!Collect()) return quarn2::Expect::erOk;
        Answer();
    } catch (const std::exception& error) {
        KRO_LOG(kLog, 3, "%s", error.what());
        KRO_LOG(kLog, 5, "%s%.4200s", RefusalLine(PeerProcess(connection_)).c_str(),
                command_.c_str());
    }
    return quarn2::Expect::erClose;
}

bool ControlPeer::Collect() {
    char piece[1024];
    const ssize_t count = read(connection_, piece, sizeof piece);
    if (count == 0) return true;
    if (count < 0) {
        if (errno == EINTR || errno == EAGAIN) return false;
        throw std::runtime_error("Failed to read");
    }
    last_byte_ = kro_date::SteadyClock::now();
    command_.append(piece, static_cast<std::size_t>(count));
    if (command_.size() > kMaxCommandBytes) {
        throw std::runtime_error("A command of more than " + str::Str(kMaxCommandBytes) +
                                 " bytes is refused");
    }
    return false;
}

void ControlPeer::Answer() {
    const std::string answer = service_(command_);
    // A write error is ignored, because a sender that has ended does not need the answer.
    [[maybe_unused]] const ssize_t written = write(connection_, answer.data(), answer.size());
}

bool ControlPeer::HasBeenSilent(std::chrono::milliseconds limit) const {
    return kro_date::SteadyClock::now() - last_byte_ >= limit && !HasInput(connection_);
}

void ControlPeer::Disconnect(const char* reason) {
    KRO_LOG(kLog, 4, "Process %d was disconnected from the control socket: %s",
            PeerProcess(connection_), reason);
    connection_.Close();
}

void ControlPeers::Add(quarn2::Expect& loop, ResHandle connection) {
    kro_proc::SetNonBlocking(connection);
    ForgetClosed();
    if (peers_.size() >= kMaxPeers) peers_.front()->Disconnect("too many connections");
    peers_.push_back(std::make_shared<ControlPeer>(connection, service_));
    loop.Add(std::move(connection), POLLIN, peers_.back());
}

void ControlPeers::DisconnectSilent() {
    ForgetClosed();
    for (const std::shared_ptr<ControlPeer>& peer : peers_) {
        if (peer->HasBeenSilent(kMaxSilence)) peer->Disconnect("it sent nothing for 10 seconds");
    }
}

void ControlPeers::ForgetClosed() {
    std::erase_if(peers_, [](const std::shared_ptr<ControlPeer>& peer) { return !peer->IsOpen(); });
}
