// Work that was broken off in the middle: what its info files say, and how the next one finishes
// it.
#include <gtest/gtest.h>

#include "kro/kro_err.h"
#include "program_site.h"
#include "quarn2/token.h"
#include "quarn2_cp2_misc.h"
#include "quarn2_cp2_misc_removal.h"
#include "quarn2_cp2_misc_unstored.h"
#include "quarn2_cp2_server_model.h"

namespace {

using kro_err::Kind;

constexpr const char* kInfo = "root/2026-11-15.web1.info";
constexpr const char* kText =
    "finished=2026-11-15 01:00:00\nlast-slice=F2026-11-15.web1.2.dar\nsize=100\ntype=full";

class BrokenOff : public ProgramSite {
  protected:
    BrokenOff() {
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

    // The date that the info file has for the deletion's begin; the rest of its text must be right.
    static void ExpectMarked() {
        const std::string text = local_files::Load(kInfo);
        EXPECT_EQ(text.substr(0, 11), "deletion=20") << text;
        EXPECT_EQ(text.substr(text.find('\n')),
                  "\nlast-slice=F2026-11-15.web1.2.dar\nsize=100\ntype=full");
    }

    std::size_t Counted() const { return control_.storages.at("").users.at("web1").backups.size(); }

    std::shared_ptr<quarn2::Storage> storage_ =
        quarn2::GetStorage(quarn2::BackupToken("memory:site"));
    GlobalSizeControl control_;
};

TEST_F(BrokenOff, ADeletionTellsOfItselfBeforeAnythingIsGone) {
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

TEST_F(BrokenOff, ADeletionThatFailsInTheMiddleIsNoBackupAnyMore) {
    FailAt("F2026-11-15.web1.1.dar", Kind::kFailed);
    ExpectTrouble();
    ExpectMarked();
    control_.Init("2026-11-20");
    EXPECT_FALSE(control_.storages.at("").users.contains("web1"));
    EXPECT_EQ(control_.storages.at("").half_deleted,
              (std::map<std::string, std::int64_t>{{kInfo, 100}}));
}

TEST_F(BrokenOff, ADeletionOfABackupWithoutAReadableSizeIsFinishedToo) {
    Place(kInfo, "deletion=x\nlast-slice=F2026-11-15.web1.2.dar\nsize=10G\ntype=full");
    control_.Init("2026-11-20");
    EXPECT_EQ(Log(4), (Lines{std::string("4: Half-deleted backup '") + kInfo +
                             "' counts as empty. What: '10G' is not a whole decimal number"}));
    control_.FinishDeletions();
    EXPECT_FALSE(local_files::Has(kInfo));
    EXPECT_EQ(Stored(), Lines());
}

TEST_F(BrokenOff, ADeletionThatFailedBeforeAnythingWasGoneIsTakenBack) {
    for (const Kind kind : {Kind::kNotFound, Kind::kUnauthorized}) {
        FailAt("F2026-11-15.web1.2.dar", kind);
        ExpectTrouble();
        EXPECT_EQ(local_files::Load(kInfo), kText);
        FailAt("F2026-11-15.web1.1.dar", kind);
    }
    ExpectTrouble();
    ExpectMarked();
}

TEST_F(BrokenOff, AnAnswerThatWasLostMayHaveBeenAYes) {
    for (const Kind kind : {Kind::kUnavailable, Kind::kFailed}) {
        Place(kInfo, kText);
        FailAt("F2026-11-15.web1.2.dar", kind);
        ExpectTrouble();
        ExpectMarked();
    }
}

TEST_F(BrokenOff, TheNextServerFinishesADeletion) {
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

TEST_F(BrokenOff, WhatCannotBeFinishedTakesUpSpaceAndStopsNobody) {
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

TEST_F(BrokenOff, ARescanFinishesDeletionsFirst) {
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

TEST_F(BrokenOff, ABackupWhoseLastFileWasNotPutToItsEndIsNotCounted) {
    store_->SetFile("2026-11-15.web1.info", "of an earlier backup=1");
    const UnstoredInfo note(kInfo);
    control_.unstored = UnstoredInfos(*storage_, "");
    EXPECT_TRUE(control_.unstored.Contains(kInfo));
    EXPECT_TRUE(control_.unstored.Contains(root_.path() + "/" + kInfo));
    EXPECT_FALSE(control_.unstored.Contains("other/2026-11-15.web1.info"));
    control_.Init("2026-11-20");
    EXPECT_FALSE(control_.storages.at("").users.contains("web1"));
    EXPECT_EQ(Log(4), (Lines{"4: Skip backup '2026-11-15.web1.info': its last file was not put to "
                             "its end"}));
    EXPECT_EQ(Below("tmp"),
              (Lines{"quarn2_cp.unstored", "quarn2_cp.unstored/2026-11-15.web1.info"}));
}

TEST_F(BrokenOff, OneThatTheStorageHasIsCounted) {
    Place(kInfo, std::string("node=web1\n") + kText);
    const UnstoredInfo note(kInfo);
    control_.unstored = UnstoredInfos(*storage_, "");
    control_.Init("2026-11-20");
    EXPECT_EQ(Counted(), 1U);
    EXPECT_EQ(Below("tmp"), (Lines{"quarn2_cp.unstored"}));
}

TEST_F(BrokenOff, ANoteOfAnInfoFileThatIsGoneIsForgotten) {
    const UnstoredInfo note(kInfo);
    std::filesystem::remove(kInfo);
    EXPECT_FALSE(UnstoredInfos(*storage_, "").Contains(kInfo));
    EXPECT_EQ(Below("tmp"), (Lines{"quarn2_cp.unstored"}));
}

TEST_F(BrokenOff, StoragesHaveNotesOfTheirOwn) {
    store_->SetFile("2026-11-15.web1.info", "");
    setenv("BACKUP_STORAGE", "alice", 1);
    const UnstoredInfo note(kInfo);
    EXPECT_FALSE(UnstoredInfos(*storage_, "").Contains(kInfo));
    EXPECT_TRUE(UnstoredInfos(*storage_, "alice").Contains(kInfo));
    note.Remove();
    EXPECT_FALSE(UnstoredInfos(*storage_, "alice").Contains(kInfo));
}

TEST_F(BrokenOff, ABrokenClearStopsServers) {
    Place("var/backup/tovarn/a.info", "x");
    store_->SetHook([](const std::string& operation, const std::string&) {
        if (operation == "Clear") throw kro_err::Error(Kind::kUnavailable, "down");
    });
    EXPECT_EQ(TextOf<kro_err::Error>([] { CommandClear(); }), "down");
    EXPECT_EQ(TextOf<std::runtime_error>([] { CheckNoBrokenClear("var/backup/tovarn"); }),
              "the last --clear was broken off (var/backup/tovarn/.clear is there), so backups may "
              "be half removed: run --clear again");
    CheckNoBrokenClear("root");
    store_->SetHook({});
    CommandClear();
    CheckNoBrokenClear("var/backup/tovarn");
    EXPECT_FALSE(local_files::Has("var/backup/tovarn"));
}

TEST_F(BrokenOff, AStorageThatIsNotThereHasLostNothing) {
    Place("var/backup/tovarn/a.info", "x");
    store_->SetHook([](const std::string&, const std::string&) {
        throw kro_err::Error(Kind::kNotFound, "not mounted");
    });
    EXPECT_EQ(TextOf<kro_err::Error>([] { CommandClear(); }), "not mounted");
    CheckNoBrokenClear("var/backup/tovarn");
    EXPECT_EQ(Below("var/backup/tovarn"), (Lines{"a.info"}));
}

}  // namespace
