// The node client: the exchanges over the master link, the accounting key of a file, the control
// commands.
#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <thread>

#include "gate.h"
#include "kro/kro_err.h"
#include "master_server.h"
#include "program_site.h"
#include "quarn2_cp2_put_node.h"

namespace {

using quarn2::Expect;

constexpr const char* kFirst = "b/F2026-11-15.web1.1.dar";
constexpr const char* kSecond = "b/F2026-11-15.web1.2.dar";
constexpr const char* kInfo = "b/2026-11-15.web1.info";

class Node : public ProgramSite {
  protected:
    Node() {
        Place(kFirst, "first");
        Place(kSecond, "second!");
        Place(kInfo, "last-slice=F2026-11-15.web1.2.dar\nsize=512\ntype=full\n");
    }

    // Makes the upload of kFirst wait at the gate.
    void HoldFirstUpload(Gate& gate) {
        store_->SetHook([&gate](const std::string& operation, const std::string& name) {
            if (operation == "Put" && name == "F2026-11-15.web1.1.dar") gate.Pass();
        });
    }

    // Stores the slices that the info file names.
    void StoreSlices() {
        store_->SetFile("F2026-11-15.web1.1.dar", "first");
        store_->SetFile("F2026-11-15.web1.2.dar", "second!");
    }

