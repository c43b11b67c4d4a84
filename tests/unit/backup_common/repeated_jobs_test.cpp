// Complete backups whose job was repeated and interrupted. Their space counts as used, and without
// their removal no reservation would be granted any more.
#include <gtest/gtest.h>

#include "kro/kro_err.h"
#include "program_site.h"
#include "quarn2/token.h"
#include "quarn2_cp2_ledger.h"
#include "quarn2_cp2_misc_delete.h"
#include "quarn2_cp2_server_model.h"
#include "session_link.h"

namespace {

constexpr const char* kEntry = "F2026-11-15.web1";
constexpr const char* kInfo = "root/2026-11-15.web1.info";

std::string DayOf(int day) { return "2026-11-" + std::to_string(day); }

class InterruptedJob : public ProgramSite {
  protected:
    // The interrupted backup of the 15th uses 830 of 1000 bytes. A job of the 20th needs 200.
    InterruptedJob() {
        Backup(15, "full", 800, 3);
        Backup(18, "full", 100, 1);
        Ledger().Update(kEntry, [](LedgerEntry& entry) {
            entry.storage = "memory:///site";
            entry.slices["F2026-11-15.web1.1.dar"] = {SliceState::kStored, 30, ""};
            entry.slices["F2026-11-15.web1.2.dar"] = {SliceState::kRemoved, 0, ""};
            entry.slices["F2026-11-15.web1.3.dar"] = {SliceState::kRemoved, 0, ""};
        });
        Ledger().Update("F2026-11-20.web2", [](LedgerEntry& entry) {
            entry.storage = "memory:///site";
            entry.slices["F2026-11-20.web2.1.dar"] = {SliceState::kUploading, 200, ""};
        });
        control_.path = "root";
        control_.size_limit = 1000;
        control_.AddStorage(quarn2::GetStorage(quarn2::BackupToken("memory:site")));
    }

    // Places a complete backup on this machine and on the storage.
    void Backup(int day, const std::string& type, int size, int slices) {
        const std::string name = DayOf(day) + ".web1";
        const std::string stem = (type == "full" ? "F" : "I") + name;
        const std::string info = "finished=" + DayOf(day) + " 01:00:00\nlast-slice=" + stem + "." +
                                 std::to_string(slices) + ".dar\nsize=" + std::to_string(size) +
                                 "\ntype=" + type;
        Place("root/" + name + ".info", info);
        store_->SetFile(name + ".info", info);
        for (int i = 1; i <= slices; ++i) {
            store_->SetFile(stem + "." + std::to_string(i) + ".dar", "x");
        }
    }

    void RemoveBackup(int day) { std::filesystem::remove("root/" + DayOf(day) + ".web1.info"); }

    void Start() {
        control_.unfinished = UnfinishedBackups(Ledger(), "memory:///site", Storage());
        control_.Init("2026-11-20");
    }

    quarn2::Storage& Storage() { return *control_.storages.at("").storage; }

    std::string Reserve() {
        SessionLink link(control_.storages.at(""));
        return link.Answer("RESERVE 200");
    }

    void ExpectGone() {
        EXPECT_EQ(Stored(), (Lines{"2026-11-18.web1.info", "F2026-11-18.web1.1.dar"}));
        EXPECT_EQ(Below("root"), (Lines{"2026-11-18.web1.info"}));
        ASSERT_EQ(Ledger().Entries().size(), 1U);
        EXPECT_EQ(Ledger().Entries().front().name, "F2026-11-20.web2");
        EXPECT_EQ(control_.storages.at("").unfinished, 200);
        EXPECT_EQ(control_.storages.at("").free_size, 900);
    }

    void ExpectKept(const std::string& why) {
        SCOPED_TRACE(why);
        const Lines stored = Stored();
        const std::string answer = Reserve();
        EXPECT_EQ(answer.substr(0, 3), "ERR") << answer;
        EXPECT_EQ(Stored(), stored);
        EXPECT_TRUE(local_files::Has(kInfo));
        EXPECT_TRUE(Ledger().Read(kEntry).IsOpen());
    }

