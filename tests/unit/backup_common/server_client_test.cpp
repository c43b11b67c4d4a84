// The process of a node client: its start, its last output and its end.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "program_site.h"
#include "quarn2_cp2_server_client.h"

namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

// --- LastWords ---

std::string WordsOf(const Lines& pieces) {
    LastWords words;
    for (const std::string& piece : pieces) words.Add(piece.data(), piece.size());
    return words.Text();
}

TEST(LastWords, NothingSaidIsNothing) {
    EXPECT_EQ(WordsOf({}), "");
    EXPECT_EQ(WordsOf({"", "\n", "\r\n", "\n"}), "");
}

TEST(LastWords, LinesInPiecesBecomeOneLine) {
    EXPECT_EQ(WordsOf({"Connection ", "refused\r", "\nlost"}), "Connection refused; lost");
    EXPECT_EQ(WordsOf({"a\n\n", "b\n"}), "a; b");
    EXPECT_EQ(WordsOf({"half a li"}), "half a li");
}

TEST(LastWords, OnlyTheEndIsKept) {
    const std::string most(LastWords::kMaxSize, 'x');
    EXPECT_EQ(WordsOf({most}), most);
    EXPECT_EQ(WordsOf({"y" + most}), "..." + most);
    LastWords words;
    for (int i = 0; i < 100000; ++i) words.Add("line\n", 5);
    words.Add("the end", 7);
    const std::string text = words.Text();
    EXPECT_TRUE(text.starts_with("..."));
    EXPECT_TRUE(text.ends_with("; line; the end"));
    EXPECT_LT(text.size(), 2 * LastWords::kMaxSize);
}

TEST(LastWords, AZeroByteHidesNothing) { EXPECT_EQ(WordsOf({"a\0b"s}), "a?b"); }

// --- ClientProcess ---

class NodeClientProcess : public ProgramSite {
  protected:
    static void WaitForEnd(ClientProcess& client) {
        for (int i = 0; i < 600 && !client.HasEnded(100ms); ++i) client.Listen();
        ASSERT_TRUE(client.HasEnded());
    }
};

TEST_F(NodeClientProcess, TellsStatusAndLastWords) {
    ClientProcess client({"/bin/sh", "-c", "echo no such host >&2; exit 255"});
    client.Start();
    WaitForEnd(client);
    EXPECT_EQ(client.status(), 255);
    EXPECT_EQ(client.last_words(), "no such host");
}

TEST_F(NodeClientProcess, HasNoTerminalAndNoTokenInItsEnvironment) {
    setenv("BACKUP_TOKEN", "memory:secret", 1);
    setenv("SSH_ASKPASS", "/bin/false", 1);
    ClientProcess client({"/bin/sh", "-c",
                          "cat /proc/self/environ | tr '\\0' '\\n' | grep -E '^(BACKUP|SSH_ASK)';"
                          " cut -d ' ' -f 6 /proc/$$/stat; echo $$"});
    const ClientProcess::Pipes pipes = client.Start();
    WaitForEnd(client);
    char text[256];
    const ssize_t size = read(pipes.from_client, text, sizeof text);
    ASSERT_GT(size, 0);
    const std::string pid = std::to_string(client.pid());
    EXPECT_EQ(std::string(text, static_cast<std::size_t>(size)),
              "SSH_ASKPASS_REQUIRE=never\n" + pid + "\n" + pid + "\n")
        << "it leads a session of its own";
    unsetenv("SSH_ASKPASS");
}

TEST_F(NodeClientProcess, SaysMoreThanAPipeHoldsAndIsNotHeldUp) {
    ClientProcess client({"/bin/sh", "-c", "head -c 1000000 /dev/zero >&2; echo done >&2"});
    client.Start();
    WaitForEnd(client);
    EXPECT_EQ(client.status(), 0);
    EXPECT_TRUE(client.last_words().ends_with("done"));
    EXPECT_LT(client.last_words().size(), 2 * LastWords::kMaxSize);
}

TEST_F(NodeClientProcess, IsLeftAloneThenAskedThenMadeToEnd) {
    // This script reports the SIGTERM and does not end.
    ClientProcess client(
        {"/bin/sh", "-c", "trap 'echo asked >&2' TERM; echo up; while :; do sleep 0.01; done"});
    const ClientProcess::Pipes pipes = client.Start();
    char text[8];
    while (read(pipes.from_client, text, sizeof text) < 0) usleep(1000);
    const auto begin = ClientProcess::Clock::now();
    const ClientProcess::KillTimes times{10s, 20s};
    client.SignalWhenDue(begin, begin + 9s, times);
    EXPECT_FALSE(client.HasEnded(50ms));
    EXPECT_EQ(client.last_words(), "");
    client.SignalWhenDue(begin, begin + 10s, times);
    client.SignalWhenDue(begin, begin + 11s, times);
    for (int i = 0; i < 1000 && client.last_words().empty(); ++i) {
        EXPECT_FALSE(client.HasEnded(10ms));
        client.Listen();
    }
    EXPECT_EQ(client.last_words(), "asked") << "once";
    client.SignalWhenDue(begin, begin + 20s, times);
    WaitForEnd(client);
    EXPECT_EQ(client.status(), 128 + SIGKILL);
}

TEST_F(NodeClientProcess, OneThatNeverRanHasEnded) {
    ClientProcess client({"/no/such/program"});
    EXPECT_ANY_THROW(client.Start());
    EXPECT_TRUE(client.HasEnded());
    EXPECT_EQ(client.last_words(), "");
    client.SignalWhenDue(ClientProcess::Clock::now() - 100s, ClientProcess::Clock::now(), {1s, 2s});
}

TEST_F(NodeClientProcess, SshIsRemoteAndOurOwnProgramIsNot) {
    EXPECT_TRUE(ClientProcess(NodeClientCommand("a:a:22", "key")).is_remote());
    EXPECT_FALSE(ClientProcess(NodeClientCommand("local", "key")).is_remote());
    EXPECT_FALSE(ClientProcess({}).is_remote());
}

}  // namespace