    kro_thread::SafeLock lock_;
};

// --- Frames ---

std::string ResultOf(const std::string& bytes) {
    auto [in, out] = kro_proc::Pipe();
    EXPECT_EQ(write(out, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    out.Close();
    return NodeSide::GetResult(in);
}

TEST_F(Node, FramesOfEveryLengthAroundAPieceAreReadWhole) {
    for (const std::size_t size : {0U, 1U, 31U, 32U, 33U, 64U, 65U, 1000U}) {
        const std::string text = local_files::Noise(size);
        EXPECT_EQ(ResultOf(Frame(text) + "next"), text);
    }
    EXPECT_EQ(Log().front(), "8: static std::string NodeSide::GetResult()");
}

TEST_F(Node, AFrameWithoutItsWholeLengthIsAnError) {
    for (const std::string& bytes : {std::string(), std::string("\1"), std::string("\1\0\0", 3)}) {
        EXPECT_EQ(TextOf<std::runtime_error>([&] { ResultOf(bytes); }),
                  "Failed to get answer size from server");
    }
}

TEST_F(Node, AFrameWithoutItsWholeTextIsAnError) {
    const std::string frame = Frame(std::string(40, 'x'));
    for (const std::size_t cut : {4U, 5U, 35U, 36U, 43U}) {
        EXPECT_EQ(TextOf<std::runtime_error>([&] { ResultOf(frame.substr(0, cut)); }),
                  "Failed to get answer from server");
    }
}

TEST_F(Node, AShortReadIsNotTriedAgain) {
    auto [in, out] = kro_proc::Pipe();
    const std::string frame = Frame(std::string(40, 'x'));
    ASSERT_EQ(write(out, frame.data(), 14), 14);
    EXPECT_EQ(
        TextOf<std::runtime_error>([&, fd = static_cast<int>(in)] { NodeSide::GetResult(fd); }),
        "Failed to get answer from server");
}

// --- The link ---

TEST_F(Node, TheTokenComesOverTheLink) {
    const MasterServer server("memory:site");
    const NodeSide node(lock_, server.link());
    EXPECT_EQ(node.token().path(), "site");
    EXPECT_EQ(Log(), (Lines{"8: static std::string NodeSide::GetResult()",
                            "5: Client. Backup token = 'memory:site'"}));
}

TEST_F(Node, ATokenThatCannotBeUsedEndsTheStart) {
    const MasterServer server("");
    EXPECT_EQ(TextOf<kro_err::Error>([&] { NodeSide(lock_, server.link()); }),
              "the storage token is empty: set BACKUP_TOKEN, for instance to local:///srv/backups");
}

// Calls DoCommand while the server gives the answer that the test supplies, and returns the result.
class Exchange : public Node {
  protected:
    std::string Do(const std::optional<std::string>& answer, const std::string& command = "X\n") {
        MasterServer server("memory:site", [&](const std::string&) { return answer; });
        NodeSide node(lock_, server.link());
        ClearLog();
        return node.DoCommand(command);
    }
};

TEST_F(Exchange, TheAnswerIsWhatStandsBehindOk) {
    EXPECT_EQ(Do("OK 12"), "12");
    EXPECT_EQ(Do("OK"), "");
    EXPECT_EQ(Do("OK a b  c"), "a b  c");
    EXPECT_EQ(Log(), (Lines{"8: DoCommand command = X\\n",
                            "8: static std::string NodeSide::GetResult()"}));
}

TEST_F(Exchange, AnErrorIsACommandErrorWithItsText) {
    EXPECT_EQ(TextOf<CommandError>([&] { Do("ERR No disk space left on storage. Size limit: 5"); }),
              "No disk space left on storage. Size limit: 5");
    EXPECT_EQ(TextOf<CommandError>([&] { Do(""); }), "");
    EXPECT_EQ(TextOf<CommandError>([&] { Do("OKAY 1"); }), "1");
}

TEST_F(Exchange, AClosedLinkIsNoCommandError) {
    bool command_error = false;
    const std::string text = TextOf<std::runtime_error>([&] {
        try {
            Do(std::nullopt);
        } catch (const CommandError&) {
            command_error = true;
            throw;
        }
    });
    EXPECT_EQ(text, "Failed to get answer size from server");
    EXPECT_FALSE(command_error) << "the link broke, the server refused nothing";
}

TEST_F(Exchange, AServerThatIsGoneCannotBeWrittenTo) {
    auto answers = kro_proc::Pipe();
    auto commands = kro_proc::Pipe();
    const std::string frame = Frame("memory:site");
    ASSERT_EQ(write(answers.second, frame.data(), frame.size()),
              static_cast<ssize_t>(frame.size()));
    commands.first.Close();
    NodeSide node(lock_, {answers.first, commands.second});
    EXPECT_EQ(TextOf<CommandError>([&] { node.DoCommand("X\n"); }),
              "Failed to write data to server");
    EXPECT_TRUE(lock_.try_lock()) << "the lock is let go on every path";
    lock_.unlock();
}

TEST_F(Exchange, ExchangesOfSeveralThreadsDoNotMix) {
    MasterServer server("memory:site", [](const std::string& line) { return "OK " + line; });
    NodeSide node(lock_, server.link());
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&node, i] {
            for (int turn = 0; turn < 50; ++turn) {
                const std::string text = std::to_string(i) + ":" + std::to_string(turn);
                EXPECT_EQ(node.DoCommand(text + "\n"), text);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(server.lines().size(), 200U);
}

// --- Key ---

TEST_F(Node, KeyIsTheNameThatABackupsFilesShare) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"b/2026-11-20.web1.info", "2026-11-20.web1"},
        {"/srv/b/F2026-11-20.web1.12.dar", "2026-11-20.web1"},
        {"I2026-11-20.web1.tgz.part2", "2026-11-20.web1"},
        {"F2026-11-20.web1.tgz", "2026-11-20.web1"},
        {"2026-11-20.web1.1.dar", "2026-11-20.web1"},
        {"2026-11-20.web1.tgz.aes", "2026-11-20.web1"},
        {"C2026-11-20.web1.tgz", "custom.web1"},
        {"C2026-11-20.web1.3.dar", "custom.web1"},
        {"C0123456789.rest.tgz", "custom.rest"},
        {"C0123456789.rest", "custom.rest"},
        {"custom.web1.info", "custom.web1"},
        {"Fred.info", "Fred"},
        {"Cx", "custom"},
        {"x", "x"},
        {"", ""}};
    for (const auto& [path, key] : cases) EXPECT_EQ(NodeSide::Key(path), key) << path;
}

// --- PUT ---

TEST_F(Node, PutReservesAnswersAndUploads) {
    MasterServer server("memory:site");
    {
        NodeSide node(lock_, server.link());
        EXPECT_EQ(node.Serve(std::string("PUT ") + kFirst), "OK F2026-11-15.web1.1.dar 5");
        EXPECT_EQ(node.size(), 5);
        EXPECT_FALSE(node.delete_after());
    }
    EXPECT_EQ(server.lines(), (Lines{"RESERVE 5"}));
    EXPECT_EQ(store_->files(),
              (std::map<std::string, std::string>{{"F2026-11-15.web1.1.dar", "first"}}));
    EXPECT_TRUE(local_files::Has(kFirst));
    const Lines log = Log(7);
    EXPECT_EQ(log, (Lines{"5: Client. Backup token = 'memory:site'",
                          "6: PUT result: 'OK F2026-11-15.web1.1.dar 5'"}));
}

TEST_F(Node, PutOfADirectoryFormGoesToItsDirectory) {
    Place("w/web1/2026-11-15/F2026-11-15.web1.1.dar", "1");
    MasterServer server("memory:site");
    {
        NodeSide node(lock_, server.link());
        EXPECT_EQ(node.Serve("PUT w/web1/2026-11-15/F2026-11-15.web1.1.dar"),
                  "OK web1/2026-11-15/F2026-11-15.web1.1.dar 1");
    }
    EXPECT_EQ(store_->log(),
              (Lines{"MakeDir web1/2026-11-15", "Put web1/2026-11-15/F2026-11-15.web1.1.dar"}));
}

TEST_F(Node, PutAnswersBeforeTheUploadEndsAndTheNextPutWaits) {
    MasterServer server("memory:site");
    Gate gate;
    HoldFirstUpload(gate);
    {
        NodeSide node(lock_, server.link());
        node.Serve(std::string("PUT ") + kFirst);
        gate.WaitForArrival();
        EXPECT_EQ(Stored(), Lines());
        auto second = std::async(std::launch::async,
                                 [&] { return node.Serve(std::string("PUT ") + kSecond); });
        EXPECT_EQ(second.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
        EXPECT_EQ(store_->log(), (Lines{"Put F2026-11-15.web1.1.dar"}));
        gate.Open();
        EXPECT_EQ(second.get(), "OK F2026-11-15.web1.2.dar 7");
    }
    EXPECT_EQ(server.lines(), (Lines{"RESERVE 5", "RESERVE 7"}));
    EXPECT_EQ(Stored(), (Lines{"F2026-11-15.web1.1.dar", "F2026-11-15.web1.2.dar"}));
}

TEST_F(Node, PutsOfDifferentBackupsRunSideBySide) {
    Place("b/F2026-11-15.web2.1.dar", "x");
    MasterServer server("memory:site");
    Gate gate;
    HoldFirstUpload(gate);
    {
        NodeSide node(lock_, server.link());
        node.Serve(std::string("PUT ") + kFirst);
        gate.WaitForArrival();
        node.Serve("PUT b/F2026-11-15.web2.1.dar");
        for (int i = 0; i < 10000 && Stored().empty(); ++i) usleep(1000);
        EXPECT_EQ(Stored(), (Lines{"F2026-11-15.web2.1.dar"}));
        gate.Open();
    }
    EXPECT_EQ(Stored().size(), 2U) << "the end waits for the uploads";
}

TEST_F(Node, DeleteSuffixIsNoPartOfThePath) {
    MasterServer server("memory:site");
    {
        NodeSide node(lock_, server.link());
        EXPECT_EQ(node.Serve(std::string("PUT ") + kFirst + " DELETE"),
                  "OK F2026-11-15.web1.1.dar 5");
        EXPECT_TRUE(node.delete_after());
        EXPECT_EQ(node.Serve(std::string("PUT ") + kSecond), "OK F2026-11-15.web1.2.dar 7");
        EXPECT_FALSE(node.delete_after());
    }
    EXPECT_FALSE(local_files::Has(kFirst));
    EXPECT_TRUE(local_files::Has(kSecond));
    EXPECT_EQ(Stored(), (Lines{"F2026-11-15.web1.1.dar", "F2026-11-15.web1.2.dar"}));
}

// The kernel ends the path at the NUL byte, but the storage would use the name that follows this
// byte.
TEST_F(Node, APathWithANulByteIsRefused) {
    const std::string path = std::string(kFirst) + '\0' + "/I2026-11-16.web2.tgz";
    {
        const MasterServer server("memory:site");
        NodeSide node(lock_, server.link());
        for (const std::string& command : {"PUT " + path + " DELETE", "PUTLAST " + path + " DELETE",
                                           std::string("DELETE ") + kInfo + '\0'}) {
            EXPECT_EQ(TextOf<std::runtime_error>([&] { node.Serve(command); }),
                      "A command with a NUL byte is refused");
        }
    }
    EXPECT_EQ(Stored(), Lines{});
    EXPECT_TRUE(local_files::Has(kFirst));
    EXPECT_TRUE(local_files::Has(kInfo));
}

TEST_F(Node, DirectoriesWithBlanksAreServed) {
    Place("a dir/F2026-11-15.web1.1.dar", "x");
    MasterServer server("memory:site");
    {
        NodeSide node(lock_, server.link());
        EXPECT_EQ(node.Serve("PUT a dir/F2026-11-15.web1.1.dar DELETE"),
                  "OK F2026-11-15.web1.1.dar 1");
    }
    EXPECT_FALSE(local_files::Has("a dir/F2026-11-15.web1.1.dar"));
}

TEST_F(Node, ARefusedReservationFailsThePutBeforeAnUpload) {
    MasterServer server("memory:site", [](const std::string&) {
        return "ERR No disk space left on storage. Size limit: 3";
    });
    NodeSide node(lock_, server.link());
    EXPECT_EQ(TextOf<CommandError>([&] { node.Serve(std::string("PUT ") + kFirst + " DELETE"); }),
              "No disk space left on storage. Size limit: 3");
    EXPECT_EQ(store_->log(), Lines());
    EXPECT_TRUE(local_files::Has(kFirst));
}

TEST_F(Node, PutOfAMissingFileReservesNothing) {
    MasterServer server("memory:site");
    NodeSide node(lock_, server.link());
    EXPECT_EQ(TextOf<kro_err::Error>([&] { node.Serve("PUT b/none.tgz"); }),
              "Failed to examine 'b/none.tgz': No such file or directory");
    EXPECT_EQ(server.lines(), Lines());
}

TEST_F(Node, AFailedUploadFailsTheNextPutAfterItsReservation) {
    MasterServer server("memory:site");
    store_->SetHook([](const std::string& operation, const std::string&) {
        if (operation == "Put") throw kro_err::Error(kro_err::Kind::kUnauthorized, "go away");
    });
    NodeSide node(lock_, server.link());
    node.Serve(std::string("PUT ") + kFirst);
    EXPECT_EQ(TextOf<std::runtime_error>([&] { node.Serve(std::string("PUT ") + kSecond); }),
              "Failed upload");
    EXPECT_EQ(TextOf<std::runtime_error>([&] { node.Serve(std::string("PUTLAST ") + kInfo); }),
              "Failed upload");
    const Lines lines = server.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "RESERVE 7"), 1);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "RESERVE 53"), 0);
    EXPECT_EQ(store_->log(), (Lines{"Put F2026-11-15.web1.1.dar"}));
    EXPECT_TRUE(local_files::Has(kSecond));
}

