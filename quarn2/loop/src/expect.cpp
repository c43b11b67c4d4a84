#include "quarn2/expect.h"

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <utility>

#include "kro/kro_clock.h"
#include "kro/kro_err.h"

namespace quarn2 {

struct Expect::Result {
    const char* name;
};

namespace {

// Results are compared by address. Their names are only visible in a debugger.
Expect::Result result_ok{"erOk"};
Expect::Result result_suspend{"erSuspend"};
Expect::Result result_close{"erClose"};
Expect::Result result_finish{"erFinish"};

using Clock = kro_date::SteadyClock;

// Returns the milliseconds until the deadline of a run, rounded up so that the run never ends
// early.
int Remaining(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
}

}  // namespace

Expect::Result* const Expect::erOk = &result_ok;
Expect::Result* const Expect::erSuspend = &result_suspend;
Expect::Result* const Expect::erClose = &result_close;
Expect::Result* const Expect::erFinish = &result_finish;

Expect::~Expect() {
    // Empty the list of workers before the workers are destroyed, because the destructor of a
    // worker may call functions of the loop.
    const std::vector<Entry> leaving = std::exchange(entries_, {});
}

void Expect::AddWorker(ResHandle handle, short events, std::shared_ptr<Callable> worker) {
    if (!handle) {
        throw kro_err::Error(kro_err::Kind::kFailed,
                             "cannot wait for a descriptor that is not open");
    }
    const int fd = handle;
    Entry* const known = Find(fd);
    Entry entry{std::move(handle), events, std::move(worker)};
    if (known == nullptr) {
        entries_.push_back(std::move(entry));
    } else {
        std::swap(*known, entry);
    }
}

void Expect::SetEvents(int fd, short events) {
    Entry* const entry = Find(fd);
    if (entry != nullptr) entry->events = events;
}

bool Expect::Run(int timeout_ms) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(std::max(timeout_ms, 0));
    for (;;) {
        const PollResult turned = PollOnce(timeout_ms < 0 ? -1 : Remaining(deadline));
        if (turned == PollResult::kFinished) return true;
        // The wait took the full remaining time. Do not compare the clock with the deadline here,
        // because the simulated clock of a test does not advance during the wait.
        if (turned == PollResult::kTimedOut) return false;
        if (timeout_ms >= 0 && Clock::now() >= deadline) return false;
    }
}

Expect::PollResult Expect::PollOnce(int timeout_ms) {
    DropClosed();
    // Do not poll the descriptors of suspended workers: poll would report a hang-up on such a
    // descriptor in every turn.
    std::vector<pollfd> waiting;
    std::vector<std::shared_ptr<Callable>> workers;
    for (const Entry& entry : entries_) {
        if (entry.events == 0) continue;
        waiting.push_back(pollfd{entry.handle, entry.events, 0});
        workers.push_back(entry.worker);
    }
    if (waiting.empty() && timeout_ms < 0) return PollResult::kFinished;

    const int ready = poll(waiting.data(), waiting.size(), timeout_ms);
    if (ready < 0 && errno != EINTR) throw kro_err::FromErrno("Failed to poll");
    if (ready == 0) return PollResult::kTimedOut;
    if (ready < 0) return PollResult::kServed;
    for (std::size_t i = 0; i < waiting.size(); ++i) {
        if (waiting[i].revents == 0) continue;
        if (!Serve(waiting[i].fd, waiting[i].revents, workers[i])) return PollResult::kFinished;
    }
    return PollResult::kServed;
}

bool Expect::Serve(int fd, short events, const std::shared_ptr<Callable>& worker) {
    // A worker that was called earlier in this turn may have removed this worker, or the descriptor
    // number may belong to another worker now.
    const Entry* const entry = Find(fd);
    if (entry == nullptr || entry->worker != worker) return true;
    if ((events & POLLNVAL) != 0) {
        Drop(worker, false);
        return true;
    }
    const Result* const result = worker->Do(entry->handle);
    if (result == erSuspend) Suspend(worker);
    if (result == erClose) Drop(worker, true);
    return result != erFinish;
}

Expect::Entry* Expect::Find(int fd) {
    const auto found = std::find_if(entries_.begin(), entries_.end(), [fd](const Entry& entry) {
        return static_cast<int>(entry.handle) == fd;
    });
    return fd < 0 || found == entries_.end() ? nullptr : &*found;
}

void Expect::Suspend(const std::shared_ptr<Callable>& worker) {
    for (Entry& entry : entries_) {
        if (entry.worker == worker) entry.events = 0;
    }
}

void Expect::Drop(const std::shared_ptr<Callable>& worker, bool close) {
    const auto found =
        std::find_if(entries_.begin(), entries_.end(),
                     [&worker](const Entry& entry) { return entry.worker == worker; });
    if (found == entries_.end()) return;
    Entry leaving = std::move(*found);
    entries_.erase(found);
    if (close) leaving.handle.Close();
}

void Expect::DropClosed() {
    const auto closed = std::stable_partition(
        entries_.begin(), entries_.end(), [](const Entry& entry) { return bool(entry.handle); });
    const std::vector<Entry> leaving(std::make_move_iterator(closed),
                                     std::make_move_iterator(entries_.end()));
    entries_.erase(closed, entries_.end());
}

}  // namespace quarn2
