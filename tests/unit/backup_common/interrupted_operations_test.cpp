// Interrupted operations: the content of their info files, and how the next operation completes
// them.
#include <gtest/gtest.h>

#include "kro/kro_err.h"
#include "kro/str.h"
#include "program_site.h"
#include "quarn2/token.h"
#include "quarn2_cp2_ledger.h"
#include "quarn2_cp2_ledger_markers.h"
#include "quarn2_cp2_misc_clear.h"
#include "quarn2_cp2_misc_delete.h"
#include "quarn2_cp2_misc_removal.h"
#include "quarn2_cp2_server_model.h"

namespace {

using kro_err::Kind;

constexpr const char* kInfo = "root/2026-11-15.web1.info";
constexpr const char* kText =
    "finished=2026-11-15 01:00:00\nlast-slice=F2026-11-15.web1.2.dar\nsize=100\ntype=full";

class InterruptedOperations : public ProgramSite {
  protected:
    InterruptedOperations() {
        Place(kInfo, kText);
        store_->SetFile("F2026-11-15.web1.1.dar", "x");
        store_->SetFile("F2026-11-15.web1.2.dar", "x");
        store_->SetFile("2026-11-15.web1.info", kText);
        control_.path = "root";
        control_.size_limit = 1000;
        control_.AddStorage(storage_);
    }

    // From now on the storage fails before it removes this file.
    void FailAt(const std::string& name, Kind kind) {
        store_->SetHook([name, kind](const std::string& operation, const std::string& asked) {
            if (operation == "Remove" && asked == name) throw kro_err::Error(kind, "trouble");
        });
    }

    void ExpectTrouble() {
        EXPECT_EQ(TextOf<kro_err::Error>([&] { Delete(storage_, kInfo, false); }), "trouble");
    }

    // Expects that the info file records the start of the deletion and is otherwise unchanged.
    static void ExpectMarked() {
        const std::string text = local_files::Load(kInfo);
        EXPECT_EQ(text.substr(0, 11), "deletion=20") << text;
        EXPECT_EQ(text.substr(text.find('\n')),
                  "\ndeletion-finished=2026-11-15 01:00:00\nlast-slice=F2026-11-15.web1.2.dar\n"
                  "size=100\ntype=full");
    }

    bool IsCounted() const {
        const auto& users = control_.storages.at("").users;
        return users.contains("web1") && !users.at("web1").backups.empty();
    }
    std::size_t Counted() const { return control_.storages.at("").users.at("web1").backups.size(); }

