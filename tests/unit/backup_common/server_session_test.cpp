// The transport of a session: it receives lines, sends frames and starts a client.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>

#include "arguments.h"
#include "kro/kro_env.h"
#include "kro/kro_err.h"
#include "master_server.h"
#include "program_site.h"
#include "session_link.h"

namespace {

using quarn2::Expect;

constexpr const char* kReadTrace = "8: quarn2::Expect::Result* MasterSide::Read(ResHandle)";
constexpr const char* kWriteTrace = "8: quarn2::Expect::Result* MasterSide::Write(ResHandle)";

// Replaces the source line numbers in the log lines about the buffer.
Lines WithoutNumbers(Lines lines) {
    static const std::regex number("^9: quarn2_cp2_server\\.cpp:[0-9]+ m_read = ");
    for (std::string& line : lines) {
        line = std::regex_replace(line, number, "9: quarn2_cp2_server.cpp:N m_read = ");
    }
    return lines;
}

std::string Buffer(const std::string& text) {
    return "9: quarn2_cp2_server.cpp:N m_read = '" + text + "'";
}

class Session : public ProgramSite {
  protected:
    Session() {
        storage_.owner = &control_;
        storage_.limit = storage_.free_size = control_.size_limit = 1000;
    }

    Expect::Result* Read() { return link_.session()->Read(link_.read_end()); }
    Expect::Result* Write() { return link_.session()->Write(link_.write_end()); }

