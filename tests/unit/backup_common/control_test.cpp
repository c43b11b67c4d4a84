// The control socket, the node client's side: connections, silent peers, answers.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <future>

#include "control_server.h"
#include "master_server.h"
#include "program_site.h"
#include "quarn2_cp2_misc.h"
#include "quarn2_cp2_put_node.h"

namespace {

using quarn2::Expect;

constexpr const char* kSlice = "b/F2026-11-15.web1.2.dar";

class Control : public ProgramSite {
  protected:
    Control() {
        Place(kSlice, "second!");
        kro_proc::SetNonBlocking(listening_);
        node_->AcceptIn(loop_);
        loop_.Add(listening_, POLLIN, node_);
    }

    static ResHandle Connect() {
        ResHandle peer(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_un address = ControlServer::Address("tmp/control");
        EXPECT_EQ(connect(peer, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        return peer;
    }

    // Sends a command from another thread, while the loop of the node client serves it. Returns the
    // answer.
    std::string Ask(const std::string& command) {
        auto asking = std::async(std::launch::async,
                                 [&] { return ControlServer::Ask("tmp/control", command); });
        while (asking.wait_for(std::chrono::seconds(0)) != std::future_status::ready) loop_.Run(1);
        return asking.get();
    }

    static void Send(const ResHandle& peer, const std::string& text) {
        EXPECT_EQ(write(peer, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    // Runs the loop often enough to serve everything that has arrived.
    void Serve() {
        for (int i = 0; i < 4; ++i) loop_.Run(0);
    }

    // True when the node client has closed the connection without an answer.
    static bool IsDisconnected(const ResHandle& peer) {
        char byte = 0;
        return recv(peer, &byte, 1, MSG_DONTWAIT) == 0;
    }

    kro_thread::SafeLock lock_;
    ResHandle listening_ = ControlServer::Listen("tmp/control");
    MasterServer server_{"memory:site"};
    std::shared_ptr<NodeSide> node_ = std::make_shared<NodeSide>(lock_, server_.link());
    Expect loop_;
};

TEST_F(Control, AnswersOneCommandPerConnection) {
    EXPECT_EQ(Ask(std::string("PUTLAST ") + kSlice), "OK F2026-11-15.web1.2.dar 7");
    EXPECT_EQ(Ask("STAT"), "OK");
}

TEST_F(Control, AFailedCommandGetsNoAnswerAndItsReasonInTheLog) {
    EXPECT_EQ(Ask("PUT b/none.tgz"), "");
    const std::string process = std::to_string(getpid());
    EXPECT_EQ(Log(5),
              (Lines{"5: Client. Backup token = 'memory:site'",
                     "3: Failed to examine 'b/none.tgz': No such file or directory",
                     "5: The command of process " + process + " was refused: PUT b/none.tgz"}));
    EXPECT_EQ(Ask("STAT"), "OK") << "the node client continues";
}

TEST_F(Control, WithoutAConnectionTheLoopContinues) {
    ClearLog();
    EXPECT_EQ((*node_)(listening_), Expect::erOk);
    EXPECT_EQ(Log(), (Lines{"8: quarn2::Expect::Result* NodeSide::operator()(ResHandle)"}));
}

TEST_F(Control, ASocketThatCannotAcceptEndsTheLoop) {
    EXPECT_EQ((*node_)(kro_proc::Pipe().first), Expect::erFinish);
}

TEST_F(Control, APeerThatEndedBeforeItsAnswerDoesNotStopTheNodeClient) {
    Connect().Close();
    Serve();
    EXPECT_EQ(Ask("STAT"), "OK");
}

// --- Slow and silent peers ---

TEST_F(Control, ASlowPeerBlocksNoOther) {
    const ResHandle slow = Connect();
    Send(slow, "ST");
    Serve();
    EXPECT_EQ(Ask(std::string("PUTLAST ") + kSlice), "OK F2026-11-15.web1.2.dar 7");
    Send(slow, "AT");
    shutdown(slow, SHUT_WR);
    Serve();
    EXPECT_EQ(Read(slow), "OK");
}

TEST_F(Control, ASilentPeerIsDisconnectedAfterTenSeconds) {
    const ResHandle silent = Connect();
    const ResHandle slow = Connect();
    Serve();
    fake_clock::Pass(9'999);
    node_->DisconnectSilentPeers();
    EXPECT_FALSE(IsDisconnected(silent));
    Send(slow, "S");
    Serve();
    fake_clock::Pass(1);
    node_->DisconnectSilentPeers();
    EXPECT_TRUE(IsDisconnected(silent));
    EXPECT_EQ(Log(4), (Lines{"4: Process " + std::to_string(getpid()) +
                             " was disconnected from the control socket: "
                             "it sent nothing for 10 seconds"}));
    Send(slow, "TAT");
    shutdown(slow, SHUT_WR);
    Serve();
    EXPECT_EQ(Read(slow), "OK") << "its last byte arrived 1 ms ago";
}

// A command of another peer may occupy the loop for hours.
TEST_F(Control, APeerWhoseCommandArrivedMeanwhileIsServed) {
    const ResHandle peer = Connect();
    Serve();
    Send(peer, "STAT");
    shutdown(peer, SHUT_WR);
    fake_clock::Pass(3'600'000);
    node_->DisconnectSilentPeers();
    Serve();
    EXPECT_EQ(Read(peer), "OK");
}

TEST_F(Control, BeyondTheMaximumTheOldestConnectionIsClosed) {
    std::vector<ResHandle> peers;
    for (int i = 0; i < 65; ++i) {
        peers.push_back(Connect());
        loop_.Run(0);
    }
    Serve();
    EXPECT_TRUE(IsDisconnected(peers.front()));
    EXPECT_FALSE(IsDisconnected(peers[1]));
    EXPECT_EQ(Ask("STAT"), "OK");
}

TEST_F(Control, AnEndlessCommandIsRefused) {
    const ResHandle peer = Connect();
    kro_proc::SetNonBlocking(peer);
    const std::string noise(1000, 'x');
    for (int i = 0; i < 1000 && !IsDisconnected(peer); ++i) {
        send(peer, noise.data(), noise.size(), MSG_NOSIGNAL);
        loop_.Run(0);
    }
    EXPECT_EQ(Log(4), (Lines{"3: A command of more than 65536 bytes is refused"}));
    EXPECT_EQ(Ask("STAT"), "OK");
}

}  // namespace
