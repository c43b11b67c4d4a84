// The supervision of sessions. The tests set the time, so they do not wait for pauses.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

#include "arguments.h"
#include "kro/kro_env.h"
#include "program_site.h"
#include "quarn2_cp2_server_nodes.h"

namespace {

using namespace std::chrono_literals;
using Clock = SupervisedNode::Clock;

// --- RestartPause ---

TEST(RestartPause, DoublesFromOneSecondToOneMinute) {
    RestartPause pause;
    std::vector<std::int64_t> pauses;
    for (int i = 0; i < 9; ++i) pauses.push_back(pause.Next(false).count());
    EXPECT_EQ(pauses, (std::vector<std::int64_t>{1, 2, 4, 8, 16, 32, 60, 60, 60}));
}

TEST(RestartPause, BeginsAgainAfterASessionThatDidGood) {
    RestartPause pause;
    for (int i = 0; i < 5; ++i) pause.Next(false);
    EXPECT_EQ(pause.Next(true), 1s);
    EXPECT_EQ(pause.Next(false), 2s);
    EXPECT_EQ(pause.Next(true), 1s);
    EXPECT_EQ(pause.Next(true), 1s);
}

// --- SupervisedNode ---

class Nodes : public ProgramSite {
  protected:
    Nodes() {
        kro_log::Init("quarn2_cp", 4);
        kro_env::SetInstallRoot(root_.path());
        storage_.owner = &control_;
        storage_.limit = storage_.free_size = control_.size_limit = 1000;
    }
    ~Nodes() override { kro_env::SetInstallRoot("/usr/local/kro5"); }

    // Installs a shell script at this path.
    static void Script(const std::string& path, const std::string& text) {
        Place(path, "#!/bin/sh\n" + text);
        ASSERT_EQ(chmod(path.c_str(), 0755), 0);
    }

    // Returns a node whose client is a shell with this script.
    SupervisedNode Playing(const std::string& script) {
        Script("sbin/quarn2_cp", "echo >> starts\n" + script);
        return {"n1",
                [this] { return MasterSide::Create("", storage_, "local", loop_, Arguments({})); }};
    }

    static std::size_t Starts() {
        return local_files::Has("starts") ? local_files::Load("starts").size() : 0;
    }

    // Calls Poll with this time until `done` is true, while real time passes.
    template <class Attended, class Done>
    void AttendUntil(Attended& node, Clock::time_point now, const Done& done) {
        for (int i = 0; i < 3000 && !done(); ++i) {
            loop_.Run(10);
            node.Poll(now);
        }
        ASSERT_TRUE(done());
    }

    // Returns the log lines about ended sessions.
    static Lines Ends() {
        Lines ends = Log(4);
        std::erase_if(ends, [](const auto& line) { return line.find("ended") == line.npos; });
        return ends;
    }

