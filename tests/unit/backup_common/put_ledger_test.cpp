// The ledger of a node client: its records of uploads, and the conditions for a complete backup.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <future>

#include "gate.h"
#include "kro/kro_err.h"
#include "master_server.h"
#include "program_site.h"
#include "quarn2/token.h"
#include "quarn2_cp2_ledger.h"
#include "quarn2_cp2_put_ledger.h"
#include "quarn2_cp2_put_node.h"

namespace {

constexpr const char* kFirst = "b/F2026-11-15.web1.1.dar";
constexpr const char* kSecond = "b/F2026-11-15.web1.2.dar";
constexpr const char* kIndex = "b/2026-11-15.web1.1.dar";
constexpr const char* kInfo = "b/2026-11-15.web1.info";
const std::string kFirstName = "F2026-11-15.web1.1.dar";
const std::string kSecondName = "F2026-11-15.web1.2.dar";
const std::string kEntry = "F2026-11-15.web1";
const std::string kDone = "OK 2026-11-15.web1.info 53";
const std::string kIdentity = "memory:///site";

std::string Missing(const std::string& name, const std::string& reason) {
    return "the backup is not complete: '" + name + "' is missing: " + reason +
           ". Put this file again, or repeat the whole job";
}

class LedgerOfPuts : public ProgramSite {
  protected:
    LedgerOfPuts() {
        Place(kFirst, "first");
        Place(kSecond, "second!");
        Place(kIndex, "index");
        Place(kInfo, "last-slice=F2026-11-15.web1.2.dar\nsize=512\ntype=full\n");
    }

    // Simulates a node client that died during this upload.
    static void Die(const std::string& name, const std::string& storage = "") {
        Ledger(storage).Update(Ledger(storage).EntryNameOf(name), [&name](LedgerEntry& entry) {
            entry.storage = kIdentity;
            entry.slices[name] = {SliceState::kUploading, 5, ""};
        });
    }

    void FailPuts(const std::string& of, kro_err::Kind kind = kro_err::Kind::kUnauthorized) {
        store_->SetHook([of, kind](const std::string& operation, const std::string& name) {
            if (operation == "Put" && name == of) throw kro_err::Error(kind, "no");
        });
    }

    static std::string Put(NodeSide& node, const std::string& path) {
        return TextOf<std::exception>([&] { EXPECT_NE(node.Serve("PUT " + path), ""); });
    }
    static std::string PutLast(NodeSide& node, const std::string& path = kInfo) {
        std::string answer;
        const std::string error =
            TextOf<std::exception>([&] { answer = node.Serve("PUTLAST " + path); });
        return answer.empty() ? error : answer;
    }

    std::ptrdiff_t Completions() {
        const Lines lines = server_.lines();
        return std::count_if(lines.begin(), lines.end(),
                             [](const std::string& line) { return line.starts_with("COMPLETE"); });
    }

    static SliceState StateOf(const std::string& name, const std::string& entry = kEntry) {
        return Ledger().Read(entry).slices.at(name).state;
    }

