// A single-threaded poll loop.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "kro/res_handle.h"

namespace quarn2 {

class Expect {
  public:
    // The type of a worker's return value. A worker returns one of the four constants below, which
    // the loop compares by address.
    struct Result;
    static Result* const erOk;       // wait for the same events again
    static Result* const erSuspend;  // do not poll the descriptor until the next SetEvents
    static Result* const erClose;    // remove the worker and close its descriptor
    static Result* const erFinish;   // return from the current Run

    Expect() = default;
    ~Expect();
    Expect(const Expect&) = delete;
    Expect& operator=(const Expect&) = delete;

    // Registers a worker for a descriptor. The loop calls object->*member with the descriptor
    // whenever one of the poll `events` (or an error or hang-up) occurs on the descriptor. The loop
    // shares ownership of the object until the worker is removed. An exception from the member
    // propagates out of Run. Adding the same descriptor again replaces its worker. The loop removes
    // the worker of a descriptor that was closed elsewhere.
    template <class T>
    void Add(ResHandle handle, short events, std::shared_ptr<T> object,
             Result* (T::*member)(ResHandle) = &T::operator()) {
        AddWorker(std::move(handle), events,
                  std::make_shared<Worker<T>>(std::move(object), member));
    }

    // Sets the poll events of a descriptor and resumes its worker if the worker was suspended.
    // Ignores a descriptor that has no worker.
    void SetEvents(int fd, short events);

    // Runs the workers for at most `timeout_ms` milliseconds (-1: no limit) and returns early on
    // erFinish. When all workers are suspended or removed, Run(-1) returns at once, because it
    // would otherwise wait forever. Run with a limit still waits for the full time, so that a
    // program that calls Run in a loop does not spin. Returns false when the time limit has
    // expired, true otherwise.
    bool Run(int timeout_ms);

  private:
    struct Callable {
        virtual ~Callable() = default;
        virtual Result* Do(ResHandle handle) = 0;
    };

    template <class T>
    struct Worker final : Callable {
        Worker(std::shared_ptr<T> owner, Result* (T::*function)(ResHandle))
            : object(std::move(owner)), member(function) {}
        Result* Do(ResHandle handle) override { return ((*object).*member)(std::move(handle)); }

        std::shared_ptr<T> object;
        Result* (T::*member)(ResHandle);
    };

    struct Entry {
        ResHandle handle;
        short events = 0;
        std::shared_ptr<Callable> worker;
    };

    void AddWorker(ResHandle handle, short events, std::shared_ptr<Callable> worker);
    // The result of PollOnce. kTimedOut: no event occurred during the full wait. kServed: workers
    // were called, or a signal interrupted the wait. kFinished: the run must end.
    enum class PollResult { kTimedOut, kServed, kFinished };

    // Polls once and calls every worker whose descriptor is ready.
    PollResult PollOnce(int timeout_ms);
    // Calls the worker of a ready descriptor. Returns false when the worker returned erFinish.
    bool Serve(int fd, short events, const std::shared_ptr<Callable>& worker);

    Entry* Find(int fd);
    void Suspend(const std::shared_ptr<Callable>& worker);
    void Drop(const std::shared_ptr<Callable>& worker, bool close);
    void DropClosed();

    std::vector<Entry> entries_;
};

}  // namespace quarn2