TEST_F(Node, WhatLeftTheUploadsThreadFailsTheNextPutToo) {
    MasterServer server("memory:site", [](const std::string& line) {
        return line.starts_with("RESERVE") ? "OK 0" : "OK";
    });
    store_->SetCapacity(0);
    NodeSide node(lock_, server.link());
    node.Serve(std::string("PUT ") + kFirst);
    EXPECT_EQ(TextOf<std::runtime_error>([&] { node.Serve(std::string("PUT ") + kSecond); }),
              "Upload failed");
    EXPECT_EQ(Log(3), (Lines{"3: Upload failed"}));
}

// --- PUTLAST ---

TEST_F(Node, PutlastOfAnInfoFileReportsTheBackup) {
    MasterServer server("memory:site");
    StoreSlices();
    NodeSide node(lock_, server.link());
    node.Serve(std::string("PUT ") + kFirst + " DELETE");
    EXPECT_EQ(node.Serve(std::string("PUTLAST ") + kInfo), "OK 2026-11-15.web1.info 53");
    EXPECT_EQ(server.lines(),
              (Lines{"RESERVE 5", "RESERVE 53", "COMPLETE web1 2026-11-15 full 512"}));
    EXPECT_EQ(store_->log(), (Lines{"Put F2026-11-15.web1.1.dar", "List F2026-11-15.web1.2.dar",
                                    "Put 2026-11-15.web1.info"}));
    EXPECT_TRUE(local_files::Has(kInfo));
}