    kro_thread::SafeLock lock_;
    MasterServer server_{"memory:site"};
};

TEST_F(LedgerOfPuts, ACompleteBackupLeavesNoEntry) {
    NodeSide node(lock_, server_.link());
    node.Serve(std::string("PUT ") + kFirst);
    node.Serve(std::string("PUT ") + kSecond);
    node.Serve(std::string("PUT ") + kIndex);
    EXPECT_EQ(PutLast(node), kDone);
    EXPECT_EQ(Below("var/quarn2_cp.ledger"), (Lines{".lock"}));
}

TEST_F(LedgerOfPuts, AnEntryIsReadableAndComplete) {
    {
        NodeSide node(lock_, server_.link());
        node.Serve(std::string("PUT ") + kFirst);
        node.Serve(std::string("PUT ") + kSecond);
    }
    const std::string text = local_files::Load("var/quarn2_cp.ledger/" + kEntry);
    EXPECT_EQ(text,
              "date=2026-11-15\nslice-1=stored 5 F2026-11-15.web1.1.dar\n"
              "slice-2=stored 7 F2026-11-15.web1.2.dar\nstarted=2026-11-20 12:00:00\n"
              "storage=memory:///site\nuser=web1");
    const LedgerEntry entry = LedgerEntry::Parse(kEntry, text);
    EXPECT_EQ(entry.Format(), text);
    EXPECT_EQ(entry.Bytes(), 12);
    EXPECT_TRUE(entry.IsOpen());
}

TEST_F(LedgerOfPuts, AnUploadUnderWayIsRecordedBeforeItBegins) {
    Gate gate;
    store_->SetHook([&](const std::string& operation, const std::string&) {
        if (operation == "Put") gate.Pass();
    });
    NodeSide node(lock_, server_.link());
    node.Serve(std::string("PUT ") + kFirst);
    gate.WaitForArrival();
    EXPECT_EQ(StateOf(kFirstName), SliceState::kUploading);
    EXPECT_TRUE(Ledger().IsUploading(kEntry));
    gate.Open();
}

TEST_F(LedgerOfPuts, ASliceThatDiedWithItsClientIsMissing) {
    Die(kFirstName);
    NodeSide node(lock_, server_.link());
    EXPECT_EQ(node.Serve(std::string("PUT ") + kSecond), "OK F2026-11-15.web1.2.dar 7");
    const std::string missing = Missing(kFirstName, "its upload was interrupted");
    EXPECT_EQ(PutLast(node), missing);
    EXPECT_EQ(PutLast(node), missing);
    EXPECT_EQ(Completions(), 0);
    node.Serve(std::string("PUT ") + kFirst);
    EXPECT_EQ(PutLast(node), kDone);
}

TEST_F(LedgerOfPuts, ASliceThatWasNeverPutIsMissing) {
    NodeSide node(lock_, server_.link());
    node.Serve(std::string("PUT ") + kSecond);
    EXPECT_EQ(PutLast(node), Missing(kFirstName, "the storage does not have it"));
    EXPECT_EQ(Completions(), 0);
}

TEST_F(LedgerOfPuts, ASliceThatAnEarlierVersionPutIsAskedForByName) {
    store_->SetFile(kFirstName, "first");
    NodeSide node(lock_, server_.link());
    node.Serve(std::string("PUT ") + kSecond);
    EXPECT_EQ(PutLast(node), kDone);
}

TEST_F(LedgerOfPuts, TheLastSliceIsAlwaysAskedFor) {
    NodeSide node(lock_, server_.link());
    node.Serve(std::string("PUT ") + kFirst);
    node.Serve(std::string("PUTLAST ") + kSecond);
    quarn2::GetStorage(quarn2::BackupToken("memory:site"))->RemoveFile(kSecondName);
    EXPECT_EQ(PutLast(node), Missing(kSecondName, "the storage does not have it"));
}

TEST_F(LedgerOfPuts, NothingIsReservedForTheInfoFileOfAnIncompleteBackup) {
    NodeSide node(lock_, server_.link());
    PutLast(node);
    EXPECT_EQ(server_.lines(), Lines());
}

TEST_F(LedgerOfPuts, ASliceThatWasDroppedForWantOfSpaceIsMissing) {
    MasterServer server("memory:site", [](const std::string& line) {
        return line.starts_with("DROPONE") ? "ERR Upload failed and limit is set"
                                           : MasterServer::Usual(line);
    });
    store_->SetCapacity(6);
    NodeSide node(lock_, server.link());
    node.Serve(std::string("PUT ") + kSecond);
    EXPECT_EQ(Put(node, kFirst), "(no exception)") << "the job is not told";
    EXPECT_EQ(PutLast(node), Missing(kSecondName, "its upload was abandoned"));
}

TEST_F(LedgerOfPuts, AnInfoFileThatTheStorageHasNoRoomForCompletesNothing) {
    MasterServer server("memory:site", [](const std::string& line) {
        return line.starts_with("DROPONE") ? "ERR Upload failed and limit is set"
                                           : MasterServer::Usual(line);
    });
    store_->SetFile(kFirstName, "first");
    store_->SetFile(kSecondName, "second!");
    store_->SetCapacity(20);
    NodeSide node(lock_, server.link());
    EXPECT_EQ(PutLast(node), "Failed upload");
    for (const std::string& line : server.lines()) EXPECT_FALSE(line.starts_with("COMPLETE"));
}

TEST_F(LedgerOfPuts, ARefusedSliceIsMissing) {
    bool refuse = true;
    MasterServer server("memory:site", [&refuse](const std::string& line) {
        return std::exchange(refuse, false) ? "ERR No disk space left on storage. Size limit: 3"
                                            : MasterServer::Usual(line);
    });
    NodeSide node(lock_, server.link());
    EXPECT_EQ(Put(node, kFirst), "No disk space left on storage. Size limit: 3");
    EXPECT_EQ(Put(node, kIndex), "(no exception)");
    Place(kInfo, "size=512\ntype=full\n");
    EXPECT_EQ(PutLast(node), Missing(kFirstName, "its upload was refused"));
    node.Serve(std::string("PUT ") + kFirst);
    EXPECT_NE(PutLast(node).find("OK "), std::string::npos);
}

TEST_F(LedgerOfPuts, ARefusedPutLeavesACompleteBackupAsItIs) {
    MasterServer server("memory:site", [](const std::string&) {
        return "ERR No disk space left on storage. Size limit: 3";
    });
    NodeSide node(lock_, server.link());
    Put(node, kFirst);
    EXPECT_FALSE(Ledger().Read(kEntry).IsOpen());
}

TEST_F(LedgerOfPuts, ARefusedPutDoesNotCompleteABackupWhoseSliceIsReplacedAlready) {
    Ledger().Update(kEntry, [](LedgerEntry& entry) {
        entry.storage = kIdentity;
        entry.slices[kFirstName] = {SliceState::kStored, 5, ""};
    });
    MasterServer server("memory:site", [](const std::string&) {
        return "ERR No disk space left on storage. Size limit: 3";
    });
    NodeSide node(lock_, server.link());
    Put(node, kFirst);
    EXPECT_TRUE(Ledger().Read(kEntry).IsOpen());
    EXPECT_EQ(PutLast(node), Missing(kFirstName, "its upload was abandoned"));
}

TEST_F(LedgerOfPuts, ACompleteBackupThatIsMadeAgainNeedsEverySliceAgain) {
    Place("var/backup/tovarn/2026-11-15.web1.info",
          "last-slice=F2026-11-15.web1.3.dar\nsize=900\ntype=full\n");
    for (const char* number : {"1", "2", "3"}) {
        store_->SetFile(std::string("F2026-11-15.web1.") + number + ".dar", "old");
    }
    NodeSide node(lock_, server_.link());
    node.Serve(std::string("PUT ") + kFirst);
    EXPECT_EQ(PutLast(node),
              Missing(kSecondName, "it was removed or belongs to an earlier run of the job"));
    node.Serve(std::string("PUT ") + kSecond);
    EXPECT_EQ(PutLast(node), kDone);
    const LedgerEntry left = Ledger().Read(kEntry);
    EXPECT_FALSE(left.IsOpen());
    EXPECT_EQ(left.slices.size(), 1U) << "slice 3 belongs to no backup any more";
    EXPECT_EQ(left.Bytes(), 900) << "it has no more than the earlier backup had";
}

TEST_F(LedgerOfPuts, SlicesOfADailyThatBecomesAFullBackupAreLeftOverAndCount) {
    Place("var/backup/tovarn/2026-11-15.web1.info",
          "last-slice=I2026-11-15.web1.2.dar\nsize=900\ntype=incremental\n");
    NodeSide node(lock_, server_.link());
    node.Serve(std::string("PUT ") + kFirst);
    EXPECT_EQ(Ledger().Read(kEntry).Bytes(), 5) << "the daily is still complete";
    node.Serve(std::string("PUT ") + kSecond);
    EXPECT_EQ(PutLast(node), kDone);
    const LedgerEntry left = Ledger().Read(kEntry);
    EXPECT_FALSE(left.IsOpen());
    EXPECT_THAT(left.slices, testing::UnorderedElementsAre(testing::Key("I2026-11-15.web1.1.dar"),
                                                           testing::Key("I2026-11-15.web1.2.dar")));
    EXPECT_GE(left.Bytes(), 900);
}

TEST_F(LedgerOfPuts, ACompletedBackupHasReplacedTheIndexOfAnotherArchiveOfItsDay) {
    const std::string daily = "I2026-11-15.web1";
    Die(daily + ".1.dar");
    Die("2026-11-15.web1.1.dar");
    EXPECT_EQ(Ledger().Read(daily).slices.size(), 2U);
    NodeSide node(lock_, server_.link());
    node.Serve(std::string("PUT ") + kFirst);
    node.Serve(std::string("PUT ") + kSecond);
    EXPECT_EQ(PutLast(node), kDone);
    EXPECT_THAT(Ledger().Read(daily).slices,
                testing::ElementsAre(testing::Key("I2026-11-15.web1.1.dar")));
}

TEST_F(LedgerOfPuts, AFailedIndexFileIsMissingToo) {
    NodeSide node(lock_, server_.link());
    node.Serve(std::string("PUT ") + kFirst);
    node.Serve(std::string("PUT ") + kSecond);
    FailPuts("2026-11-15.web1.1.dar");
    node.Serve(std::string("PUT ") + kIndex);
    EXPECT_EQ(PutLast(node), "Failed upload");
    NodeSide next(lock_, MasterServer("memory:site").link());
    EXPECT_EQ(StateOf("2026-11-15.web1.1.dar"), SliceState::kAbandoned);
}

TEST_F(LedgerOfPuts, ASliceThatTheRepeatedJobDoesNotMakeAgainBlocksNothing) {
    Die("F2026-11-15.web1.3.dar");
    NodeSide node(lock_, server_.link());
    node.Serve(std::string("PUT ") + kFirst);
    node.Serve(std::string("PUT ") + kSecond);
    EXPECT_EQ(PutLast(node), kDone);
    EXPECT_FALSE(Ledger().Read(kEntry).IsOpen());
    EXPECT_EQ(Ledger().Read(kEntry).Bytes(), 5) << "it may be on the storage, so it uses space";
}

TEST_F(LedgerOfPuts, ACustomBackupOfAnEarlierDayBlocksNothing) {
    Die("C2026-11-14.web1.tgz");
    Place("b/C2026-11-15.web1.tgz", "x");
    Place("b/custom.web1.info", "last-slice=C2026-11-15.web1.tgz\nsize=5\ntype=custom\n");
    NodeSide node(lock_, server_.link());
    node.Serve("PUT b/C2026-11-15.web1.tgz");
    EXPECT_NE(PutLast(node, "b/custom.web1.info").find("OK "), std::string::npos);
    EXPECT_TRUE(Ledger().Read("C2026-11-14.web1").IsOpen());
}

TEST_F(LedgerOfPuts, ACompleteCustomBackupTakesTheSharedFilesFromTheEntryOfALaterOne) {
    Ledger("").Update("C2026-11-16.web1", [](LedgerEntry& entry) {
        entry.storage = kIdentity;
        entry.slices["C2026-11-16.web1.1.dar"] = {SliceState::kStored, 5, ""};
        entry.slices["custom.web1.1.dar"] = {SliceState::kStored, 3, ""};
        entry.info = "b/custom.web1.info";
        entry.info_bytes = 7;
    });
    Place("b/C2026-11-15.web1.tgz", "whole");
    Place("b/custom.web1.info", "last-slice=C2026-11-15.web1.tgz\nsize=5\ntype=custom\n");
    NodeSide node(lock_, server_.link());
    node.Serve("PUT b/C2026-11-15.web1.tgz");
    EXPECT_NE(PutLast(node, "b/custom.web1.info").find("OK "), std::string::npos);
    const LedgerEntry later = Ledger("").Read("C2026-11-16.web1");
    EXPECT_TRUE(later.slices.contains("C2026-11-16.web1.1.dar"));
    EXPECT_FALSE(later.slices.contains("custom.web1.1.dar"));
    EXPECT_EQ(later.info, "");
    EXPECT_EQ(later.info_bytes, 0);
}

class EmptyEntryOfALaterCustomBackup : public LedgerOfPuts {
  protected:
    const std::string later_ = "C2026-11-16.web1";

