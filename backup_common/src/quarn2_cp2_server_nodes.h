// The sessions with all nodes of a server. Ended sessions are restarted for as long as the server
// runs.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kro/kro_args.h"
#include "kro/kro_clock.h"
#include "quarn2/expect.h"
#include "quarn2_cp2_server_client.h"
#include "quarn2_cp2_server_model.h"
#include "quarn2_cp2_server_session.h"

// The pause before the next session with a node. The pause doubles after each failed session, up to
// a maximum.
class RestartPause {
  public:
    // Returns the pause after a session. A useful session (`did_good`) resets the pause to its
    // minimum.
    std::chrono::seconds Next(bool did_good);

  private:
    std::chrono::seconds next_{1};
};

// One node of the server. The node has an open session, or its last client has not ended yet, or it
// waits for the time of its next session.
class SupervisedNode {
  public:
    using Clock = kro_date::SteadyClock;
    using StartSession = std::function<std::shared_ptr<MasterSide>()>;

    // `name` is for the log.
    SupervisedNode(std::string name, StartSession start)
        : name_(std::move(name)), start_(std::move(start)) {}

    // Starts a session. Throws when the client cannot be started.
    void Start(Clock::time_point now);

    // Starts a session. When the client cannot be started, logs the reason and schedules another
    // attempt.
    void TryToStart(Clock::time_point now);

    // Reads the client's error output, closes an ended session, waits for its client, or starts the
    // next session. Returns the time at which Poll must be called again.
    Clock::time_point Poll(Clock::time_point now);

    // Closes the open session, if any. The client process of the session may still run.
    void Close();

    // Waits at most `wait` for the end of the client of a session that was closed at `since`.
    // Returns true when no client process is left.
    bool FinishWithin(std::chrono::milliseconds wait, Clock::time_point since);

  private:
    void Listen();
    void WaitForClient(Clock::time_point now);
    void ScheduleRestart(Clock::time_point now, bool did_good);
    void LogEnd() const;

    std::string name_;
    StartSession start_;
    RestartPause pause_;
    std::shared_ptr<MasterSide> session_;
    std::unique_ptr<ClientProcess> client_;  // client of the session that has ended
    bool did_good_ = false;                  // whether the ended session was useful
    Clock::time_point since_;                // when the current state began
    Clock::time_point due_;
};

// Waits in parallel for the clients of all sessions, which were closed at `since`. For each client,
// the times until SIGTERM and SIGKILL are counted from `since`.
void FinishAll(std::vector<SupervisedNode>& nodes, SupervisedNode::Clock::time_point since);

// Keeps a session with each node of the server. Must be used only on the thread of the event loop.
class NodeSessions {
  public:
    using Clock = kro_date::SteadyClock;

    // `storage` and `loop` must outlive the sessions.
    NodeSessions(GlobalSizeControl::StorageDesc& storage, quarn2::Expect& loop,
                 kro_args::ResultPtr args);
    // Ends all sessions.
    ~NodeSessions();
    NodeSessions(const NodeSessions&) = delete;
    NodeSessions& operator=(const NodeSessions&) = delete;

    // Starts the session with this machine and then one session with each distinct node. Throws
    // when the session with this machine cannot be started.
    void Start(Clock::time_point now);

    // Restarts sessions that have ended. Poll must be called again within the returned time.
    std::chrono::milliseconds Poll(Clock::time_point now);

    // Closes all sessions and waits for all clients in parallel.
    void End();

  private:
    void Add(const std::string& name, const std::string& description);

    GlobalSizeControl::StorageDesc& storage_;
    quarn2::Expect& loop_;
    kro_args::ResultPtr args_;
    std::vector<SupervisedNode> nodes_;
};
