// Tests of the relay in front of an echo server.
#include "relay.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>

namespace {

using Harm = Relay::Harm;
using Way = Relay::Way;

sockaddr_in At(const char* host, std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, host, &address.sin_addr);
    return address;
}

class EchoServer {
  public:
    EchoServer() : listening_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = At("127.0.0.1", 0);
        socklen_t size = sizeof address;
        if (bind(listening_, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
            listen(listening_, 10) != 0 ||
            getsockname(listening_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
            throw std::runtime_error("the echo server cannot listen");
        }
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { Serve(); });
    }
    ~EchoServer() {
        shutdown(listening_, SHUT_RDWR);
        thread_.join();
        for (std::thread& peer : peers_) peer.join();
    }
    EchoServer(const EchoServer&) = delete;
    EchoServer& operator=(const EchoServer&) = delete;

    std::uint16_t port() const { return port_; }

  private:
    void Serve() {
        while (true) {
            const ResHandle peer(accept4(listening_, nullptr, nullptr, SOCK_CLOEXEC));
            if (!peer) return;
            peers_.emplace_back([peer] {
                std::array<char, 4096> bytes{};
                ssize_t count = 0;
                while ((count = recv(peer, bytes.data(), bytes.size(), 0)) > 0) {
                    if (send(peer, bytes.data(), static_cast<std::size_t>(count), MSG_NOSIGNAL) <
                        0) {
                        return;
                    }
                }
            });
        }
    }

    ResHandle listening_;
    std::uint16_t port_ = 0;
    std::thread thread_;
    std::vector<std::thread> peers_;
};

// A client of the relay.
class Client {
  public:
    explicit Client(std::uint16_t port) : handle_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_in address = At("127.0.0.2", port);
        connected_ =
            connect(handle_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }

    bool connected() const { return connected_; }