    void CompleteAnEarlierOne(bool is_uploading) {
        Place("b/C2026-11-15.web1.tgz", "whole");
        Place("b/custom.web1.info", "last-slice=C2026-11-15.web1.tgz\nsize=5\ntype=custom\n");
        NodeSide node(lock_, server_.link());
        node.Serve("PUT b/C2026-11-15.web1.tgz");
        EXPECT_TRUE(Ledger("").MakeUnknown(later_));
        const auto uploads = is_uploading ? Ledger("").LockUploads(later_) : nullptr;
        EXPECT_NE(PutLast(node, "b/custom.web1.info").find("OK "), std::string::npos);
    }
};

TEST_F(EmptyEntryOfALaterCustomBackup, EndsWhenAnEarlierOneIsComplete) {
    CompleteAnEarlierOne(false);
    EXPECT_FALSE(Ledger("").Read(later_).IsOpen());
}

TEST_F(EmptyEntryOfALaterCustomBackup, StaysWhileItsJobUploadsAFile) {
    CompleteAnEarlierOne(true);
    EXPECT_TRUE(Ledger("").Read(later_).is_unknown);
}

TEST_F(LedgerOfPuts, ACompleteBackupOwnsItsSlicesInOtherEntries) {
    LedgerEntry open;
    open.slices["I2026-11-15.web1.1.dar"] = {SliceState::kStored, 3, ""};
    open.slices[kFirstName] = {SliceState::kRemoved, 7, ""};
    LedgerEntry completed = open;
    completed.completed = "2026-11-15 01:00:00";
    for (LedgerEntry* entry : {&open, &completed}) entry->DropSlices({kFirstName, kSecondName}, 9);
    EXPECT_EQ(open.Bytes(), 3);
    EXPECT_EQ(open.earlier_bytes, 9);
    EXPECT_EQ(open.slices.at(kFirstName), (LedgerSlice{SliceState::kRemoved, 0, ""}));
    EXPECT_EQ(completed.earlier_bytes, 0);
    EXPECT_EQ(completed.slices.size(), 1U);
    EXPECT_TRUE(completed.slices.contains("I2026-11-15.web1.1.dar"));
}

TEST_F(LedgerOfPuts, AnIndexBelongsToTheLatestJobThatIsNotComplete) {
    const auto start = [](const std::string& name, const std::string& started) {
        Ledger("").Update(name, [&](LedgerEntry& entry) {
            entry.slices[name + ".1.dar"] = {SliceState::kStored, 5, ""};
            entry.started = started;
        });
    };
    start("C2026-11-15.web1", "2026-11-18 01:00:00");
    start("C2026-11-16.web1", "2026-11-18 03:00:00");
    start("C2026-11-17.web1", "2026-11-18 02:00:00");
    EXPECT_EQ(Ledger("").EntryNameOf("b/custom.web1.1.dar"), "C2026-11-16.web1");
    for (const char* name : {"C2026-11-16.web1", "C2026-11-17.web1"}) {
        Ledger("").Update(name,
                          [](LedgerEntry& entry) { entry.completed = "2026-11-18 04:00:00"; });
    }
    EXPECT_EQ(Ledger("").EntryNameOf("b/custom.web1.1.dar"), "C2026-11-15.web1");
}

// The sizes of the single slices of a replaced backup are unknown, so its first slice in the entry
// has the size of all.
TEST_F(LedgerOfPuts, TheOtherSlicesOfAReplacedBackupKeepItsSize) {
    LedgerEntry entry;
    entry.slices["C2026-11-15.web1.1.dar"] = {SliceState::kStored, 5, ""};
    for (const char* number : {"1", "2", "3"}) {
        entry.slices[std::string("C2026-11-14.web1.") + number + ".dar"] = {SliceState::kRemoved, 0,
                                                                            ""};
    }
    entry.earlier_bytes = 900;
    entry.Complete({"C2026-11-15.web1.1.dar"});
    EXPECT_EQ(entry.Bytes(), 902);
    entry.DropSlices({"C2026-11-14.web1.1.dar"}, 300);
    EXPECT_EQ(entry.Bytes(), 901);
    EXPECT_EQ(entry.slices.at("C2026-11-14.web1.2.dar").bytes, 900);
    entry.DropSlices({"C2026-11-14.web1.1.dar", "C2026-11-14.web1.2.dar"}, 300);
    EXPECT_EQ(entry.Bytes(), 900);
    entry.DropSlices({"C2026-11-14.web1.3.dar"}, 300);
    EXPECT_EQ(entry.Bytes(), 0);
}

TEST_F(LedgerOfPuts, AnotherTypeOfArchiveOfTheSameDayBlocksNothing) {
    Die("I2026-11-15.web1.1.dar");
    NodeSide node(lock_, server_.link());
    node.Serve(std::string("PUT ") + kFirst);
    node.Serve(std::string("PUT ") + kSecond);
    EXPECT_EQ(PutLast(node), kDone);
    EXPECT_TRUE(Ledger().Read("I2026-11-15.web1").IsOpen());
}

TEST_F(LedgerOfPuts, OtherBackupsAndStoragesBlockNothing) {
    store_->SetFile(kFirstName, "first");
    store_->SetFile(kSecondName, "second!");
    Die("F2026-11-15.web2.1.dar");
    Die(kFirstName, "alice");
    NodeSide node(lock_, server_.link());
    EXPECT_EQ(PutLast(node), kDone);
    NodeSide alice(lock_, MasterServer("memory:site").link(), "alice");
    EXPECT_EQ(PutLast(alice), Missing(kFirstName, "its upload was interrupted"));
}

TEST_F(LedgerOfPuts, AnEntryOfAnotherStorageSaysNothingOfThisOne) {
    Die(kFirstName);
    Ledger().Update(kEntry, [](LedgerEntry& entry) { entry.storage = "sftp://elsewhere/srv"; });
    store_->SetFile(kFirstName, "first");
    store_->SetFile(kSecondName, "second!");
    NodeSide node(lock_, server_.link());
    EXPECT_EQ(PutLast(node), kDone);
    node.Serve(std::string("PUT ") + kFirst);
    EXPECT_EQ(Ledger().Read(kEntry).storage, kIdentity);
}

TEST_F(LedgerOfPuts, AnotherClientsUploadIsWaitedFor) {
    Die(kFirstName);
    store_->SetFile(kSecondName, "second!");
    auto uploads = Ledger().LockUploads(kEntry);
    ASSERT_TRUE(uploads);
    NodeSide node(lock_, server_.link());
    auto last = std::async(std::launch::async, [&] { return PutLast(node); });
    EXPECT_EQ(last.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    Ledger().Update(
        kEntry, [](LedgerEntry& entry) { entry.slices[kFirstName].state = SliceState::kStored; });
    uploads.reset();
    EXPECT_EQ(last.get(), kDone);
}

TEST_F(LedgerOfPuts, ASliceThatWasRemovedMeanwhileIsMissing) {
    NodeSide node(lock_, server_.link());
    node.Serve(std::string("PUT ") + kFirst);
    node.Serve(std::string("PUTLAST ") + kSecond);
    Ledger().Update(
        kEntry, [](LedgerEntry& entry) { entry.slices[kFirstName].state = SliceState::kRemoved; });
    EXPECT_EQ(PutLast(node),
              Missing(kFirstName, "it was removed or belongs to an earlier run of the job"));
}

// --- Keys ---

class LedgerOfKeys : public LedgerOfPuts {
  protected:
    static std::string Begin(PutLedger& ledger, const std::string& name, const std::string& key) {
        return TextOf<std::runtime_error>([&] { ledger.Begin(name, 1, key)->Stored(); });
    }
    PutLedger ledger_{"", kIdentity};
};

TEST_F(LedgerOfKeys, ASliceWithAnotherKeyIsRefused) {
    EXPECT_EQ(Begin(ledger_, kFirstName, "k1"), "(no exception)");
    EXPECT_EQ(Begin(ledger_, kSecondName, "k2"),
              "'F2026-11-15.web1.2.dar' would be encrypted with another password than the earlier "
              "slices of its backup: repeat the whole job");
    EXPECT_EQ(StateOf(kSecondName), SliceState::kRefused);
    EXPECT_EQ(Begin(ledger_, kSecondName, "k1"), "(no exception)");
}

TEST_F(LedgerOfKeys, ARepeatedJobMayHaveAnotherKeyIfItRepeatsEverySlice) {
    auto storage = quarn2::GetStorage(quarn2::BackupToken("memory:site"));
    quarn2::InfoMap info = {{"last-slice", kSecondName}, {"key_hash", "k2"}};
    store_->SetFile(kFirstName, "x");
    store_->SetFile(kSecondName, "x");
    Begin(ledger_, kFirstName, "k1");
    Begin(ledger_, kSecondName, "k1");
    EXPECT_EQ(Begin(ledger_, kFirstName, "k2"), "(no exception)");
    const auto check = [&] {
        return TextOf<std::runtime_error>([&] { ledger_.CheckComplete(kInfo, info, *storage); });
    };
    EXPECT_EQ(check(),
              Missing(kSecondName, "it is encrypted with another password than the last slice"));
    EXPECT_EQ(Begin(ledger_, kSecondName, "k2"), "(no exception)");
    EXPECT_EQ(check(), "(no exception)");
}

// --- An entry that cannot be written ---

TEST_F(LedgerOfPuts, WithoutALedgerThePutGoesOnAndSaysSo) {
    Place("var/quarn2_cp.ledger/x", "");
    std::filesystem::permissions("var/quarn2_cp.ledger", std::filesystem::perms(0770));
    NodeSide node(lock_, server_.link());
    EXPECT_EQ(Put(node, kFirst), "(no exception)");
    EXPECT_EQ(Put(node, kSecond), "(no exception)");
    EXPECT_EQ(PutLast(node), kDone);
    EXPECT_NE(Log(4).front().find("4: Cant write 'var/quarn2_cp.ledger/F2026-11-15.web1', so an "
                                  "interruption of this backup may not be noticed. What: "),
              std::string::npos)
        << Log(4).front();
}

TEST_F(LedgerOfPuts, AnEmptyEntryIsOpenAndEndsWithTheBackup) {
    EXPECT_TRUE(Ledger().MakeUnknown(kEntry));
    EXPECT_FALSE(Ledger().MakeUnknown(kEntry)) << "there is one";
    EXPECT_TRUE(Ledger().Read(kEntry).IsOpen());
    EXPECT_FALSE(Ledger().Read("F2026-11-16.web1").IsOpen()) << "there is none";
    store_->SetFile(kFirstName, "first");
    store_->SetFile(kSecondName, "second!");
    NodeSide node(lock_, server_.link());
    EXPECT_EQ(PutLast(node), kDone);
    EXPECT_EQ(Below("var/quarn2_cp.ledger"), (Lines{".lock"}));
}

TEST_F(LedgerOfPuts, AnEmptyEntryTakesThePlaceOfNoOther) {
    Die(kFirstName);
    EXPECT_FALSE(Ledger().MakeUnknown(kEntry));
    EXPECT_EQ(StateOf(kFirstName), SliceState::kUploading);
}

TEST_F(LedgerOfPuts, WithoutALedgerTheClientStillKnowsOfItsFailures) {
    Place("var/quarn2_cp.ledger/x", "");
    std::filesystem::permissions("var/quarn2_cp.ledger", std::filesystem::perms(0770));
    store_->SetFile(kFirstName, "of an earlier backup");
    FailPuts(kFirstName);
    NodeSide node(lock_, server_.link());
    Put(node, kFirst);
    EXPECT_EQ(Put(node, kSecond), "Failed upload");
    EXPECT_EQ(Put(node, kSecond), "Failed upload");
}

}  // namespace
