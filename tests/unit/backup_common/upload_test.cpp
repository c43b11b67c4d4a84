// The upload worker: eviction on request, attempts, and abandoned uploads.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <utility>

#include "gate.h"
#include "kro/kro_err.h"
#include "master_server.h"
#include "program_site.h"
#include "quarn2_backend/registry.h"
#include "quarn2_cp2_put_node.h"
#include "quarn2_cp2_put_source.h"

namespace {

constexpr const char* kSlice = "b/F2026-11-15.web1.1.dar";
constexpr const char* kAttempts = "b/F2026-11-15.web1.1.dar.attempts";
const std::string kPutlast = std::string("PUTLAST ") + kSlice;

class UploadTest : public ProgramSite {
  protected:
    UploadTest() { Place(kSlice, "12345"); }

    // Makes the first `times` calls of Put fail, or every call if `times` is negative.
    void FailPuts(kro_err::Kind kind, int times = -1) {
        failures_left_ = times;
        store_->SetHook([this, kind](const std::string& operation, const std::string&) {
            if (operation != "Put" || failures_left_ == 0) return;
            --failures_left_;
            throw kro_err::Error(kind, "boom");
        });
    }

    Lines Puts() const {
        Lines puts;
        for (const std::string& line : store_->log()) {
            if (line.starts_with("Put ")) puts.push_back(line);
        }
        return puts;
    }

