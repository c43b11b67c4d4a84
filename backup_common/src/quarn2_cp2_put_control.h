// The node client's side of the control socket: its accepted connections.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kro/kro_clock.h"
#include "kro/res_handle.h"
#include "quarn2/expect.h"

// Runs one command and returns the answer; throws when the command fails.
using ControlService = std::function<std::string(std::string command)>;

// One accepted connection. Collects the bytes of the command as they arrive, so a slow peer does
// not block the event loop. When the peer shuts down its side of the stream, runs the command,
// sends the answer and closes the connection.
class ControlPeer {
  public:
    // `connection` must be non-blocking. `service` must outlive this object.
    ControlPeer(ResHandle connection, const ControlService& service);

    // Reads the bytes that have arrived. Never throws: a failed command is logged and gets no
    // answer.
    quarn2::Expect::Result* operator()(ResHandle connection);

    // True when no byte has arrived for the duration `limit` and none is waiting to be read.
    bool HasBeenSilent(std::chrono::milliseconds limit) const;

    bool IsOpen() const noexcept { return bool(connection_); }

    // Closes the connection without an answer. The event loop removes the connection in its next
    // iteration.
    void Disconnect(const char* reason);

  private:
    // True at the end of the stream, false while the peer may send more.
    bool Collect();
    void Answer();

    ResHandle connection_;
    const ControlService& service_;
    std::string command_;
    kro_date::SteadyClock::time_point last_byte_;
};

// All connections whose command has not arrived completely.
class ControlPeers {
  public:
    explicit ControlPeers(ControlService service) : service_(std::move(service)) {}
    ControlPeers(const ControlPeers&) = delete;
    ControlPeers& operator=(const ControlPeers&) = delete;

    // Adds the connection to the loop. When there are too many connections, disconnects the oldest
    // one.
    void Add(quarn2::Expect& loop, ResHandle connection);

    // Disconnects the peers that have sent nothing for 10 seconds.
    void DisconnectSilent();

  private:
    void ForgetClosed();

    ControlService service_;
    std::vector<std::shared_ptr<ControlPeer>> peers_;  // the oldest first
};