TEST_F(Node, ABackupIsReportedWhenItsInfoFileIsStored) {
    MasterServer server("memory:site");
    Lines reported;
    StoreSlices();
    store_->SetHook([&](const std::string&, const std::string&) { reported = server.lines(); });
    NodeSide node(lock_, server.link());
    node.Serve(std::string("PUTLAST ") + kInfo);
    EXPECT_EQ(reported, (Lines{"RESERVE 53"}));
    EXPECT_EQ(server.lines(), (Lines{"RESERVE 53", "COMPLETE web1 2026-11-15 full 512"}));
}

TEST_F(Node, ABackupWhoseInfoFileIsNotStoredIsNotReported) {
    MasterServer server("memory:site");
    StoreSlices();
    store_->SetHook([](const std::string& operation, const std::string&) {
        if (operation == "Put") throw kro_err::Error(kro_err::Kind::kUnauthorized, "no");
    });
    NodeSide node(lock_, server.link());
    EXPECT_EQ(TextOf<std::runtime_error>([&] { node.Serve(std::string("PUTLAST ") + kInfo); }),
              "Failed upload");
    EXPECT_EQ(server.lines(), (Lines{"RESERVE 53", "RELEASE 53"}));
}

TEST_F(Node, PutlastWaitsForTheBackupsUpload) {
    MasterServer server("memory:site");
    Gate gate;
    HoldFirstUpload(gate);
    NodeSide node(lock_, server.link());
    node.Serve(std::string("PUT ") + kFirst);
    gate.WaitForArrival();
    auto last =
        std::async(std::launch::async, [&] { return node.Serve(std::string("PUTLAST ") + kInfo); });
    EXPECT_EQ(last.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    EXPECT_EQ(store_->log(), (Lines{"Put F2026-11-15.web1.1.dar"}));
    EXPECT_EQ(server.lines(), (Lines{"RESERVE 5"})) << "nothing is evicted for a backup that fails";
    store_->SetFile("F2026-11-15.web1.2.dar", "second!");
    gate.Open();
    EXPECT_EQ(last.get(), "OK 2026-11-15.web1.info 53");
    EXPECT_EQ(store_->log(), (Lines{"Put F2026-11-15.web1.1.dar", "List F2026-11-15.web1.2.dar",
                                    "Put 2026-11-15.web1.info"}));
}

TEST_F(Node, PutlastOfADataFileReportsNothing) {
    MasterServer server("memory:site");
    NodeSide node(lock_, server.link());
    EXPECT_EQ(node.Serve(std::string("PUTLAST ") + kSecond), "OK F2026-11-15.web1.2.dar 7");
    EXPECT_EQ(server.lines(), (Lines{"RESERVE 7"}));
    EXPECT_EQ(Stored(), (Lines{"F2026-11-15.web1.2.dar"}));
}

TEST_F(Node, CompleteCarriesWhatTheInfoFileSays) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"b/2026-11-16.a.b.example.info", "COMPLETE a.b.example 2026-11-16 incremental 7"},
        {"b/custom.web1.info", "COMPLETE web1 custom incremental 7"}};
    for (const auto& [path, line] : cases) {
        Place(path, "size=7\ntype=incremental");
        MasterServer server("memory:site");
        NodeSide node(lock_, server.link());
        node.Serve("PUTLAST " + path);
        EXPECT_EQ(server.lines(), (Lines{"RESERVE 23", line}));
    }
}