    std::shared_ptr<quarn2::Storage> storage_ =
        quarn2::GetStorage(quarn2::BackupToken("memory:site"));
    GlobalSizeControl control_;
};

TEST_F(InterruptedOperations, ADeletionIsMarkedBeforeItsFirstRemoval) {
    bool looked = false;
    store_->SetHook([&looked](const std::string& operation, const std::string&) {
        if (operation != "Remove" || std::exchange(looked, true)) return;
        ExpectMarked();
    });
    Delete(storage_, kInfo, false);
    EXPECT_TRUE(looked);
    EXPECT_FALSE(local_files::Has(kInfo));
    EXPECT_EQ(Stored(), Lines());
}

TEST_F(InterruptedOperations, AHalfDeletedBackupIsNotCounted) {
    FailAt("F2026-11-15.web1.1.dar", Kind::kFailed);
    ExpectTrouble();
    ExpectMarked();
    control_.Init("2026-11-20");
    EXPECT_FALSE(control_.storages.at("").users.contains("web1"));
    EXPECT_EQ(control_.storages.at("").half_deleted,
              (std::map<std::string, std::int64_t>{{kInfo, 100}}));
}

TEST_F(InterruptedOperations, ADeletionOfABackupWithoutAReadableSizeIsCompletedToo) {
    Place(kInfo, "deletion=x\nlast-slice=F2026-11-15.web1.2.dar\nsize=10G\ntype=full");
    control_.Init("2026-11-20");
    EXPECT_EQ(Log(4), (Lines{std::string("4: Partly deleted backup '") + kInfo +
                             "' counts as empty. What: '10G' is not a whole decimal number"}));
    control_.FinishDeletions();
    EXPECT_FALSE(local_files::Has(kInfo));
    EXPECT_EQ(Stored(), Lines());
}

TEST_F(InterruptedOperations, ADeletionThatFailedBeforeItsFirstRemovalIsTakenBack) {
    for (const Kind kind : {Kind::kNotFound, Kind::kUnauthorized}) {
        FailAt("F2026-11-15.web1.2.dar", kind);
        ExpectTrouble();
        EXPECT_EQ(local_files::Load(kInfo), kText);
        FailAt("F2026-11-15.web1.1.dar", kind);
    }
    ExpectTrouble();
    ExpectMarked();
}

TEST_F(InterruptedOperations, ALostAnswerCountsAsARemoval) {
    for (const Kind kind : {Kind::kUnavailable, Kind::kFailed}) {
        Place(kInfo, kText);
        FailAt("F2026-11-15.web1.2.dar", kind);
        ExpectTrouble();
        ExpectMarked();
    }
}

TEST_F(InterruptedOperations, TheNextServerCompletesADeletion) {
    FailAt("F2026-11-15.web1.1.dar", Kind::kFailed);
    ExpectTrouble();
    store_->SetHook({});
    control_.Init("2026-11-20");
    control_.FinishDeletions();
    EXPECT_EQ(Stored(), Lines());
    EXPECT_FALSE(local_files::Has(kInfo));
    EXPECT_EQ(control_.storages.at("").free_size, 1000);
    EXPECT_EQ(Log(5).back(), std::string("5: Finish the deletion of '") + kInfo + "'");
}

TEST_F(InterruptedOperations, ADeletionThatCannotBeCompletedUsesSpaceAndStopsNoServer) {
    FailAt("F2026-11-15.web1.1.dar", Kind::kFailed);
    ExpectTrouble();
    control_.Init("2026-11-20");
    control_.FinishDeletions();
    EXPECT_EQ(control_.storages.at("").free_size, 900);
    EXPECT_EQ(control_.storages.at("").limit, 900);
    EXPECT_EQ(Log(4).back(),
              std::string("4: Cant finish the deletion of '") + kInfo + "'. What: trouble");
    ExpectMarked();
}

// --- Deletions and outages ---

TEST_F(InterruptedOperations, ADeletionThatRemovedNothingIsTakenBackByTheNextServer) {
    FailAt("F2026-11-15.web1.2.dar", Kind::kUnavailable);
    ExpectTrouble();
    ExpectMarked();
    store_->SetHook({});
    control_.Init("2026-11-20");
    control_.FinishDeletions();
    EXPECT_EQ(local_files::Load(kInfo), kText);
    EXPECT_EQ(Counted(), 1U);
    EXPECT_EQ(Stored().size(), 3U);
}

TEST_F(InterruptedOperations, ADeletionInDirectoryFormIsTakenBackOnlyIfTheIndexExistsToo) {
    const std::string directory = "root/web1/2026-11-15/";
    const std::string info = directory + "2026-11-15.web1.info";
    const std::string marked =
        "deletion=2026-11-20 01:00:00\ndeletion-finished=2026-11-15 01:00:00\n"
        "last-slice=web1/2026-11-15/F2026-11-15.web1.1.dar\nsize=100\ntype=full";
    for (const char* name : {"F2026-11-15.web1.1.dar", "2026-11-15.web1.info"}) {
        store_->SetFile(std::string("web1/2026-11-15/") + name, "x");
    }
    Place(info, marked);
    EXPECT_FALSE(CancelDeletion(*storage_, info)) << "the index may have gone";
    Place(directory + "2026-11-15.web1.1.dar", "index");
    EXPECT_FALSE(CancelDeletion(*storage_, info));
    store_->SetFile("web1/2026-11-15/2026-11-15.web1.1.dar", "index");
    EXPECT_TRUE(CancelDeletion(*storage_, info));
}

TEST_F(InterruptedOperations, AnOutageCostsNoFurtherBackup) {
    for (const char* day : {"13", "14"}) {
        Place(std::string("root/2026-11-") + day + ".web1.info",
              std::string("finished=2026-11-15 01:00:00\nlast-slice=F2026-11-") + day +
                  ".web1.1.dar\nsize=100\ntype=full");
    }
    FailAt("F2026-11-15.web1.1.dar", Kind::kUnavailable);
    ExpectTrouble();
    control_.Init("2026-11-20");
    control_.FinishDeletions();
    EXPECT_EQ(TextOf<kro_err::Error>([this] { control_.DropOldest(0); }), "trouble");
    EXPECT_EQ(Counted(), 2U);
    store_->SetHook({});
    control_.DropOldest(0);
    EXPECT_EQ(Counted(), 1U);
    EXPECT_FALSE(local_files::Has(kInfo)) << "the begun one went first";
    EXPECT_EQ(control_.storages.at("").free_size, 900);
}

TEST_F(InterruptedOperations, ADeletionThatNoStorageCanCompleteBlocksNoOther) {
    Place("root/2026-11-14.web1.info",
          "finished=2026-11-15 01:00:00\nlast-slice=F2026-11-14.web1.1.dar\nsize=100\ntype=full");
    Place("root/2026-11-16.web1.info",
          "finished=2026-11-15 01:00:00\nlast-slice=F2026-11-16.web1.1.dar\nsize=100\ntype=full");
    FailAt("F2026-11-15.web1.1.dar", Kind::kFailed);
    ExpectTrouble();
    control_.Init("2026-11-20");
    control_.FinishDeletions();
    control_.DropOldest(0);
    EXPECT_EQ(Counted(), 1U);
    EXPECT_TRUE(local_files::Has(kInfo));
}

TEST_F(InterruptedOperations, AKeyOfAnotherProgramBesideFinishedIsNoDeletion) {
    Place(kInfo, std::string("deletion=planned for March\n") + kText);
    control_.Init("2026-11-20");
    control_.FinishDeletions();
    EXPECT_EQ(Counted(), 1U);
    EXPECT_EQ(Stored().size(), 3U);
}

TEST_F(InterruptedOperations, ARescanCompletesDeletionsFirst) {
    FailAt("F2026-11-15.web1.1.dar", Kind::kFailed);
    Place("root/2026-11-14.web1.info", kText);
    Place("root/2026-11-13.web1.info", std::string(1, '\0'));
    ExpectTrouble();
    EXPECT_EQ(TextOf<kro_err::Error>([&] { FinishDeletions(storage_, "root"); }), "trouble");
    store_->SetHook({});
    FinishDeletions(storage_, "root");
    EXPECT_EQ(Stored(), Lines());
    EXPECT_EQ(Below("root"), (Lines{"2026-11-13.web1.info", "2026-11-14.web1.info"}));
}

TEST_F(InterruptedOperations, ADeletionByAnotherProcessLeavesTheNewestThatIsLeft) {
    Place("root/2026-11-14.web1.info",
          "finished=2026-11-14 01:00:00\nlast-slice=F2026-11-14.web1.1.dar\nsize=100\ntype=full");
    control_.Init("2026-11-20");
    Delete(storage_, kInfo, false);
    control_.DropOldest(0);
    control_.DropByCount(0, 0);
    EXPECT_EQ(Counted(), 1U);
    EXPECT_TRUE(local_files::Has("root/2026-11-14.web1.info"));
    EXPECT_EQ(control_.storages.at("").free_size, 900);
    EXPECT_EQ(control_.storages.at("").limit, 900);
}

// --- Backups that are not complete ---

class BackupsInProgress : public InterruptedOperations {
  protected:
    static constexpr const char* kEntry = "F2026-11-15.web1";

