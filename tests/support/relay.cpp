#include "relay.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <stdexcept>
#include <utility>

namespace {

// The buffers are small, so that the peer of a stalled relay soon blocks in its writes.
constexpr std::size_t kBuffer = 65536;

sockaddr_in Address(const std::string& host, std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, host.c_str(), &address.sin_addr);
    return address;
}

ResHandle Socket() { return ResHandle(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)); }

void SetOption(int fd, int level, int option, int value) {
    setsockopt(fd, level, option, &value, sizeof value);
}

void Prepare(int fd) {
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    SetOption(fd, IPPROTO_TCP, TCP_NODELAY, 1);
    SetOption(fd, SOL_SOCKET, SO_SNDBUF, static_cast<int>(kBuffer));
}

// Makes close() send a reset.
void ResetAtClose(int fd) {
    const linger at_once = {.l_onoff = 1, .l_linger = 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
}

bool IsForLater(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

std::size_t Index(Relay::Way way) { return way == Relay::Way::kUp ? 0 : 1; }

}  // namespace

Relay::Relay(const std::vector<std::uint16_t>& ports, const std::string& address)
    : address_(address), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    for (const std::uint16_t port : ports) listeners_.push_back({port, ResHandle(), 0});
    Listen();
    thread_ = std::thread([this] { Serve(); });
}

Relay::~Relay() {
    Do([this] { stopping_ = true; });
    thread_.join();
}

void Relay::Arm(Harm harm, When when, bool for_good) {
    Do([&] {
        harm_ = harm;
        when_ = when;
        for_good_ = for_good;
        armed_ = true;
        harmed_ = false;
        since_armed_ = {0, 0};
    });
}

bool Relay::Harmed() {
    bool harmed = false;
    Do([&] { harmed = harmed_; });
    return harmed;
}

void Relay::Heal() {
    Do([this] {
        if (IsStalled()) End(true);
        armed_ = harming_ = refusing_ = false;
        Listen();
    });
}

void Relay::CloseConnections() {
    Do([this] { End(false); });
}

void Relay::Refuse() {
    Do([this] {
        refusing_ = true;
        for (Listener& listener : listeners_) listener.handle.Reset();
    });
}

std::int64_t Relay::Passed(Way way) {
    std::int64_t passed = 0;
    Do([&] { passed = passed_.at(Index(way)); });
    return passed;
}

int Relay::Accepted(std::uint16_t port) {
    int accepted = 0;
    Do([&] {
        for (const Listener& listener : listeners_) {
            if (listener.port == port) accepted = listener.accepted;
        }
    });
    return accepted;
}

void Relay::HoldAnswers(std::chrono::milliseconds quiet) {
    Do([&] {
        quiet_ = quiet;
        has_sent_ = false;
        round_trips_ = 0;
    });
}

int Relay::RoundTrips() {
    int round_trips = 0;
    Do([&] { round_trips = round_trips_; });
    return round_trips;
}

void Relay::Do(const std::function<void()>& work) {
    // Shared ownership: the thread may still hold the task when this function has returned.
    const auto task = std::make_shared<std::packaged_task<void()>>(work);
    {
        const std::lock_guard lock(mutex_);
        work_.push_back(task);
    }
    eventfd_write(wake_, 1);
    task->get_future().get();
}

void Relay::DoWork() {
    std::vector<std::shared_ptr<std::packaged_task<void()>>> work;
    {
        const std::lock_guard lock(mutex_);
        work.swap(work_);
    }
    for (const auto& task : work) (*task)();
}

void Relay::Serve() {
    while (!stopping_) {
        WaitForNews();
        eventfd_t ignored = 0;
        eventfd_read(wake_, &ignored);
        DoWork();
        if (!refusing_) {
            for (Listener& listener : listeners_) Accept(listener);
        }
        CarryAll();
        if (IsCutting()) {
            End(harm_ == Harm::kReset);
            harming_ = for_good_;
        }
    }
}

void Relay::CarryAll() {
    for (auto each = connections_.begin(); each != connections_.end() && !harming_;) {
        each = Carry(*each) ? std::next(each) : connections_.erase(each);
    }
}

void Relay::WaitForNews() const {
    std::vector<pollfd> news = {{wake_, POLLIN, 0}};
    for (const Listener& listener : listeners_) news.push_back({listener.handle, POLLIN, 0});
    for (const Connection& connection : connections_) {
        for (std::size_t side = 0; side < 2 && !IsStalled(); ++side) {
            const Flow& from = connection.flows.at(side);
            const Flow& to = connection.flows.at(1 - side);
            int events = 0;
            if (!from.ended && from.waiting.size() < kBuffer) events |= POLLIN;
            const bool is_held = side == 0 && IsHolding();
            if (!to.waiting.empty() && !is_held) events |= POLLOUT;
            if (events != 0) {
                news.push_back({connection.sides.at(side), static_cast<short>(events), 0});
            }
        }
    }
    poll(news.data(), news.size(), WaitMilliseconds());
}

