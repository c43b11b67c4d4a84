// A single-threaded poll loop.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "kro/res_handle.h"

namespace quarn2 {

class Expect {
  public:
    // What a worker wants next: one of the four below, compared by address.
    struct Result;
    static Result* const erOk;       // keep waiting for the same events
    static Result* const erSuspend;  // stop waiting until SetEvents asks again
    static Result* const erClose;    // drop the worker and close its descriptor
    static Result* const erFinish;   // end the current Run

    Expect() = default;
    ~Expect();
    Expect(const Expect&) = delete;
    Expect& operator=(const Expect&) = delete;

    // Calls object->*member with the descriptor whenever one of the poll `events` (or an error or
    // hang-up) occurs on it. The loop shares the object's ownership until the worker is dropped. An
    // exception that leaves the member leaves Run. A descriptor added again changes its worker; one
    // that somebody else closes loses it.
    template <class T>
    void Add(ResHandle handle, short events, std::shared_ptr<T> object,
             Result* (T::*member)(ResHandle) = &T::operator()) {
        AddWorker(std::move(handle), events,
                  std::make_shared<Worker<T>>(std::move(object), member));
    }

    // Waits for these events on the descriptor again, or from now on. Unknown descriptors are
    // ignored.
    void SetEvents(int fd, short events);

    // Serves the workers for at most this long (-1: without limit) and ends early on erFinish. When
    // no worker waits for anything, a run without limit ends, as nothing could happen any more; one
    // with a limit lasts its time, so that a caller who runs the loop again and again does not
    // spin. False when the time is over, true after every other end.
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
    // One poll and the calls that it asks for; false when the run is over.
    bool Turn(int timeout_ms);
    // Calls one worker that is ready; false when it ended the run.
    bool Serve(int fd, short events, const std::shared_ptr<Callable>& worker);

    Entry* Find(int fd);
    void Suspend(const std::shared_ptr<Callable>& worker);
    void Drop(const std::shared_ptr<Callable>& worker, bool close);
    void DropClosed();

    std::vector<Entry> entries_;
};

}  // namespace quarn2
