// Fuzz target: the event loop. Its workers are added, removed and suspended, and close each other's
// descriptors in any order. The target checks that the loop never calls a removed worker, and calls
// each worker with the worker's own descriptor.
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <memory>

#include "fuzz.h"
#include "kro/kro_proc.h"
#include "quarn2/expect.h"

namespace {

using fuzz::Require;
using quarn2::Expect;

constexpr std::size_t kWorkers = 4;

class World;

// Reads one end of a pipe. The input selects its action and its result.
class Worker {
  public:
    Worker(World& world, int fd) : world_(world), fd_(fd) {}
    Expect::Result* operator()(ResHandle handle);
    bool dropped = false;

  private:
    World& world_;
    int fd_;
};

class World {
  public:
    explicit World(fuzz::Input& input) : input_(input) {}

    void Run() {
        while (!input_.empty()) Act(true);
        loop_.Run(0);
    }

    // Workers call Act() from inside the loop, with `may_run` false, so that the loop does not run
    // again inside itself.
    void Act(bool may_run) {
        const unsigned byte = input_.Byte();
        Place& place = places_.at(byte / 8 % kWorkers);
        switch (byte % 8) {
            case 0:
            case 1:
                return Add(place);
            case 2:
                return Say(place);
            case 3:
                if (place.pipe.first) loop_.SetEvents(place.pipe.first, POLLIN);
                return;
            case 4:
                if (place.pipe.first) loop_.SetEvents(place.pipe.first, 0);
                return;
            case 5:
                return Close(place);
            case 6:
                place.pipe.second.Close();
                return;
            default:
                if (may_run) loop_.Run(0);
        }
    }

    Expect::Result* Choose() {
        const std::array<Expect::Result*, 4> results = {Expect::erOk, Expect::erSuspend,
                                                        Expect::erClose, Expect::erFinish};
        const unsigned byte = input_.Byte();
        if ((byte & 64U) != 0) Act(false);
        return results.at(byte % results.size());
    }

  private:
    struct Place {
        std::pair<ResHandle, ResHandle> pipe;
        std::weak_ptr<Worker> worker;
    };

    void Add(Place& place) {
        if (!place.pipe.first) {
            place.pipe = kro_proc::Pipe();
            kro_proc::SetNonBlocking(place.pipe.first);
            kro_proc::SetNonBlocking(place.pipe.second);
        }
        // The new worker replaces the previous worker of the descriptor.
        if (const auto before = place.worker.lock()) before->dropped = true;
        const auto worker = std::make_shared<Worker>(*this, int(place.pipe.first));
        place.worker = worker;
        loop_.Add(place.pipe.first, POLLIN, worker);
    }

    static void Say(const Place& place) {
        if (!place.pipe.second) return;
        // The write may fail: the reader may be closed, or the pipe full.
        [[maybe_unused]] const ssize_t written = write(place.pipe.second, "x", 1);
    }

    // Closes the descriptor without removing its worker from the loop.
    static void Close(Place& place) {
        place.pipe.first.Close();
        place.pipe = {};
    }

    fuzz::Input& input_;
    std::array<Place, kWorkers> places_;
    Expect loop_;
};

Expect::Result* Worker::operator()(ResHandle handle) {
    Require(!dropped, "a removed worker is not called");
    Require(int(handle) == fd_, "a worker is called with its own descriptor");
    char bytes[64];
    const ssize_t count = read(handle, bytes, sizeof bytes);
    Expect::Result* const result = world_.Choose();
    // Closes a descriptor at end of file, because the loop would report it again and again.
    const bool ended = count == 0 || (count < 0 && errno != EAGAIN);
    if (!ended && result != Expect::erClose) return result;
    dropped = true;
    return Expect::erClose;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const auto ignored = signal(SIGPIPE, SIG_IGN);
    Require(ignored != SIG_ERR, "SIGPIPE is ignored");
    fuzz::Input input(data, size);
    World world(input);
    world.Run();
    return 0;
}
