// A link between two network namespaces that delays every packet, for kernels without netem:
//   bench_delay_link NAMESPACE NAMESPACE MILLISECONDS
// A NAMESPACE is a file such as /proc/PID/ns/net. The program creates the TUN device "link0" in
// both namespaces; the caller assigns the addresses and sets the devices up. Each device receives
// the packets of the other one in order, after the delay. The program prints "ready" when both
// devices exist. It exits, which removes them, when standard input ends.
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

constexpr std::size_t kMaxPacket = 65536;
// Beyond this limit a lane discards packets, as a router does for a slow receiver.
constexpr std::size_t kMaxQueuedBytes = std::size_t{64} << 20;

[[noreturn]] void Fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// Creates the TUN device in the namespace. The thread enters the namespace first, because a device
// belongs to the namespace of the thread that creates it.
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

    // Reads all available packets from the device and queues them.
    void Receive() {
        for (;;) {
            const ssize_t size = read(from_, buffer_.data(), buffer_.size());
            if (size < 0 && errno == EINTR) continue;
            // No packet is waiting, or the device is not up yet.
            if (size <= 0) return;
            const auto length = static_cast<std::size_t>(size);
            if (queued_ + length > kMaxQueuedBytes) continue;
            queued_ += length;
            packets_.push_back({Clock::now() + delay_, {buffer_.data(), buffer_.data() + length}});
        }
    }

    // Sends the packets that are due. A packet is lost when the receiving device is not up or has
    // no room.
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
    std::array<char, kMaxPacket> buffer_ = {};
};

// True at the end of standard input. Discards any input before it.
bool InputEnded(const pollfd& input) {
    char byte = 0;
    return input.revents != 0 && read(STDIN_FILENO, &byte, 1) <= 0;
}

// Each direction has its own thread, so that a busy direction does not delay the other one.
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
    // The threads of the lanes never end, so the process exits without joining them.
    std::_Exit(0);
}