    kro_thread::SafeLock lock_;
    std::atomic<int> failures_left_{0};
};

std::string Line(int attempt) {
    return "4: Cant upload: F2026-11-15.web1.1.dar. What: boom. Attempt: " +
           std::to_string(attempt) + " of 3";
}
const std::string kWait = "6: Wait 60 seconds before next attempt";

// Returns the log without the lines about the node client itself.
Lines UploadLog(const Lines& log) {
    Lines lines;
    for (const std::string& line : log) {
        if (!line.starts_with("5: Client.") && !line.starts_with("6: PUT result")) {
            lines.push_back(line);
        }
    }
    return lines;
}

// --- A full storage ---

TEST_F(UploadTest, ARefusedFileAsksForEvictionsUntilNoneIsLeft) {
    MasterServer server("memory:site");
    store_->SetCapacity(4);
    NodeSide node(lock_, server.link());
    EXPECT_EQ(TextOf<std::runtime_error>([&] { node.Serve(kPutlast + " DELETE"); }),
              "Upload failed");
    EXPECT_EQ(server.lines(), (Lines{"RESERVE 5", "DROPONE 1", "DROPONE 0"}));
    EXPECT_EQ(Puts().size(), 3U);
    EXPECT_TRUE(local_files::Has(kSlice)) << "the upload is not abandoned, the job may try again";
    EXPECT_FALSE(local_files::Has(kAttempts));
    EXPECT_EQ(fake_clock::Sleeps(), std::vector<int>());
}

TEST_F(UploadTest, AnEvictionThatMakesRoomLetsTheFileIn) {
    MasterServer server("memory:site", [this](const std::string& line) {
        if (line == "DROPONE 0") store_->SetCapacity(5);
        return MasterServer::Usual(line);
    });
    store_->SetCapacity(4);
    NodeSide node(lock_, server.link());
    EXPECT_EQ(node.Serve(kPutlast), "OK F2026-11-15.web1.1.dar 5");
    EXPECT_EQ(server.lines(), (Lines{"RESERVE 5", "DROPONE 1", "DROPONE 0"}));
    EXPECT_EQ(store_->files().at("F2026-11-15.web1.1.dar"), "12345");
}

TEST_F(UploadTest, ARefusedEvictionReleasesAndIsNoFailedUpload) {
    MasterServer server("memory:site", [](const std::string& line) {
        return line.starts_with("DROPONE") ? "ERR Upload failed and limit is set"
                                           : MasterServer::Usual(line);
    });
    store_->SetCapacity(4);
    NodeSide node(lock_, server.link());
    EXPECT_EQ(node.Serve(kPutlast), "OK F2026-11-15.web1.1.dar 5");
    EXPECT_EQ(server.lines(), (Lines{"RESERVE 5", "DROPONE 1", "RELEASE 5"}));
    EXPECT_FALSE(local_files::Has(kSlice));
    EXPECT_EQ(local_files::Load(kAttempts), "2026-11-20 12:00:00 Upload failed and limit is set\n");
    EXPECT_EQ(UploadLog(Log(7)), (Lines{"3: Upload abandoned: F2026-11-15.web1.1.dar. What: "
                                        "Upload failed and limit is set"}));
    EXPECT_EQ(Stored(), Lines());
}

TEST_F(UploadTest, ALinkThatBreaksAtAnEvictionKeepsTheFile) {
    MasterServer server("memory:site", [](const std::string& line) -> std::optional<std::string> {
        if (line.starts_with("DROPONE")) return std::nullopt;
        return MasterServer::Usual(line);
    });
    store_->SetCapacity(4);
    NodeSide node(lock_, server.link());
    EXPECT_EQ(TextOf<std::runtime_error>([&] { node.Serve(kPutlast); }),
              "Failed to get answer size from server");
    EXPECT_TRUE(local_files::Has(kSlice));
    EXPECT_FALSE(local_files::Has(kAttempts));
}

// --- A failing storage ---

TEST_F(UploadTest, ALocalStorageThatDisappearsGivesTheReservationBack) {
    Place("storage/F2026-11-15.web1.1.dar/in the way", "");
    MasterServer server("local:storage");
    NodeSide node(lock_, server.link());
    fake_clock::OnSleep([](int) { std::filesystem::remove_all("storage"); });
    EXPECT_EQ(TextOf<std::runtime_error>([&] { node.Serve(kPutlast); }), "Failed upload");
    EXPECT_EQ(server.lines(), (Lines{"RESERVE 5", "RELEASE 5"}));
    EXPECT_EQ(fake_clock::Sleeps(), (std::vector<int>{60000, 60000}));
    EXPECT_TRUE(local_files::Has(kAttempts));
}

TEST_F(UploadTest, ThreeErrorsGiveTheFileUp) {
    MasterServer server("memory:site");
    FailPuts(kro_err::Kind::kUnavailable);
    NodeSide node(lock_, server.link());
    EXPECT_EQ(TextOf<std::runtime_error>([&] { node.Serve(kPutlast); }), "Failed upload");
    EXPECT_EQ(UploadLog(Log(7)), (Lines{Line(1), kWait, Line(2), kWait, Line(3)}));
    EXPECT_EQ(fake_clock::Sleeps(), (std::vector<int>{60000, 60000}));
    EXPECT_EQ(server.lines(), (Lines{"RESERVE 5", "RELEASE 5"}));
    EXPECT_EQ(Puts().size(), 3U);
    EXPECT_FALSE(local_files::Has(kSlice));
    EXPECT_EQ(local_files::Load(kAttempts), "2026-11-20 12:02:00 boom\n");
}

TEST_F(UploadTest, ThreeErrorsInTheBackgroundFailTheNextPutOfTheBackup) {
    MasterServer server("memory:site");
    FailPuts(kro_err::Kind::kFailed, 3);
    Place("b/F2026-11-15.web1.2.dar", "x");
    NodeSide node(lock_, server.link());
    EXPECT_EQ(node.Serve(std::string("PUT ") + kSlice), "OK F2026-11-15.web1.1.dar 5");
    EXPECT_EQ(TextOf<std::runtime_error>([&] { node.Serve("PUT b/F2026-11-15.web1.2.dar"); }),
              "Failed upload");
    EXPECT_EQ(fake_clock::Sleeps(), (std::vector<int>{60000, 60000}));
    EXPECT_EQ(UploadLog(Log(4)), (Lines{Line(1), Line(2), Line(3)}));
}

TEST_F(UploadTest, ALaterAttemptThatSucceedsForgetsTheEarlierOnes) {
    for (const int errors : {1, 2}) {
        fake_clock::Reset();
        ClearLog();
        MasterServer server("memory:site");
        FailPuts(kro_err::Kind::kUnavailable, errors);
        NodeSide node(lock_, server.link());
        EXPECT_EQ(node.Serve(kPutlast), "OK F2026-11-15.web1.1.dar 5");
        EXPECT_EQ(server.lines(), (Lines{"RESERVE 5"}));
        Lines expected;
        for (int attempt = 1; attempt <= errors; ++attempt) {
            expected.push_back(Line(attempt));
            expected.push_back(kWait);
        }
        EXPECT_EQ(UploadLog(Log(7)), expected);
        EXPECT_EQ(fake_clock::Sleeps(), std::vector<int>(static_cast<std::size_t>(errors), 60000));
        EXPECT_FALSE(local_files::Has(kAttempts));
        EXPECT_TRUE(local_files::Has(kSlice));
    }
}

TEST_F(UploadTest, EveryAttemptAfterAnErrorOpensTheStorageAfresh) {
    int opened = 0;
    quarn2::BackendScheme counting = *quarn2::FindScheme("memory");
    counting.scheme = "counting";
    counting.open = [&opened](const quarn2::BackupToken& token) {
        ++opened;
        return quarn2::FindScheme("memory")->open(token);
    };
    quarn2::RegisterScheme(counting);
    MasterServer server("counting:site");
    FailPuts(kro_err::Kind::kUnavailable, 2);
    NodeSide node(lock_, server.link());
    EXPECT_EQ(opened, 1) << "the node client's own";
    node.Serve(kPutlast);
    EXPECT_EQ(opened, 4) << "and the upload's, once more after each failed attempt";
    counting.open = quarn2::FindScheme("memory")->open;
    quarn2::RegisterScheme(counting);
}

TEST_F(UploadTest, RefusedCredentialsGiveTheFileUpAtOnce) {
    MasterServer server("memory:site");
    FailPuts(kro_err::Kind::kUnauthorized);
    NodeSide node(lock_, server.link());
    EXPECT_EQ(TextOf<std::runtime_error>([&] { node.Serve(kPutlast); }), "Failed upload");
    EXPECT_EQ(UploadLog(Log(7)), Lines());
    EXPECT_EQ(fake_clock::Sleeps(), std::vector<int>());
    EXPECT_EQ(server.lines(), (Lines{"RESERVE 5", "RELEASE 5"}));
    EXPECT_EQ(Puts().size(), 1U);
    EXPECT_FALSE(local_files::Has(kSlice));
    EXPECT_EQ(local_files::Load(kAttempts), "2026-11-20 12:00:00 boom\n");
}

TEST_F(UploadTest, CredentialsRefusedLaterEndTheAttempts) {
    MasterServer server("memory:site");
    failures_left_ = 1;
    store_->SetHook([this](const std::string& operation, const std::string&) {
        if (operation != "Put") return;
        const bool first = failures_left_.exchange(0) == 1;
        throw kro_err::Error(first ? kro_err::Kind::kUnavailable : kro_err::Kind::kUnauthorized,
                             "boom");
    });
    NodeSide node(lock_, server.link());
    EXPECT_EQ(TextOf<std::runtime_error>([&] { node.Serve(kPutlast); }), "Failed upload");
    EXPECT_EQ(UploadLog(Log(7)), (Lines{Line(1), kWait}));
    EXPECT_EQ(fake_clock::Sleeps(), (std::vector<int>{60000}));
}

TEST_F(UploadTest, ASleepingUploadHoldsNoLock) {
    MasterServer server("memory:site");
    FailPuts(kro_err::Kind::kUnavailable, 1);
    bool free = false;
    fake_clock::OnSleep([&](int) {
        free = lock_.try_lock();
        if (free) lock_.unlock();
    });
    NodeSide node(lock_, server.link());
    node.Serve(kPutlast);
    EXPECT_TRUE(free);
}

TEST_F(UploadTest, ReleaseNamesTheSizeOfTheLatestPut) {
    Place("b/F2026-11-15.web2.1.dar", "1234567");
    MasterServer server("memory:site");
    Gate gate;
    store_->SetHook([&](const std::string& operation, const std::string& name) {
        if (operation != "Put" || name != "F2026-11-15.web1.1.dar") return;
        gate.Pass();
        throw kro_err::Error(kro_err::Kind::kUnauthorized, "boom");
    });
    {
        NodeSide node(lock_, server.link());
        node.Serve(std::string("PUT ") + kSlice);
        gate.WaitForArrival();
        node.Serve("PUT b/F2026-11-15.web2.1.dar");
        gate.Open();
    }
    EXPECT_EQ(server.lines(), (Lines{"RESERVE 5", "RESERVE 7", "RELEASE 7"}));
}

// --- The local file ---

TEST_F(UploadTest, ASuccessfulUploadRemovesTheFileOnlyWhenAsked) {
    MasterServer server("memory:site");
    NodeSide node(lock_, server.link());
    node.Serve(kPutlast);
    EXPECT_TRUE(local_files::Has(kSlice));
    node.Serve(kPutlast + " DELETE");
    EXPECT_FALSE(local_files::Has(kSlice));
    EXPECT_FALSE(local_files::Has(kAttempts));
}

// --- A local file that changes during the upload ---

class ChangingSource : public UploadTest {
  protected:
    // Makes the change at the first Put.
    template <class Change>
    void AtPut(const Change& change) {
        store_->SetHook([this, change](const std::string& operation, const std::string&) {
            if (operation == "Put" && !std::exchange(changed_, true)) change();
        });
    }