bool Relay::IsHolding() const {
    return has_sent_ && std::chrono::steady_clock::now() - sent_at_ < quiet_;
}

// Returns the timeout of poll(): the maximum time until the relay may forward held answers, or -1
// for no timeout.
int Relay::WaitMilliseconds() const { return IsHolding() ? static_cast<int>(quiet_.count()) : -1; }

void Relay::CountRoundTrip() {
    if (std::exchange(has_sent_, false)) ++round_trips_;
}

void Relay::Listen() {
    for (Listener& listener : listeners_) {
        if (listener.handle) continue;
        listener.handle = Socket();
        const sockaddr_in address = Address(address_, listener.port);
        SetOption(listener.handle, SOL_SOCKET, SO_REUSEADDR, 1);
        // Set before listen(), because accepted connections inherit it.
        SetOption(listener.handle, SOL_SOCKET, SO_RCVBUF, static_cast<int>(kBuffer));
        fcntl(listener.handle, F_SETFL, O_NONBLOCK);
        if (bind(listener.handle, reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
                0 ||
            listen(listener.handle, 100) != 0) {
            throw std::runtime_error("the relay cannot listen at " + address_ + ":" +
                                     std::to_string(listener.port));
        }
    }
}

void Relay::Accept(Listener& listener) {
    while (true) {
        Connection connection;
        connection.sides[0] =
            ResHandle(accept4(listener.handle, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!connection.sides[0]) return;
        ++listener.accepted;
        ++round_trips_;
        connection.sides[1] = Socket();
        const sockaddr_in server = Address("127.0.0.1", listener.port);
        if (connect(connection.sides[1], reinterpret_cast<const sockaddr*>(&server),
                    sizeof server) != 0) {
            ResetAtClose(connection.sides[0]);
            continue;
        }
        for (const ResHandle& side : connection.sides) Prepare(side);
        connections_.push_back(std::move(connection));
    }
}

bool Relay::Carry(Connection& connection) {
    for (std::size_t from = 0; from < 2; ++from) {
        if (!Take(connection, from) || !Pass(connection, from)) {
            for (const ResHandle& side : connection.sides) ResetAtClose(side);
            return false;
        }
    }
    return !(connection.flows[0].passed && connection.flows[1].passed);
}

bool Relay::Take(Connection& connection, std::size_t from) {
    Flow& flow = connection.flows.at(from);
    if (flow.ended || flow.waiting.size() >= kBuffer) return true;
    std::array<char, kBuffer> bytes;  // NOLINT: filled by recv
    const ssize_t count =
        recv(connection.sides.at(from), bytes.data(), kBuffer - flow.waiting.size(), 0);
    if (count < 0) return IsForLater(errno);
    flow.ended = count == 0;
    if (from == 0 && count > 0) {
        has_sent_ = true;
        sent_at_ = std::chrono::steady_clock::now();
    }
    flow.waiting.append(bytes.data(), static_cast<std::size_t>(count));
    return true;
}

bool Relay::Pass(Connection& connection, std::size_t from) {
    Flow& flow = connection.flows.at(from);
    const int to = connection.sides.at(1 - from);
    if (!flow.waiting.empty()) {
        const std::size_t allowed = Allowance(from, flow.waiting.size());
        if (allowed == 0) {
            BeginHarm();
            return true;
        }
        if (from == 1 && IsHolding()) return true;
        const ssize_t count = send(to, flow.waiting.data(), allowed, MSG_NOSIGNAL);
        if (count < 0) return IsForLater(errno);
        Count(from, static_cast<std::size_t>(count));
        if (from == 1) CountRoundTrip();
        flow.waiting.erase(0, static_cast<std::size_t>(count));
    }
    if (flow.ended && flow.waiting.empty() && !flow.passed) {
        shutdown(to, SHUT_WR);
        flow.passed = true;
    }
    return true;
}

std::size_t Relay::Allowance(std::size_t way, std::size_t size) const {
    if (!armed_ || way != Index(when_.way) || since_armed_[0] < when_.after_up) return size;
    const std::int64_t left = when_.bytes - since_armed_.at(way);
    return std::min(size, static_cast<std::size_t>(std::max<std::int64_t>(left, 0)));
}

void Relay::Count(std::size_t way, std::size_t size) {
    const auto bytes = static_cast<std::int64_t>(size);
    passed_.at(way) += bytes;
    if (way == 0 || since_armed_[0] >= when_.after_up) since_armed_.at(way) += bytes;
}

void Relay::BeginHarm() {
    armed_ = false;
    harmed_ = harming_ = true;
}

void Relay::End(bool by_reset) {
    for (const Connection& connection : connections_) {
        for (const ResHandle& side : connection.sides) {
            if (by_reset) ResetAtClose(side);
            // Reads the unread bytes first, because close() would otherwise send a reset.
            std::array<char, kBuffer> unread;  // NOLINT: filled by recv
            while (!by_reset && recv(side, unread.data(), unread.size(), 0) > 0) continue;
        }
    }
    connections_.clear();
}