TEST_F(Node, AnswerToCompleteCountsForTheEvictionsToCome) {
    MasterServer server("memory:site", [](const std::string& line) {
        return line.starts_with("COMPLETE") ? "OK 7" : "OK 2";
    });
    StoreSlices();
    NodeSide node(lock_, server.link());
    node.Serve(std::string("PUTLAST ") + kInfo);
    EXPECT_EQ(node.UseOneEviction(), 6);
}

TEST_F(Node, EvictionsAreCountedDownToNone) {
    MasterServer server("memory:site");
    NodeSide node(lock_, server.link());
    EXPECT_EQ(node.UseOneEviction(), -1);
    node.Serve(std::string("PUTLAST ") + kSecond);
    EXPECT_EQ(node.UseOneEviction(), 1);
    EXPECT_EQ(node.UseOneEviction(), 0);
    EXPECT_EQ(node.UseOneEviction(), -1);
    EXPECT_EQ(node.UseOneEviction(), -1);
}

// --- Other words ---

TEST_F(Node, UnknownWordsAreAnsweredAndDoNothing) {
    MasterServer server("memory:site");
    NodeSide node(lock_, server.link());
    for (const char* command : {"STAT", "", "put b/a", "PUTLASTX b", " PUT b"}) {
        EXPECT_EQ(node.Serve(command), "OK") << command;
    }
    EXPECT_EQ(server.lines(), Lines());
    EXPECT_EQ(store_->log(), Lines());
}

TEST_F(Node, DeleteAndDeleteallDeleteTheBackup) {
    MasterServer server("memory:site");
    NodeSide node(lock_, server.link());
    Place("b/2026-11-16.web1.info", "base=F2026-11-15.web1.tgz\ntype=incremental");
    store_->SetFile("F2026-11-15.web1.1.dar", "x");
    EXPECT_EQ(TextOf<std::runtime_error>([&] { node.Serve(std::string("DELETE ") + kInfo); }),
              "Failed to delete backup. Depended backup 'b/2026-11-16.web1.info' still exists");
    EXPECT_EQ(node.Serve(std::string("DELETEALL ") + kInfo), "OK");
    EXPECT_EQ(Stored(), Lines());
    EXPECT_FALSE(local_files::Has(kInfo));
    EXPECT_FALSE(local_files::Has("b/2026-11-16.web1.info"));
    EXPECT_EQ(server.lines(), Lines());
}

}  // namespace