    static void Replace(const std::string& content) {
        Place("b/new", content);
        std::filesystem::rename("b/new", kSlice);
    }
    // Advances the modification time by one second, because both writes may fall into one tick of
    // the file system's clock.
    static void Rewrite(const std::string& content) {
        Place(kSlice, content);
        using namespace std::chrono_literals;
        std::filesystem::last_write_time(kSlice, std::filesystem::last_write_time(kSlice) + 1s);
    }

    std::string Serve(const std::string& command) {
        NodeSide node(lock_, server_.link());
        return TextOf<std::runtime_error>([&] { node.Serve(command); });
    }

    bool changed_ = false;
    MasterServer server_{"memory:site"};
};

const std::string kServed = "(no exception)";

TEST_F(ChangingSource, AFileThatReplacedItStays) {
    AtPut([] { Replace("newer"); });
    EXPECT_EQ(Serve(kPutlast + " DELETE"), kServed);
    EXPECT_EQ(store_->files().at("F2026-11-15.web1.1.dar"), "12345");
    EXPECT_EQ(local_files::Load(kSlice), "newer");
    EXPECT_EQ(
        UploadLog(Log(4)),
        (Lines{
            "4: 'b/F2026-11-15.web1.1.dar' is not removed: it is not the file that was uploaded"}));
}

TEST_F(ChangingSource, OneThatWasRemovedIsStoredAllTheSame) {
    AtPut([] { std::filesystem::remove(kSlice); });
    EXPECT_EQ(Serve(kPutlast + " DELETE"), kServed);
    EXPECT_EQ(store_->files().at("F2026-11-15.web1.1.dar"), "12345");
    EXPECT_EQ(UploadLog(Log(4)), Lines());
}

TEST_F(UploadTest, AFileThatIsRemovedBeforeItsUploadFailsWithoutAnotherAttempt) {
    MasterServer server("memory:site", [](const std::string& line) {
        if (line.starts_with("RESERVE")) std::filesystem::remove(kSlice);
        return MasterServer::Usual(line);
    });
    NodeSide node(lock_, server.link());
    EXPECT_EQ(TextOf<std::runtime_error>([&] { node.Serve(kPutlast + " DELETE"); }),
              "Failed upload");
    EXPECT_EQ(fake_clock::Sleeps(), std::vector<int>());
    EXPECT_EQ(server.lines(), (Lines{"RESERVE 5", "RELEASE 5"}));
    EXPECT_THAT(UploadLog(Log(3)), testing::ElementsAre(testing::StartsWith(
                                       "3: Upload abandoned: F2026-11-15.web1.1.dar. What: ")));
}

TEST_F(ChangingSource, OneThatWasRewrittenFailsAndStays) {
    AtPut([] { Rewrite("54321"); });
    EXPECT_EQ(Serve(kPutlast + " DELETE"), "Failed upload");
    EXPECT_EQ(Stored(), Lines());
    EXPECT_EQ(local_files::Load(kSlice), "54321");
    EXPECT_EQ(fake_clock::Sleeps(), std::vector<int>()) << "its size was promised to the job";
    EXPECT_EQ(server_.lines(), (Lines{"RESERVE 5", "RELEASE 5"}));
    EXPECT_EQ(UploadLog(Log(4)).front(),
              "3: Upload abandoned: F2026-11-15.web1.1.dar. What: 'b/F2026-11-15.web1.1.dar' was "
              "rewritten while it was uploaded");
}

TEST_F(ChangingSource, OneThatBecameLongerFailsAndStays) {
    AtPut([] { Place(kSlice, "123456"); });
    EXPECT_EQ(Serve(kPutlast + " DELETE"), "Failed upload");
    EXPECT_EQ(Stored(), Lines());
    EXPECT_EQ(local_files::Load(kSlice), "123456");
}

TEST_F(ChangingSource, OneThatWasReplacedBetweenTwoAttemptsIsNotUploadedInItsPlace) {
    FailPuts(kro_err::Kind::kUnavailable, 1);
    fake_clock::OnSleep([](int) { Replace("newer and longer"); });
    EXPECT_EQ(Serve(kPutlast + " DELETE"), "Failed upload");
    EXPECT_EQ(Stored(), Lines());
    EXPECT_EQ(local_files::Load(kSlice), "newer and longer");
    EXPECT_EQ(Puts().size(), 1U);
}

TEST_F(ChangingSource, AfterThreeErrorsAFileThatReplacedItStays) {
    FailPuts(kro_err::Kind::kUnavailable);
    fake_clock::OnSleep([](int) { Replace("newer"); });
    EXPECT_EQ(Serve(kPutlast + " DELETE"), "Failed upload");
    EXPECT_EQ(local_files::Load(kSlice), "newer");
    EXPECT_TRUE(local_files::Has(kAttempts));
}

TEST_F(ChangingSource, ARefusedEvictionRemovesNoOtherFile) {
    MasterServer server("memory:site", [](const std::string& line) {
        if (!line.starts_with("DROPONE")) return MasterServer::Usual(line);
        Replace("newer");
        return std::optional<std::string>("ERR no room");
    });
    store_->SetCapacity(4);
    NodeSide node(lock_, server.link());
    node.Serve(kPutlast);
    EXPECT_EQ(local_files::Load(kSlice), "newer");
}

TEST(CompareSource, TellsWhichOfTheTwoChanged) {
    struct stat status {};
    status.st_dev = 1;
    status.st_ino = 2;
    status.st_size = 3;
    status.st_mtim = {4, 5};
    const FileIdentity opened(status);
    EXPECT_EQ(CompareSource(opened, opened, opened), SourceState::kUnchanged);
    EXPECT_EQ(CompareSource(opened, opened, std::nullopt), SourceState::kReplaced);
    for (int field = 0; field < 5; ++field) {
        struct stat other = status;
        if (field == 0) ++other.st_dev;
        if (field == 1) ++other.st_ino;
        if (field == 2) ++other.st_size;
        if (field == 3) ++other.st_mtim.tv_sec;
        if (field == 4) ++other.st_mtim.tv_nsec;
        const FileIdentity changed(other);
        EXPECT_EQ(CompareSource(opened, opened, changed), SourceState::kReplaced) << field;
        EXPECT_EQ(CompareSource(opened, changed, changed), SourceState::kRewritten) << field;
        EXPECT_EQ(CompareSource(opened, changed, opened), SourceState::kRewritten) << field;
    }
}

TEST_F(UploadTest, AFileOfNoBytesIsStored) {
    Place(kSlice, "");
    MasterServer server("memory:site");
    NodeSide node(lock_, server.link());
    EXPECT_EQ(node.Serve(kPutlast), "OK F2026-11-15.web1.1.dar 0");
    EXPECT_EQ(server.lines(), (Lines{"RESERVE 0"}));
    EXPECT_EQ(store_->files().at("F2026-11-15.web1.1.dar"), "");
}

TEST_F(UploadTest, ADirectoryThatCannotBeMadeFailsTheCommandAfterItsReservation) {
    Place("w/web1/2026-11-15/F.tgz", "1");
    store_->SetFile("web1", "in the way");
    MasterServer server("memory:site");
    NodeSide node(lock_, server.link());
    EXPECT_EQ(TextOf<kro_err::Error>([&] { node.Serve("PUT w/web1/2026-11-15/F.tgz"); }),
              "'web1' on the storage is not a directory");
    EXPECT_EQ(server.lines(), (Lines{"RESERVE 1"}));
}

TEST_F(UploadTest, AnIdleUploadIsJoinedAtOnce) {
    Upload upload;
    EXPECT_NO_THROW(upload.Join());
}

}  // namespace