    GlobalSizeControl control_;
};

TEST_F(InterruptedJob, IsEvictedForAReservation) {
    Start();
    EXPECT_EQ(control_.storages.at("").unfinished, 1030);
    EXPECT_EQ(Reserve(), "OK 0");
    ExpectGone();
    const Lines log = Log(7);
    EXPECT_EQ(std::count(log.begin(), log.end(),
                         "5: Evict backup '2026-11-15.web1' of an interrupted job, size: 830"),
              1);
    EXPECT_EQ(
        std::count(log.begin(), log.end(), "7: The reason for this eviction is 'size-reserve'"), 1);
}

// The info file on the storage names the slices of the complete backup.
TEST_F(InterruptedJob, IsRemovedCompletelyIfTheJobHasWrittenANewInfoFile) {
    Place(kInfo, "finished=2026-11-19 01:00:00\nsize=800\ntype=full");
    Ledger().Update(kEntry, [](LedgerEntry& entry) {
        entry.slices.erase("F2026-11-15.web1.2.dar");
        entry.slices.erase("F2026-11-15.web1.3.dar");
    });
    Start();
    EXPECT_EQ(Reserve(), "OK 0");
    ExpectGone();
}

TEST_F(InterruptedJob, InDirectoryFormIsRemovedCompletelyToo) {
    const std::string directory = "web1/2026-11-15/";
    store_->Reset();
    Backup(18, "full", 100, 1);
    std::filesystem::remove(kInfo);
    Ledger().End(kEntry);
    Place("root/" + directory + "2026-11-15.web1.info",
          "finished=2026-11-19 01:00:00\nsize=800\ntype=full");
    store_->SetFile(directory + "2026-11-15.web1.info",
                    "finished=2026-11-15 01:00:00\nlast-slice=" + directory +
                        "F2026-11-15.web1.2.dar\nsize=800\ntype=full");
    for (const char* slice : {"F2026-11-15.web1.1.dar", "F2026-11-15.web1.2.dar"}) {
        store_->SetFile(directory + slice, "x");
    }
    Ledger().Update(kEntry, [&](LedgerEntry& entry) {
        entry.storage = "memory:///site";
        entry.slices[directory + "F2026-11-15.web1.1.dar"] = {SliceState::kStored, 30, ""};
    });
    Start();
    EXPECT_EQ(Reserve(), "OK 0");
    EXPECT_EQ(Stored(), (Lines{"2026-11-18.web1.info", "F2026-11-18.web1.1.dar"}));
    EXPECT_FALSE(local_files::Has("root/" + directory + "2026-11-15.web1.info"));
    EXPECT_EQ(control_.storages.at("").unfinished, 200);
}

TEST_F(InterruptedJob, StaysAsTheNewestBackupOfItsUser) {
    RemoveBackup(18);
    Start();
    ExpectKept("newest");
}

TEST_F(InterruptedJob, StaysIfAnotherProcessHasDeletedTheOnlyLaterBackup) {
    Start();
    Delete(control_.storages.at("").storage, "root/2026-11-18.web1.info", false);
    ExpectKept("newest");
}

TEST_F(InterruptedJob, StaysBeforeADaily) {
    RemoveBackup(18);
    Backup(16, "incremental", 1, 1);
    Start();
    ExpectKept("a daily depends on it");
}

TEST_F(InterruptedJob, GoesAfterItsDaily) {
    Backup(16, "incremental", 1, 1);
    Start();
    EXPECT_EQ(Reserve(), "OK 0");
    Lines evicted = Log(5);
    std::erase_if(evicted, [](const std::string& line) {
        return line.find("Evict backup") == std::string::npos;
    });
    EXPECT_EQ(evicted,
              (Lines{"5: Evict backup 'root/2026-11-16.web1.info', size: 1",
                     "5: Evict backup '2026-11-15.web1' of an interrupted job, size: 830"}));
    ExpectGone();
}

TEST_F(InterruptedJob, StaysWhileTheLaterBackupIsMadeAgain) {
    Start();
    Ledger().Update("F2026-11-18.web1", [](LedgerEntry& entry) {
        entry.storage = "memory:///site";
        entry.slices["F2026-11-18.web1.1.dar"] = {SliceState::kUploading, 1, ""};
    });
    ExpectKept("no later complete backup");
}

TEST_F(InterruptedJob, StaysWhenTheJobContinues) {
    Start();
    Ledger().Update(kEntry, [](LedgerEntry& entry) {
        entry.slices["F2026-11-15.web1.2.dar"] = {SliceState::kStored, 1, ""};
    });
    ExpectKept("changed since the start");
    Start();
    Ledger().Update("I2026-11-15.web1", [](LedgerEntry& entry) {
        entry.storage = "memory:///site";
        entry.slices["I2026-11-15.web1.1.dar"] = {SliceState::kUploading, 1, ""};
    });
    ExpectKept("another job of that day");
}

TEST_F(InterruptedJob, StaysWhenItIsOfTheDateOfTheServer) {
    control_.unfinished = UnfinishedBackups(Ledger(), "memory:///site", Storage());
    control_.Init("2026-11-15");
    ExpectKept("the job may continue");
}

TEST_F(InterruptedJob, StaysWhenItsSlicesAreUnknown) {
    Ledger().Update(kEntry, [](LedgerEntry& entry) { entry.is_unknown = true; });
    Start();
    ExpectKept("unknown slices");
}

TEST_F(InterruptedJob, StaysWhenTheStorageDidNotAnswerAtTheStart) {
    store_->SetHook([](const std::string&, const std::string&) {
        throw kro_err::Error(kro_err::Kind::kUnavailable, "down");
    });
    Start();
    store_->SetHook(nullptr);
    ExpectKept("the slices of the complete backup are unknown");
    Start();
    EXPECT_EQ(Reserve(), "OK 0");
    ExpectGone();
}

TEST_F(InterruptedJob, WhoseRemovalFailsCanBeRemovedLater) {
    for (const char* name :
         {"F2026-11-15.web1.1.dar", "F2026-11-15.web1.3.dar", "2026-11-15.web1.info"}) {
        Start();
        store_->SetHook([name](const std::string& operation, const std::string& asked) {
            if (operation == "Remove" && asked == name) {
                throw kro_err::Error(kro_err::Kind::kUnavailable, "down");
            }
        });
        EXPECT_EQ(Reserve(), "ERR down") << name;
        store_->SetHook(nullptr);
        EXPECT_TRUE(Ledger().Read(kEntry).IsOpen()) << name;
    }
    EXPECT_EQ(Reserve(), "OK 0");
    ExpectGone();
}

TEST_F(InterruptedJob, GoesForAFullStorageToo) {
    control_.size_limit = ServerLimits::kNoSize;
    Start();
    control_.DropOldest(0);
    EXPECT_EQ(Stored(), (Lines{"2026-11-18.web1.info", "F2026-11-18.web1.1.dar"}));
    EXPECT_EQ(control_.max_count, 0);
}

TEST_F(InterruptedJob, OfACustomBackupStays) {
    Ledger().End(kEntry);
    std::filesystem::remove(kInfo);
    const std::string info =
        "finished=2026-11-15 01:00:00\nlast-slice=C2026-11-15.web1.1.dar\n"
        "size=800\ntype=full";
    Place("root/custom.web1.info", info);
    store_->SetFile("custom.web1.info", info);
    Ledger().Update("C2026-11-15.web1", [](LedgerEntry& entry) {
        entry.storage = "memory:///site";
        entry.slices["C2026-11-15.web1.1.dar"] = {SliceState::kStored, 30, ""};
    });
    Start();
    EXPECT_EQ(control_.storages.at("").unfinished, 1030);
    EXPECT_EQ(Reserve().substr(0, 3), "ERR");
    EXPECT_TRUE(local_files::Has("root/custom.web1.info"));
}

}  // namespace