    bool Send(std::size_t size) const {
        const std::string text(size, 'x');
        return send(handle_, text.data(), size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
    }

    // Receives until `size` bytes have arrived, the connection has ended or no data arrive for a
    // while. Returns the number of bytes.
    std::size_t Receive(std::size_t size) {
        std::size_t got = 0;
        while (got < size) {
            pollfd news = {handle_, POLLIN, 0};
            silent_ = poll(&news, 1, silence_) == 0;
            if (silent_) break;
            std::array<char, 4096> bytes{};
            const ssize_t count = recv(handle_, bytes.data(), bytes.size(), 0);
            error_ = count < 0 ? errno : 0;
            if (count <= 0) break;
            got += static_cast<std::size_t>(count);
        }
        return got;
    }
    // The reason why the last Receive ended early: silent() is true if no data arrived, and error()
    // is the errno of recv() or 0.
    bool silent() const { return silent_; }
    int error() const { return error_; }
    void ExpectSilence() { silence_ = 200; }
    void Finish() const { shutdown(handle_, SHUT_WR); }

  private:
    ResHandle handle_;
    bool connected_ = false;
    bool silent_ = false;
    int silence_ = 30000;
    int error_ = 0;
};

class RelayTest : public testing::Test {
  protected:
    EchoServer server_;
    Relay relay_{{server_.port()}};
};

TEST_F(RelayTest, CarriesBothWaysAndCounts) {
    Client client(server_.port());
    ASSERT_TRUE(client.Send(300000));
    EXPECT_EQ(client.Receive(300000), 300000U);
    EXPECT_EQ(relay_.Passed(Way::kUp), 300000);
    EXPECT_EQ(relay_.Passed(Way::kDown), 300000);
    EXPECT_EQ(relay_.Accepted(server_.port()), 1);
}

TEST_F(RelayTest, CountsRequestsWithoutAnAnswerBetweenThemAsOneRoundTrip) {
    Client client(server_.port());
    ASSERT_TRUE(client.Send(1));
    ASSERT_EQ(client.Receive(1), 1U);
    relay_.HoldAnswers(std::chrono::milliseconds(500));
    ASSERT_TRUE(client.Send(1));
    ASSERT_EQ(relay_.Passed(Way::kDown), 1);
    ASSERT_TRUE(client.Send(1));
    EXPECT_EQ(client.Receive(2), 2U);
    EXPECT_EQ(relay_.RoundTrips(), 1);
    ASSERT_TRUE(client.Send(1));
    EXPECT_EQ(client.Receive(1), 1U);
    EXPECT_EQ(relay_.RoundTrips(), 2);
    Client second(server_.port());
    ASSERT_TRUE(second.Send(1));
    EXPECT_EQ(second.Receive(1), 1U);
    EXPECT_EQ(relay_.RoundTrips(), 4) << "one more for the new connection";
}

TEST_F(RelayTest, PassesTheEndOfOneSideOnAndThenTheOther) {
    Client client(server_.port());
    ASSERT_TRUE(client.Send(10));
    client.Finish();
    EXPECT_EQ(client.Receive(11), 10U);
    EXPECT_FALSE(client.silent());
    EXPECT_EQ(client.error(), 0);
}

TEST_F(RelayTest, ResetsAllConnectionsAfterSoManyBytes) {
    Client other(server_.port());
    ASSERT_TRUE(other.Send(1));
    ASSERT_EQ(other.Receive(1), 1U);
    Client client(server_.port());
    relay_.HarmOnce(Harm::kReset, {.way = Way::kUp, .bytes = 1000});
    ASSERT_TRUE(client.Send(1000));
    EXPECT_EQ(client.Receive(1000), 1000U) << "so many bytes pass";
    EXPECT_FALSE(relay_.Harmed());
    client.Send(1);
    EXPECT_EQ(client.Receive(1), 0U);
    EXPECT_EQ(client.error(), ECONNRESET);
    EXPECT_EQ(other.Receive(1), 0U);
    EXPECT_EQ(other.error(), ECONNRESET);
    EXPECT_TRUE(relay_.Harmed());
    EXPECT_EQ(relay_.Passed(Way::kUp), 1001);

    Client next(server_.port());
    ASSERT_TRUE(next.Send(5000));
    EXPECT_EQ(next.Receive(5000), 5000U) << "once only";
}

TEST_F(RelayTest, ClosesForGoodUntilHealed) {
    Client client(server_.port());
    relay_.HarmForGood(Harm::kClose, {.way = Way::kDown, .bytes = 100});
    ASSERT_TRUE(client.Send(5000));
    EXPECT_EQ(client.Receive(5000), 100U);
    EXPECT_EQ(client.error(), 0);
    Client next(server_.port());
    next.Send(1);
    EXPECT_EQ(next.Receive(1), 0U);
    EXPECT_FALSE(next.silent());
    relay_.Heal();
    Client healed(server_.port());
    ASSERT_TRUE(healed.Send(1));
    EXPECT_EQ(healed.Receive(1), 1U);
}

TEST_F(RelayTest, CountsOneWayOnceSoMuchHasPassedTheOther) {
    Client client(server_.port());
    relay_.HarmOnce(Harm::kClose, {.way = Way::kDown, .bytes = 7, .after_up = 3000});
    ASSERT_TRUE(client.Send(2999));
    EXPECT_EQ(client.Receive(2999), 2999U);
    EXPECT_FALSE(relay_.Harmed());
    ASSERT_TRUE(client.Send(1000));
    EXPECT_EQ(client.Receive(1000), 7U);
    EXPECT_TRUE(relay_.Harmed());
}

TEST_F(RelayTest, StallsWithoutClosingAndResetsWhenHealed) {
    Client client(server_.port());
    relay_.HarmForGood(Harm::kStall, {.way = Way::kUp, .bytes = 10});
    ASSERT_TRUE(client.Send(100));
    client.ExpectSilence();
    EXPECT_LE(client.Receive(100), 10U);
    EXPECT_TRUE(client.silent());
    Client next(server_.port());
    EXPECT_TRUE(next.connected());
    next.Send(1);
    next.ExpectSilence();
    EXPECT_EQ(next.Receive(1), 0U);
    EXPECT_TRUE(next.silent());
    relay_.Heal();
    client.Receive(100);
    EXPECT_EQ(client.error(), ECONNRESET);
    Client healed(server_.port());
    ASSERT_TRUE(healed.Send(100));
    EXPECT_EQ(healed.Receive(100), 100U);
}

TEST_F(RelayTest, ASenderNoticesAStall) {
    Client client(server_.port());
    relay_.HarmForGood(Harm::kStall, {.way = Way::kUp, .bytes = 0});
    const ResHandle sender(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_in address = At("127.0.0.2", server_.port());
    connect(sender, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const std::string piece(65536, 'x');
    std::size_t sent = 0;
    pollfd news = {sender, POLLOUT, 0};
    while (poll(&news, 1, 200) == 1 && sent < std::size_t{20} * 1024 * 1024) {
        const ssize_t count = send(sender, piece.data(), piece.size(), MSG_NOSIGNAL);
        ASSERT_GT(count, 0);
        sent += static_cast<std::size_t>(count);
    }
    EXPECT_LT(sent, std::size_t{8} * 1024 * 1024);
}

TEST_F(RelayTest, ClosesWhatIsThereAndTakesNewConnections) {
    Client client(server_.port());
    ASSERT_TRUE(client.Send(1));
    ASSERT_EQ(client.Receive(1), 1U);
    relay_.CloseConnections();
    EXPECT_EQ(client.Receive(1), 0U);
    EXPECT_EQ(client.error(), 0);
    Client next(server_.port());
    ASSERT_TRUE(next.Send(1));
    EXPECT_EQ(next.Receive(1), 1U);
}

TEST_F(RelayTest, RefusesUntilHealed) {
    relay_.Refuse();
    EXPECT_FALSE(Client(server_.port()).connected());
    relay_.Heal();
    EXPECT_TRUE(Client(server_.port()).connected());
}

TEST(RelayWithoutServer, ResetsWhoComes) {
    std::uint16_t port = EchoServer().port();
    Relay relay({port});
    Client client(port);
    client.Send(1);
    EXPECT_EQ(client.Receive(1), 0U);
    EXPECT_FALSE(client.silent());
}

}  // namespace