    quarn2::Expect loop_;
    GlobalSizeControl control_;
    GlobalSizeControl::StorageDesc storage_;
    const Clock::time_point begin_ = Clock::now();
};

TEST_F(Nodes, OneThatCannotBeStartedIsTriedAgainWithGrowingPauses) {
    std::vector<std::int64_t> attempts;
    Clock::time_point now = begin_;
    SupervisedNode node("n1", [&]() -> std::shared_ptr<MasterSide> {
        attempts.push_back(std::chrono::duration_cast<std::chrono::seconds>(now - begin_).count());
        throw std::runtime_error("no ssh");
    });
    node.TryToStart(now);
    for (; now <= begin_ + 200s; now += 100ms) node.Poll(now);
    EXPECT_EQ(attempts, (std::vector<std::int64_t>{0, 1, 3, 7, 15, 31, 63, 123, 183}));
    EXPECT_EQ(Log(), Lines(9, "4: Cant start session with node 'n1'. What: no ssh"));
}

TEST_F(Nodes, TheFirstSessionOfThisMachineMustStart) {
    SupervisedNode node(
        "local", []() -> std::shared_ptr<MasterSide> { throw std::runtime_error("no program"); });
    EXPECT_EQ(TextOf<std::runtime_error>([&] { node.Start(begin_); }), "no program");
    EXPECT_EQ(Log(), Lines());
}

TEST_F(Nodes, AnEndedSessionIsLoggedOnceAndStartedAgainAfterItsPause) {
    SupervisedNode node = Playing("echo bad key >&2\nexit 255\n");
    node.Start(begin_);
    Clock::time_point now = begin_ + 10s;
    std::size_t count = 0;
    for (const auto pause : {1s, 2s, 4s, 8s}) {
        ++count;
        AttendUntil(node, now, [count] { return Ends().size() == count; });
        EXPECT_EQ(Ends().back(),
                  "4: Session with node 'n1' ended. Exit status: 255. Last output: bad key");
        EXPECT_EQ(node.Poll(now), now + pause);
        node.Poll(now + pause - 1ms);
        EXPECT_EQ(Starts(), count);
        now += pause;
        node.Poll(now);
        AttendUntil(node, now, [count] { return Starts() == count + 1; });
    }
}

TEST_F(Nodes, AfterALongSessionThePauseIsShortAgain) {
    SupervisedNode node = Playing("exit 1\n");
    node.Start(begin_);
    AttendUntil(node, begin_, [] { return Ends().size() == 1; });
    node.Poll(begin_ + 1s);
    AttendUntil(node, begin_ + 1s, [] { return Ends().size() == 2; });
    // Starts the third session, which ends a minute later on the test clock.
    node.Poll(begin_ + 3s);
    AttendUntil(node, begin_ + 63s, [] { return Ends().size() == 3; });
    EXPECT_EQ(node.Poll(begin_ + 63s), begin_ + 64s);
}

TEST_F(Nodes, AfterACommandWasGrantedThePauseIsShortAgain) {
    SupervisedNode node = Playing(
        "n=$(wc -c < starts)\n"
        "if test $n -ge 3; then echo RESERVE 1; head -c 24 > answer; fi\nexit 1\n");
    node.Start(begin_);
    AttendUntil(node, begin_, [] { return Ends().size() == 1; });
    AttendUntil(node, begin_ + 1s, [] { return Ends().size() == 2; });
    EXPECT_EQ(node.Poll(begin_ + 1s), begin_ + 3s);
    AttendUntil(node, begin_ + 3s, [] { return Ends().size() == 3; });
    EXPECT_EQ(node.Poll(begin_ + 3s), begin_ + 4s);
    EXPECT_EQ(storage_.reserved, 0) << "the reservation ends with its session";
}

TEST_F(Nodes, NoSecondClientWhileTheFirstIsThere) {
    SupervisedNode node = Playing("trap '' TERM\nexec >&-\nwhile :; do sleep 0.05; done\n");
    node.Start(begin_);
    AttendUntil(node, begin_, [] { return !Log(4).empty(); });
    EXPECT_EQ(Log(4), (Lines{"4: Client disconnected. Close"}));
    for (auto now = begin_; now < begin_ + 20s; now += 500ms) {
        EXPECT_EQ(node.Poll(now), now + 100ms);
    }
    EXPECT_EQ(Starts(), 1U);
    EXPECT_EQ(Ends(), Lines());
    AttendUntil(node, begin_ + 20s, [] { return Ends().size() == 1; });
    EXPECT_EQ(Ends(), (Lines{"4: Session with node 'n1' ended. Exit status: 137"}));
}

TEST_F(Nodes, AnOrdinaryEndOfTheServerIsNotWorthALine) {
    SupervisedNode node = Playing("cat > input\n");
    node.Start(begin_);
    AttendUntil(node, begin_, [] { return local_files::Has("input"); });
    node.Close();
    const auto since = Clock::now();
    while (!node.FinishWithin(100ms, since)) continue;
    EXPECT_EQ(Log(), Lines());
}

// The first client ends only after the second one, so the server must ask both at once.
TEST_F(Nodes, ClientsThatMustBeAskedToEndAreAskedAtTheSameTime) {
    const std::string script =
        "if mkdir first 2>/dev/null; then\n"
        "  trap 'for i in $(seq 50); do [ -e second ] && exit 0; sleep 0.1; done; exit 3' TERM\n"
        "else\n"
        "  trap 'mkdir second; exit 0' TERM\n"
        "fi\n"
        "echo >> ready\n"
        "while :; do sleep 0.05; done\n";
    std::vector<SupervisedNode> nodes;
    nodes.push_back(Playing(script));
    nodes.push_back(Playing(script));
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        nodes[i].Start(begin_);
        const auto ready = [i] {
            return local_files::Has("ready") && local_files::Load("ready").size() == i + 1;
        };
        for (int wait = 0; wait < 30000 && !ready(); ++wait) usleep(1000);
        ASSERT_TRUE(ready());
    }
    for (SupervisedNode& node : nodes) node.Close();
    FinishAll(nodes, Clock::now() - 11s);
    EXPECT_EQ(Ends(), Lines());
}

