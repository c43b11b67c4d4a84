// A single-threaded poll loop.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "kro/res_handle.h"

namespace quarn2 {

class Expect {
  public:
    // The return value of a worker: one of the four constants below, compared by address.
    struct Result;
    static Result* const erOk;       // keep waiting for the same events
    static Result* const erSuspend;  // do not poll it until the next SetEvents
    static Result* const erClose;    // remove the worker and close its descriptor
    static Result* const erFinish;   // end the current Run

    Expect() = default;
    ~Expect();
    Expect(const Expect&) = delete;
    Expect& operator=(const Expect&) = delete;

    // Calls object->*member with the descriptor whenever one of the poll `events` (or an error or
    // hang-up) occurs on it. The loop shares ownership of the object until it removes the worker.
    // An exception from the member propagates out of Run. Adding the same descriptor again replaces
    // its worker. The loop removes the worker of a descriptor that was closed elsewhere.
    template <class T>
    void Add(ResHandle handle, short events, std::shared_ptr<T> object,
             Result* (T::*member)(ResHandle) = &T::operator()) {
        AddWorker(std::move(handle), events,
                  std::make_shared<Worker<T>>(std::move(object), member));
    }

    // Sets the poll events of a descriptor, which also resumes a suspended worker. Ignores unknown
    // descriptors.
    void SetEvents(int fd, short events);

    // Runs the workers for at most `timeout_ms` milliseconds (-1: no limit) and returns early on
    // erFinish. When no worker waits for an event, a run without limit returns, because no event
    // could end it. A run with a limit still lasts its full time, so that a caller that runs the
    // loop repeatedly does not spin. Returns false when the time is over, true otherwise.
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
    // How a turn ended: its wait took the full time, or it served workers or was interrupted, or
    // the run is over.
    enum class Turned { kTimedOut, kServed, kFinished };

    // One poll and the calls of all ready workers.
    Turned Turn(int timeout_ms);
    // Calls one ready worker. Returns false when it ended the run.
    bool Serve(int fd, short events, const std::shared_ptr<Callable>& worker);

    Entry* Find(int fd);
    void Suspend(const std::shared_ptr<Callable>& worker);
    void Drop(const std::shared_ptr<Callable>& worker, bool close);
    void DropClosed();

    std::vector<Entry> entries_;
};

}  // namespace quarn2