    static void Record(SliceState state, const std::string& info = "") {
        Ledger().Update(kEntry, [&](LedgerEntry& entry) {
            entry.storage = "memory:///site";
            entry.slices["F2026-11-15.web1.1.dar"] = {state, 30, ""};
            entry.info = info;
        });
    }

    void Init() {
        control_.unfinished = UnfinishedBackups(Ledger(), "memory:///site", *storage_);
        control_.Init("2026-11-20");
    }
};

TEST_F(BackupsInProgress, AreNotCountedWhateverTheirInfoFileSays) {
    Record(SliceState::kStored, kInfo);
    store_->SetFile("2026-11-15.web1.info", "of an earlier backup=1");
    Init();
    EXPECT_FALSE(control_.storages.at("").users.contains("web1"));
    EXPECT_EQ(Log(4), (Lines{"4: Backup 'F2026-11-15.web1' is not complete. Begun: 2026-11-20 "
                             "12:00:00, bytes on the storage: 30. Repeat its job, or delete it",
                             "4: Skip backup '2026-11-15.web1.info': it is not complete"}));
    EXPECT_EQ(control_.storages.at("").unfinished, 130)
        << "the files of an earlier one may still be there";
}

TEST_F(BackupsInProgress, ThoseWithAnInfoFileOnTheStorageAreComplete) {
    Place(kInfo, std::string("node=web1\n") + kText);
    Record(SliceState::kStored, kInfo);
    Init();
    EXPECT_EQ(Counted(), 1U);
    EXPECT_EQ(Ledger().Entries().size(), 0U);
}

TEST_F(BackupsInProgress, AMissingSliceMattersMoreThanTheInfoFile) {
    for (const SliceState state :
         {SliceState::kUploading, SliceState::kAbandoned, SliceState::kRemoved}) {
        Record(state, kInfo);
        Init();
        EXPECT_FALSE(control_.storages.at("").users.contains("web1"));
    }
}

TEST_F(BackupsInProgress, ARefusedUploadLeavesACompleteBackupAsItIs) {
    Record(SliceState::kRefused);
    Init();
    EXPECT_EQ(Counted(), 1U);
}

TEST_F(BackupsInProgress, ThoseOfAnotherStorageAreNotInTheAccount) {
    Record(SliceState::kUploading);
    Ledger().Update(kEntry, [](LedgerEntry& entry) { entry.storage = "sftp://elsewhere/srv"; });
    Init();
    EXPECT_EQ(Counted(), 1U);
    EXPECT_EQ(control_.storages.at("").unfinished, 0);
}

TEST_F(BackupsInProgress, AnotherArchiveOfTheDayMattersOnceItMayHaveReplacedTheIndex) {
    const std::string other = "I2026-11-15.web1";
    const auto counts_with = [&](const std::string& name, SliceState state) {
        Ledger().Update(other, [&](LedgerEntry& entry) {
            entry.storage = "memory:///site";
            entry.slices[name] = {state, 5, ""};
        });
        Init();
        return IsCounted();
    };
    EXPECT_TRUE(counts_with(other + ".1.dar", SliceState::kStored));
    EXPECT_TRUE(counts_with("2026-11-15.web1.1.dar", SliceState::kRefused));
    EXPECT_FALSE(counts_with("2026-11-15.web1.1.dar", SliceState::kStored));
}

TEST_F(BackupsInProgress, AnEmptyEntryIsRememberedAsUnknownWhenItGetsATextUntilTheEnd) {
    const std::string other = "I2026-11-15.web1";
    ASSERT_TRUE(Ledger().MakeUnknown(other));
    Init();
    EXPECT_FALSE(IsCounted()) << "the other archive's job may have replaced the index";
    Ledger().Update(other, [&](LedgerEntry& entry) {
        entry.slices[other + ".1.dar"] = {SliceState::kStored, 5, ""};
    });
    Init();
    EXPECT_FALSE(IsCounted());
    Ledger().Update(other, [](LedgerEntry& entry) { entry.Complete({}); });
    Init();
    EXPECT_TRUE(IsCounted());
}

TEST_F(BackupsInProgress, ADamagedEntryKeepsItsBackupFromBeingCounted) {
    Place(std::string("var/quarn2_cp.ledger/") + kEntry,
          "slice-1=stored 10G F2026-11-15.web1.1.dar");
    std::filesystem::permissions("var/quarn2_cp.ledger", std::filesystem::perms(0700));
    Init();
    EXPECT_EQ(Log(4).front(),
              "4: Ledger entry 'F2026-11-15.web1' cannot be used. What: '10G' is "
              "not a whole decimal number");
    EXPECT_FALSE(control_.storages.at("").users.contains("web1"));
}

TEST_F(BackupsInProgress, MarkersOfAnEarlierVersionBecomeEntries) {
    std::string boot = local_files::Load("/proc/sys/kernel/random/boot_id");
    boot = str::GetWord(boot, "\n");
    const std::string upload = "\n2026-11-15.web1\nF2026-11-15.web1.1.dar";
    Place("tmp/quarn2_cp.uploads/F2026-11-15.web1.1.dar", boot + upload);
    Place("tmp/quarn2_cp.uploads/F2026-11-15.web2.1.dar", "an earlier start" + upload);
    Place("tmp/quarn2_cp.unstored/2026-11-15.web1.info", kInfo);
    Place("tmp/quarn2_cp.unstored/2026-11-16.web1.info", "root/none.info");
    MigrateMarkers("");
    EXPECT_EQ(Below("tmp"), Lines());
    ASSERT_EQ(Ledger().Entries().size(), 1U);
    const LedgerEntry entry = Ledger().Read(kEntry);
    EXPECT_EQ(entry.info, kInfo);
    EXPECT_EQ(entry.slices.at("F2026-11-15.web1.1.dar").state, SliceState::kUploading);
    Init();
    EXPECT_FALSE(control_.storages.at("").users.contains("web1"));
}

TEST_F(BackupsInProgress, SlicesOfAnEarlierDateAreEvictedBeforeBackups) {
    store_->SetFile("F2026-11-14.web2.1.dar", "x");
    store_->SetFile("F2026-11-20.web2.1.dar", "x");
    for (const char* day : {"14", "20"}) {
        const std::string entry = std::string("F2026-11-") + day + ".web2";
        Ledger().Update(entry, [&](LedgerEntry& changed) {
            changed.storage = "memory:///site";
            changed.slices[entry + ".1.dar"] = {SliceState::kStored, 400, ""};
        });
    }
    Init();
    GlobalSizeControl::StorageDesc& desc = control_.storages.at("");
    EXPECT_EQ(desc.unfinished, 800);
    EXPECT_EQ(desc.NeededFor(50, false), 800) << "the ledger has the file that is asked for";
    EXPECT_EQ(desc.NeededFor(50, true), 850);
    control_.ReclaimUnfinished(desc, 100, true);
    EXPECT_EQ(desc.unfinished, 800) << "900 bytes are free";
    control_.ReclaimUnfinished(desc, 200, true);
    EXPECT_EQ(desc.unfinished, 400);
    EXPECT_EQ(Counted(), 1U);
    control_.ReclaimUnfinished(desc, 600, true);
    EXPECT_EQ(desc.unfinished, 400) << "the job of this date may go on";
    EXPECT_EQ(Stored(), (Lines{"2026-11-15.web1.info", "F2026-11-15.web1.1.dar",
                               "F2026-11-15.web1.2.dar", "F2026-11-20.web2.1.dar"}));
}

TEST_F(BackupsInProgress, ABackupWhoseJobIsRepeatedProtectsNoOlderOneAndIsNotEvicted) {
    Place("root/2026-11-14.web1.info",
          "finished=2026-11-14 01:00:00\nlast-slice=F2026-11-14.web1.1.dar\nsize=100\ntype=full");
    Init();
    Record(SliceState::kUploading);
    control_.DropOldest(0);
    EXPECT_EQ(Counted(), 2U) << "2026-11-14 may be the last complete one";
    Ledger().End(kEntry);
    control_.DropOldest(0);
    EXPECT_EQ(Counted(), 1U);
}

TEST_F(BackupsInProgress, ThoseWithoutSlicesAreStillNoBackups) {
    const std::string entry = "F2026-11-14.web2";
    Place("root/2026-11-14.web2.info",
          "finished=2026-11-14 01:00:00\nlast-slice=" + entry + ".1.dar\nsize=900\ntype=full");
    Ledger().Update(entry, [&entry](LedgerEntry& changed) {
        changed.storage = "memory:///site";
        changed.slices[entry + ".1.dar"] = {SliceState::kStored, 900, ""};
    });
    Init();
    control_.ReclaimUnfinished(control_.storages.at(""), 100, true);
    EXPECT_EQ(control_.storages.at("").unfinished, 0);
    Init();
    EXPECT_FALSE(control_.storages.at("").users.contains("web2"));
    EXPECT_EQ(control_.storages.at("").unfinished, 0);
}

TEST_F(BackupsInProgress,
       AnInterruptedJobOfAnotherTypeIsReclaimedWithoutTheCompleteBackupOfItsDay) {
    store_->SetFile("I2026-11-15.web1.1.dar", "x");
    Ledger().Update("I2026-11-15.web1", [](LedgerEntry& entry) {
        entry.storage = "memory:///site";
        entry.slices["I2026-11-15.web1.1.dar"] = {SliceState::kStored, 900, ""};
        entry.slices["F2026-11-15.web1.1.dar"] = {SliceState::kRemoved, 0, ""};
        entry.slices["F2026-11-15.web1.2.dar"] = {SliceState::kRemoved, 0, ""};
    });
    Init();
    EXPECT_TRUE(IsCounted());
    control_.ReclaimUnfinished(control_.storages.at(""), 500, true);
    EXPECT_EQ(Stored(),
              (Lines{"2026-11-15.web1.info", "F2026-11-15.web1.1.dar", "F2026-11-15.web1.2.dar"}));
    EXPECT_EQ(Ledger().Entries().size(), 0U);
}

TEST_F(BackupsInProgress, SlicesThatAJobPutsMeanwhileAreNotReclaimed) {
    Ledger().Update("F2026-11-14.web2", [](LedgerEntry& entry) {
        entry.storage = "memory:///site";
        entry.slices["F2026-11-14.web2.1.dar"] = {SliceState::kStored, 900, ""};
    });
    Init();
    Ledger().Update("F2026-11-14.web2", [](LedgerEntry& entry) {
        entry.slices["F2026-11-14.web2.2.dar"] = {SliceState::kStored, 10, ""};
    });
    control_.RefreshUnfinished();
    control_.ReclaimUnfinished(control_.storages.at(""), 100, false);
    EXPECT_EQ(control_.storages.at("").unfinished, 910);
}

// --- Clear ---

TEST_F(InterruptedOperations, AnInterruptedClearStopsServers) {
    Place("var/backup/tovarn/a.info", "x");
    store_->SetHook([](const std::string& operation, const std::string&) {
        if (operation == "Clear") throw kro_err::Error(Kind::kUnavailable, "down");
    });
    EXPECT_EQ(TextOf<kro_err::Error>([] { CommandClear(); }), "down");
    EXPECT_EQ(TextOf<std::runtime_error>([] { CheckNoBrokenClear("var/backup/tovarn"); }),
              "the last --clear was interrupted (var/backup/tovarn/.clear exists), so backups may "
              "be partly removed: run --clear again");
    CheckNoBrokenClear("root");
    store_->SetHook({});
    CommandClear();
    CheckNoBrokenClear("var/backup/tovarn");
    EXPECT_FALSE(local_files::Has("var/backup/tovarn"));
}

TEST_F(InterruptedOperations, AnInterruptedClearIsNotCompletedWithAnotherStorage) {
    Place("var/backup/tovarn/a.info", "x");
    Place("var/backup/tovarn/.clear", "The backups are being removed.\nstorage=sftp://host/srv");
    EXPECT_EQ(TextOf<std::runtime_error>([] { CommandClear(); }),
              "the interrupted --clear was for storage 'sftp://host/srv', but BACKUP_TOKEN refers "
              "to 'memory:///site'. Nothing was removed. Run --clear with the token of that "
              "storage; if both are the same storage, remove var/backup/tovarn/.clear first");
    EXPECT_EQ(Below("var/backup/tovarn"), (Lines{".clear", "a.info"}));
    Place("var/backup/tovarn/.clear", "The backups are being removed.\n");
    CommandClear();
    EXPECT_FALSE(local_files::Has("var/backup/tovarn"));
}

TEST_F(InterruptedOperations, AMissingStorageLosesNoBackup) {
    Place("var/backup/tovarn/a.info", "x");
    store_->SetHook([](const std::string&, const std::string&) {
        throw kro_err::Error(Kind::kNotFound, "not mounted");
    });
    EXPECT_EQ(TextOf<kro_err::Error>([] { CommandClear(); }), "not mounted");
    CheckNoBrokenClear("var/backup/tovarn");
    EXPECT_EQ(Below("var/backup/tovarn"), (Lines{"a.info"}));
}

}  // namespace
