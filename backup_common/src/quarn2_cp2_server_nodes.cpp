#include "quarn2_cp2_server_nodes.h"

#include <algorithm>
#include <set>
#include <utility>

#include "kro/kro_log.h"

namespace {

using namespace std::chrono_literals;
using Clock = SupervisedNode::Clock;

constexpr kro_log::Module kLog("main");
constexpr std::chrono::seconds kMaxPause = 60s;
// A session of at least this duration resets the pause before the next session.
constexpr auto kLongSession = 60s;
constexpr auto kLookAtSession = 1000ms;
constexpr std::chrono::milliseconds kLookAtEnding = 100ms;
// After the end of its link to the server, a client is terminated after this time, because no
// process waits for its remaining work.
constexpr ClientProcess::KillTimes kKillTimes{10s, 20s};

std::string Description(const std::string& node) {
    return node.find(':') != std::string::npos ? node : node + ":" + node + ":22";
}

}  // namespace

std::chrono::seconds RestartPause::Next(bool did_good) {
    if (did_good) next_ = 1s;
    const std::chrono::seconds pause = next_;
    next_ = std::min(next_ * 2, kMaxPause);
    return pause;
}

void SupervisedNode::Start(Clock::time_point now) {
    session_ = start_();
    since_ = now;
}

void SupervisedNode::TryToStart(Clock::time_point now) {
    try {
        Start(now);
    } catch (const std::exception& error) {
        KRO_LOG(kLog, 4, "Cant start session with node '%s'. What: %s", name_.c_str(),
                error.what());
        ScheduleRestart(now, false);
    }
}

void SupervisedNode::ScheduleRestart(Clock::time_point now, bool did_good) {
    due_ = now + pause_.Next(did_good);
}

Clock::time_point SupervisedNode::Poll(Clock::time_point now) {
    if (session_ && session_->is_open()) {
        session_->client().Listen();
        return now + kLookAtSession;
    }
    if (session_) {
        did_good_ = session_->has_served() || now - since_ >= kLongSession;
        Close();
        since_ = now;
    }
    if (client_) WaitForClient(now);
    if (client_) return now + kLookAtEnding;
    if (now < due_) return due_;
    TryToStart(now);
    return now + kLookAtSession;
}

void SupervisedNode::Close() {
    if (!session_) return;
    client_ = session_->Close();
    session_.reset();
}

// A node never has two clients at a time, so its next session starts only after this client has
// ended.
void SupervisedNode::WaitForClient(Clock::time_point now) {
    if (client_->HasEnded()) {
        LogEnd();
        client_.reset();
        ScheduleRestart(now, did_good_);
    } else {
        client_->Listen();
        client_->SignalWhenDue(since_, now, kKillTimes);
    }
}

void SupervisedNode::LogEnd() const {
    const std::string words = client_->last_words();
    KRO_LOG(kLog, 4, "Session with node '%s' ended. Exit status: %d%s%s", name_.c_str(),
            client_->status(), words.empty() ? "" : ". Last output: ", words.c_str());
}

bool SupervisedNode::FinishWithin(std::chrono::milliseconds wait, Clock::time_point since) {
    if (!client_) return true;
    if (!client_->FinishWithin(wait, since)) return false;
    // When the server ends, only clients that failed are logged.
    if (client_->status() != 0) LogEnd();
    client_.reset();
    return true;
}

void FinishAll(std::vector<SupervisedNode>& nodes, Clock::time_point since) {
    for (bool waiting = true; waiting;) {
        waiting = false;
        // Each round waits for one running client and only checks the others, so that the server
        // watches all clients in parallel.
        for (SupervisedNode& node : nodes) {
            if (!node.FinishWithin(waiting ? 0ms : kLookAtEnding, since)) waiting = true;
        }
    }
}

NodeSessions::NodeSessions(GlobalSizeControl::StorageDesc& storage, quarn2::Expect& loop,
                           kro_args::ResultPtr args)
    : storage_(storage), loop_(loop), args_(std::move(args)) {
    Add("local", "local");
    const std::vector<std::string> given = args_->Params("node");
    for (const std::string& node : std::set<std::string>(given.begin(), given.end())) {
        Add(node, Description(node));
    }
}

NodeSessions::~NodeSessions() {
    try {
        End();
    } catch (const std::exception& error) {
        KRO_LOG(kLog, 4, "%s", error.what());
    }
}

void NodeSessions::Add(const std::string& name, const std::string& description) {
    nodes_.emplace_back(name, [this, description] {
        return MasterSide::Create(args_->Param("storage", -1), storage_, description, loop_, args_);
    });
}

void NodeSessions::Start(Clock::time_point now) {
    nodes_.front().Start(now);
    for (auto node = std::next(nodes_.begin()); node != nodes_.end(); ++node) node->TryToStart(now);
}

std::chrono::milliseconds NodeSessions::Poll(Clock::time_point now) {
    Clock::time_point next = now + kLookAtSession;
    for (SupervisedNode& node : nodes_) next = std::min(next, node.Poll(now));
    return std::chrono::ceil<std::chrono::milliseconds>(next - now);
}

void NodeSessions::End() {
    const Clock::time_point now = Clock::now();
    for (SupervisedNode& node : nodes_) node.Close();
    FinishAll(nodes_, now);
}
