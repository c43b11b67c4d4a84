// A link between two network namespaces that delays every packet, for kernels that have no netem:
//   bench_delay_link NAMESPACE NAMESPACE MILLISECONDS
// A namespace is named by its file, as /proc/PID/ns/net. Each gets the interface "link0", a TUN
// device that is still to be given an address and set up. What one of them sends the other receives
// after the delay, in order. "ready" is written when both exist; they go when standard input ends.
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kLargestPacket = 65536;
// What a slow receiver leaves lying is dropped above this, as a router would.
constexpr std::size_t kMostQueuedBytes = std::size_t{64} << 20;

[[noreturn]] void Fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// The device belongs to the namespace that the thread is in when it is made, and stays there.
int MakeDevice(const std::string& network) {
    const int space = open(network.c_str(), O_RDONLY | O_CLOEXEC);
    if (space < 0) Fail(network);
    if (setns(space, CLONE_NEWNET) != 0) Fail("setns " + network);
    close(space);
    const int device = open("/dev/net/tun", O_RDWR | O_CLOEXEC | O_NONBLOCK);
    if (device < 0) Fail("/dev/net/tun");
    ifreq request = {};
    std::strcpy(request.ifr_name, "link0");
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    if (ioctl(device, TUNSETIFF, &request) != 0) Fail("TUNSETIFF");
    return device;
}

struct Packet {
    Clock::time_point due;
    std::vector<char> bytes;
};

// One direction of the link.
class Lane {
  public:
    Lane(int from, int to, Clock::duration delay) : from_(from), to_(to), delay_(delay) {}

    // Takes up what waits to be sent.
    void Receive() {
        for (;;) {
            const ssize_t size = read(from_, buffer_.data(), buffer_.size());
            if (size < 0 && errno == EINTR) continue;
            // A device that is not up yet has nothing either.
            if (size <= 0) return;
            const auto length = static_cast<std::size_t>(size);
            if (queued_ + length > kMostQueuedBytes) continue;
            queued_ += length;
            packets_.push_back({Clock::now() + delay_, {buffer_.data(), buffer_.data() + length}});
        }
    }

    // Hands over what is due. A receiver that is not up yet, or has no room, loses the packet.
    void Deliver() {
        const Clock::time_point now = Clock::now();
        while (!packets_.empty() && packets_.front().due <= now) {
            const std::vector<char>& bytes = packets_.front().bytes;
            [[maybe_unused]] const ssize_t sent = write(to_, bytes.data(), bytes.size());
            queued_ -= bytes.size();
            packets_.pop_front();
        }
    }

    std::optional<Clock::time_point> NextDue() const {
        if (packets_.empty()) return std::nullopt;
        return packets_.front().due;
    }

    int from() const { return from_; }

  private:
    int from_;
    int to_;
    Clock::duration delay_;
    std::deque<Packet> packets_;
    std::size_t queued_ = 0;
    std::array<char, kLargestPacket> buffer_ = {};
};

// Nobody reads from standard input: its end is what is waited for.
bool InputEnded(const pollfd& input) {
    char byte = 0;
    return input.revents != 0 && read(STDIN_FILENO, &byte, 1) <= 0;
}

// Both directions run in one thread each, so that a busy one does not hold up the other.
void RunLane(Lane& lane) {
    for (;;) {
        pollfd wanted = {lane.from(), POLLIN, 0};
        timespec wait = {};
        const std::optional<Clock::time_point> due = lane.NextDue();
        if (due) {
            const auto left = std::max(Clock::duration::zero(), *due - Clock::now());
            const auto nanoseconds = std::chrono::nanoseconds(left).count();
            wait = {nanoseconds / 1000000000, nanoseconds % 1000000000};
        }
        ppoll(&wanted, 1, due ? &wait : nullptr, nullptr);
        lane.Receive();
        lane.Deliver();
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fputs("usage: bench_delay_link NAMESPACE NAMESPACE MILLISECONDS\n", stderr);
        return 2;
    }
    try {
        const int one = MakeDevice(argv[1]);
        const int other = MakeDevice(argv[2]);
        const std::chrono::duration<double, std::milli> milliseconds(std::stod(argv[3]));
        const auto delay = std::chrono::duration_cast<Clock::duration>(milliseconds);
        static Lane there(one, other, delay);
        static Lane back(other, one, delay);
        std::thread([] { RunLane(there); }).detach();
        std::thread([] { RunLane(back); }).detach();
        std::puts("ready");
        std::fflush(stdout);
        pollfd input = {STDIN_FILENO, POLLIN, 0};
        while (!InputEnded(input)) poll(&input, 1, -1);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_delay_link: %s\n", error.what());
        return 1;
    }
    // The threads wait for packets for ever; the end of the process is theirs.
    std::_Exit(0);
}