TEST_F(Nodes, AFailureAtTheEndOfTheServerIs) {
    SupervisedNode node = Playing("cat > input\necho lost the disk >&2\nexit 1\n");
    node.Start(begin_);
    AttendUntil(node, begin_, [] { return local_files::Has("input"); });
    node.Close();
    const auto since = Clock::now();
    while (!node.FinishWithin(100ms, since)) continue;
    EXPECT_EQ(Log(),
              (Lines{"4: Session with node 'n1' ended. Exit status: 1. Last output: lost the "
                     "disk"}));
}

// --- NodeSessions ---

class Sessions : public Nodes {
  protected:
    // Installs an ssh that records its arguments.
    Sessions() {
        Script("bin/ssh", "echo \"$*\" >> calls\nexit 255\n");
        Script("sbin/quarn2_cp", "echo >> starts\ncat > /dev/null\n");
        setenv("PATH", (root_.path() + "/bin:" + path_).c_str(), 1);
    }
    ~Sessions() override { setenv("PATH", path_.c_str(), 1); }

    static std::string Calls() {
        return local_files::Has("calls") ? local_files::Load("calls") : "";
    }

    const std::string path_ = getenv("PATH");
};

TEST_F(Sessions, OneForThisMachineAndOneForEachDifferentNode) {
    NodeSessions sessions(
        storage_, loop_,
        Arguments({"--node", "b", "--node", "a", "--node", "b", "--node", "c:x@d:2222"}));
    sessions.Start(begin_);
    AttendUntil(sessions, begin_, [] { return Ends().size() == 3 && Starts() == 1; });
    const std::string program = " /usr/local/kro5/sbin/quarn2_cp --client\n";
    for (const char* call : {"-p 22 a", "-p 22 b", "-p 2222 x@d"}) {
        EXPECT_NE(Calls().find("-i etc/.ssh/master_id " + (call + program)), std::string::npos)
            << call;
    }
    Lines ends = Ends();
    std::sort(ends.begin(), ends.end());
    EXPECT_EQ(ends, (Lines{"4: Session with node 'a' ended. Exit status: 255",
                           "4: Session with node 'b' ended. Exit status: 255",
                           "4: Session with node 'c:x@d:2222' ended. Exit status: 255"}));
    sessions.End();
    EXPECT_EQ(Starts(), 1U);
}

TEST_F(Sessions, SaysHowLongItCanBeLeftAlone) {
    NodeSessions sessions(storage_, loop_, Arguments({"--node", "a"}));
    sessions.Start(begin_);
    EXPECT_LE(sessions.Poll(begin_), 1000ms);
    AttendUntil(sessions, begin_, [] { return Ends().size() == 1; });
    EXPECT_EQ(sessions.Poll(begin_ + 300ms), 700ms);
}

TEST_F(Sessions, EndsOnItsOwnWhenTheServerFails) {
    {
        NodeSessions sessions(storage_, loop_, Arguments({}));
        sessions.Start(begin_);
        AttendUntil(sessions, begin_, [] { return Starts() == 1; });
    }
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "no child is left";
}

}  // namespace
