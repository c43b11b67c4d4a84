// The sessions with all nodes of a server, kept going for as long as it lives.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kro/kro_args.h"
#include "quarn2/expect.h"
#include "quarn2_cp2_server_client.h"
#include "quarn2_cp2_server_model.h"
#include "quarn2_cp2_server_session.h"

// How long to leave a node alone before its next session: longer each time in vain.
class RestartPause {
  public:
    // The pause after a session that did (not) do any good.
    std::chrono::seconds Next(bool did_good);

  private:
    std::chrono::seconds next_{1};
};

// One node, in whatever state: served, on its way out, or left alone until its next session.
class SupervisedNode {
  public:
    using Clock = std::chrono::steady_clock;
    using StartSession = std::function<std::shared_ptr<MasterSide>()>;

    // `name` is for the log.
    SupervisedNode(std::string name, StartSession start)
        : name_(std::move(name)), start_(std::move(start)) {}

    // Starts the first session; passes on why that cannot be done.
    void Start(Clock::time_point now);

    // The same for a node that may be away: it is tried again later.
    void TryToStart(Clock::time_point now);

    // Does what is due and returns when to look again at the latest.
    Clock::time_point Attend(Clock::time_point now);

    // Closes the session for good.
    void Close();

    // Waits at most so long for the end of the client of a session that was closed then; true when
    // there is none any more.
    bool FinishWithin(std::chrono::milliseconds wait, Clock::time_point since);

  private:
    void Listen();
    void WaitForClient(Clock::time_point now);
    void PutOff(Clock::time_point now, bool did_good);
    void LogEnd() const;

    std::string name_;
    StartSession start_;
    RestartPause pause_;
    std::shared_ptr<MasterSide> session_;
    std::unique_ptr<ClientProcess> client_;  // of a session that has ended
    bool did_good_ = false;                  // the session that has ended
    Clock::time_point since_;                // when the present state began
    Clock::time_point due_;
};

// Waits for the clients of sessions that were closed then, for all at the same time: also those
// that must be asked to end, or killed, cost their time once and not one after another.
void FinishAll(std::vector<SupervisedNode>& nodes, SupervisedNode::Clock::time_point since);

// Runs on the event loop's thread alone.
class NodeSessions {
  public:
    using Clock = std::chrono::steady_clock;

    // `storage` and `loop` outlive the sessions.
    NodeSessions(GlobalSizeControl::StorageDesc& storage, quarn2::Expect& loop,
                 kro_args::ResultPtr args);
    // Ends them all.
    ~NodeSessions();
    NodeSessions(const NodeSessions&) = delete;
    NodeSessions& operator=(const NodeSessions&) = delete;

    // Starts the session with this machine and then one with each different node. Throws when the
    // first cannot be started.
    void Start(Clock::time_point now);

    // Starts again what has ended. To be called again after the returned time, or before.
    std::chrono::milliseconds Attend(Clock::time_point now);

    // Closes all links and waits for the clients, for all at the same time.
    void End();

  private:
    void Add(const std::string& name, const std::string& description);

    GlobalSizeControl::StorageDesc& storage_;
    quarn2::Expect& loop_;
    kro_args::ResultPtr args_;
    std::vector<SupervisedNode> nodes_;
};