    GlobalSizeControl control_;
    GlobalSizeControl::StorageDesc storage_;
    SessionLink link_{storage_};
};

// --- NodeClientCommand ---

TEST(NodeClientCommand, LocalNodeIsTheProgramOfThisInstallRoot) {
    for (const char* node : {"local", "", "anything", "local:"}) {
        EXPECT_EQ(NodeClientCommand(node, "key"),
                  (Lines{kro_env::InstallRoot() + "/sbin/quarn2_cp", "--client"}))
            << node;
    }
    EXPECT_EQ(kro_env::InstallRoot(), "/usr/local/kro5");
}

TEST(NodeClientCommand, RemoteNodeIsReachedWithSsh) {
    EXPECT_EQ(NodeClientCommand("n1:10.0.0.5:2222", "etc/.ssh/master_id"),
              (Lines{"ssh", "-i", "etc/.ssh/master_id", "-p", "2222", "10.0.0.5",
                     "/usr/local/kro5/sbin/quarn2_cp --client"}));
}

TEST(NodeClientCommand, WhatLiesBetweenTheFirstAndTheLastColonIsTheDestination) {
    EXPECT_EQ(NodeClientCommand("n1:backup@fe80::1:22", "k"),
              (Lines{"ssh", "-i", "k", "-p", "22", "backup@fe80::1",
                     "/usr/local/kro5/sbin/quarn2_cp --client"}));
}

// --- Reading ---

TEST_F(Session, InputInPiecesIsGatheredIntoLines) {
    link_.ClientWrites("RESER");
    EXPECT_EQ(Read(), Expect::erOk);
    EXPECT_EQ(WithoutNumbers(Log()), (Lines{kReadTrace, Buffer("RESER"), Buffer("RESER")}));
    ClearLog();
    link_.ClientWrites("VE 70\nREL");
    EXPECT_EQ(Read(), Expect::erOk);
    const Lines log = WithoutNumbers(Log());
    ASSERT_GE(log.size(), 3U);
    EXPECT_EQ(log[0], kReadTrace);
    EXPECT_EQ(log[1], Buffer("RESERVE 70\\nREL"));
    EXPECT_EQ(log[2], "8: ProcessCommand line = 'RESERVE 70'");
    EXPECT_EQ(log.back(), Buffer("REL"));
    EXPECT_EQ(std::count_if(log.begin(), log.end(),
                            [](const auto& line) { return line.starts_with("8: ProcessCommand"); }),
              1);
    EXPECT_EQ(Write(), Expect::erSuspend);
    EXPECT_EQ(link_.Frames(), (Lines{"OK 0"}));
    EXPECT_EQ(storage_.reserved, 70);
    link_.ClientWrites("EASE 20\n");
    EXPECT_EQ(Read(), Expect::erOk);
    EXPECT_EQ(storage_.reserved, 50);
}

TEST_F(Session, SeveralLinesAreHandedOverInOrder) {
    control_.max_count = 3;
    link_.ClientWrites("RESERVE 1\nRELEASE 1\nPING\n\nRESERVE x\n");
    EXPECT_EQ(Read(), Expect::erOk);
    EXPECT_EQ(Write(), Expect::erSuspend);
    EXPECT_EQ(link_.Bytes(),
              Frame("OK 3") + Frame("OK") + Frame("ERR 'x' is not a whole decimal number"));
    Lines handed;
    for (const std::string& line : Log()) {
        if (line.starts_with("8: ProcessCommand")) handed.push_back(line);
    }
    EXPECT_EQ(handed,
              (Lines{"8: ProcessCommand line = 'RESERVE 1'", "8: ProcessCommand line = 'RELEASE 1'",
                     "8: ProcessCommand line = 'PING'", "8: ProcessCommand line = ''",
                     "8: ProcessCommand line = 'RESERVE x'"}));
}

TEST_F(Session, AClientThatHasGoneIsClosedWithALine) {
    link_.client_output().Close();
    EXPECT_EQ(Read(), Expect::erClose);
    EXPECT_EQ(Log(), (Lines{kReadTrace, "4: Client disconnected. Close"}));
}

TEST_F(Session, AClientThatGoesWhileItIsReadIsClosedWithTheSameLine) {
    // Simulates a client that closes the pipe between poll() and read(): poll() reports no hang-up,
    // and read() returns no data.
    const ResHandle ended(open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(link_.session()->Read(ended), Expect::erClose);
    EXPECT_EQ(Log(), (Lines{kReadTrace, "4: Client disconnected. Close"}));
    EXPECT_FALSE(link_.session()->is_open());
}

TEST_F(Session, ADescriptorThatCannotBeReadIsClosedWithoutALine) {
    EXPECT_EQ(link_.session()->Read(link_.write_end()), Expect::erClose);
    EXPECT_EQ(Log(), (Lines{kReadTrace}));
}

TEST_F(Session, NothingToReadIsNoEnd) {
    EXPECT_EQ(Read(), Expect::erOk);
    EXPECT_EQ(WithoutNumbers(Log()), (Lines{kReadTrace, Buffer(""), Buffer("")}));
}

TEST_F(Session, ALineWithoutAnEndDoesNotFillTheMemory) {
    kro_log::Init("quarn2_cp", 8);
    ASSERT_GE(fcntl(link_.client_output(), F_SETPIPE_SZ, 1 << 17), 1 << 17);
    link_.ClientWrites(std::string(65536, 'x'));
    EXPECT_EQ(Read(), Expect::erOk);
    link_.ClientWrites("x");
    EXPECT_EQ(Read(), Expect::erClose);
    EXPECT_EQ(Log(), (Lines{kReadTrace, kReadTrace,
                            "4: Client sent a line of more than 65536 bytes. Close"}));
}

TEST_F(Session, WhatIsNoCommandLeavesTheAccountAlone) {
    using std::string_literals::operator""s;
    for (const std::string& line :
         {"RESERVE -1"s, "RESERVE 9223372036854775808"s, "RESERVE 5\0"s, "RESERVE \0"s,
          "RELEASE -9223372036854775808"s, "COMPLETE u 2026-11-20 full -1"s,
          "COMPLETE u/v 2026-11-20 full 1"s, "COMPLETE u\0 2026-11-20 full 1"s,
          "DROPONE 99999999999"s}) {
        EXPECT_TRUE(link_.Answer(line).starts_with("ERR ")) << line;
    }
    for (const std::string& line : {"\0"s, "PING"s, "RESERVE\0 5"s, "\xff\xfe"s}) {
        EXPECT_EQ(link_.Answers(line), Lines()) << line;
    }
    EXPECT_EQ(storage_.reserved, 0);
    EXPECT_EQ(storage_.limit, 1000);
    EXPECT_EQ(storage_.free_size, 1000);
    EXPECT_TRUE(storage_.users.empty());
    EXPECT_FALSE(link_.session()->has_served());
    EXPECT_EQ(link_.Answer("RESERVE 1"), "OK 0");
    EXPECT_TRUE(link_.session()->has_served());
}

TEST_F(Session, AnswersThatNobodyReadsDoNotFillTheMemory) {
    kro_log::Init("quarn2_cp", 4);
    const std::string lines = [] {
        std::string text;
        for (int i = 0; i < 6000; ++i) text += "RESERVE x\n";
        return text;
    }();
    Expect::Result* result = Expect::erOk;
    int rounds = 0;
    for (; result == Expect::erOk && rounds < 100; ++rounds) {
        link_.ClientWrites(lines);
        result = Read();
    }
    EXPECT_EQ(result, Expect::erClose);
    EXPECT_GT(rounds, 2);
    EXPECT_FALSE(link_.session()->is_open());
    EXPECT_EQ(Log(), (Lines{"4: Client has not read more than 1048576 bytes of answers. Close"}));
}

// --- Writing ---

TEST_F(Session, MessagesAreFramedWithTheirLength) {
    link_.session()->SaveResult("");
    link_.session()->SaveResult("OK 12");
    EXPECT_EQ(Write(), Expect::erSuspend);
    EXPECT_EQ(link_.Bytes(), std::string("\0\0\0\0\5\0\0\0OK 12", 13));
    EXPECT_EQ(Log(),
              (Lines{"8: SaveResult result = ''", "8: SaveResult result = 'OK 12'", kWriteTrace}));
}

TEST_F(Session, AnEmptyBufferSuspendsTheWriter) {
    EXPECT_EQ(Write(), Expect::erSuspend);
    EXPECT_EQ(link_.Bytes(), "");
}

TEST_F(Session, AMessageWakesTheSleepingWriter) {
    link_.loop().Add(link_.write_end(), POLLOUT, link_.session(), &MasterSide::Write);
    link_.loop().Run(0);
    ClearLog();
    link_.loop().Run(20);
    EXPECT_EQ(Log(), Lines()) << "the writer sleeps";
    link_.session()->SaveResult("hello");
    link_.loop().Run(0);
    EXPECT_EQ(link_.Frames(), (Lines{"hello"}));
    ClearLog();
    link_.loop().Run(20);
    EXPECT_EQ(Log(), Lines()) << "and sleeps again";
}

TEST_F(Session, AFullPipeIsWaitedFor) {
    kro_log::Init("quarn2_cp", 7);
    ASSERT_GE(fcntl(link_.write_end(), F_SETPIPE_SZ, 4096), 4096);
    Lines messages;
    for (unsigned i = 0; i < 50; ++i) {
        messages.push_back(local_files::Noise(1000 + i, i));
        link_.session()->SaveResult(messages.back());
    }
    std::string arrived;
    int waits = 0;
    Expect::Result* result = Write();
    while (result == Expect::erOk) {
        ++waits;
        arrived += link_.Bytes();
        result = Write();
    }
    EXPECT_EQ(result, Expect::erSuspend);
    EXPECT_GT(waits, 5);
    EXPECT_EQ(SessionLink::Cut(arrived + link_.Bytes()), messages);
}

TEST_F(Session, AClientThatReadsNoMoreClosesTheWriter) {
    link_.client_input().Close();
    link_.session()->SaveResult("OK");
    ClearLog();
    EXPECT_EQ(Write(), Expect::erClose);
    EXPECT_EQ(Log(), (Lines{kWriteTrace}));
}

TEST_F(Session, TheLoopDropsAClientThatHasGoneAndServesOn) {
    link_.loop().Add(link_.read_end(), POLLIN, link_.session(), &MasterSide::Read);
    link_.client_output().Close();
    link_.loop().Run(10);
    const Lines log = Log(4);
    EXPECT_EQ(log, (Lines{"4: Client disconnected. Close"}));
    EXPECT_FALSE(static_cast<bool>(link_.read_end())) << "its descriptor is closed";
}

TEST_F(Session, AClientOfAClosedLinkSpeaksToNobodyButIntoAWholePipe) {
    link_.loop().Add(link_.read_end(), POLLIN, link_.session(), &MasterSide::Read);
    std::unique_ptr<ClientProcess> client = link_.session()->Close();
    ClearLog();
    link_.ClientWrites("RESERVE 5\n");
    link_.loop().Run(20);
    EXPECT_EQ(Log(), Lines()) << "nobody listens";
    EXPECT_EQ(storage_.reserved, 0);
    client.reset();
    EXPECT_FALSE(static_cast<bool>(link_.read_end())) << "closed with the client's end";
}

// --- The client's process ---

class Child : public ProgramSite {
  protected:
    Child() { kro_env::SetInstallRoot(root_.path()); }
    ~Child() override { kro_env::SetInstallRoot("/usr/local/kro5"); }

    static void Script(const std::string& text) {
        Place("sbin/quarn2_cp", "#!/bin/sh\n" + text);
        ASSERT_EQ(chmod("sbin/quarn2_cp", 0755), 0);
    }

    GlobalSizeControl control_;
    GlobalSizeControl::StorageDesc storage_;
};

TEST_F(Child, CreateStartsTheClientAndOpensWithNameAndToken) {
    setenv("BACKUP_TOKEN", "s3://key:secret@host/bucket", 1);
    Script("echo \"$@\" > arguments\ncat > input\necho done >> arguments\n");
    {
        quarn2::Expect loop;
        MasterSide::Create("web1", storage_, "local", loop, Arguments({}));
        for (int i = 0; i < 1000 && local_files::Load("input").size() < 12; ++i) loop.Run(10);
    }
    EXPECT_EQ(local_files::Load("arguments"), "--client\ndone\n")
        << "the session waits for its end";
    EXPECT_EQ(local_files::Load("input"), Frame("web1") + Frame("s3://key:secret@host/bucket"));
    const Lines log = Log();
    ASSERT_GE(log.size(), 3U);
    EXPECT_EQ(log[0], "8: Create ");
    EXPECT_EQ(log[1], "8: SaveResult result = 'web1'");
    EXPECT_EQ(local_files::Load("var/quarn2_cp.log").find("secret"), std::string::npos);
}

TEST_F(Child, CreateServesTheClientsLines) {
    control_.size_limit = storage_.limit = storage_.free_size = 100;
    control_.max_count = 4;
    storage_.owner = &control_;
    Script("echo RESERVE 60\necho RESERVE 60\ncat > input\n");
    {
        quarn2::Expect loop;
        MasterSide::Create("", storage_, "local", loop, Arguments({}));
        for (int i = 0; i < 1000 && local_files::Load("input").size() < 80; ++i) loop.Run(10);
        EXPECT_EQ(storage_.reserved, 60);
    }
    EXPECT_EQ(local_files::Load("input"),
              Frame("") + Frame("memory:site") + Frame("OK 4") +
                  Frame("ERR No disk space left on storage. Size limit: 100"));
    EXPECT_EQ(storage_.reserved, 0) << "the reservation ends with its session";
}

TEST_F(Child, AClientThatCannotBeStartedIsAnError) {
    quarn2::Expect loop;
    EXPECT_EQ(TextOf<kro_err::Error>(
                  [&] { MasterSide::Create("web1", storage_, "local", loop, Arguments({})); }),
              "Failed to start '" + root_.path() + "/sbin/quarn2_cp': No such file or directory");
}

}  // namespace
