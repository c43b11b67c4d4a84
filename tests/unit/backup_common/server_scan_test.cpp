// The scan: all kinds of info files, their charges and the log lines.
#include <gtest/gtest.h>

#include "kro/kro_err.h"
#include "program_site.h"
#include "quarn2_cp2_server_model.h"

namespace {

using StorageDesc = GlobalSizeControl::StorageDesc;

constexpr const char* kTrace = "8: void GlobalSizeControl::Scan(const string&)";
constexpr const char* kClear = "8: void GlobalSizeControl::ClearBackupInfo()";

class Scan : public ProgramSite {
  protected:
    Scan() {
        std::filesystem::create_directory("root");
        control_.path = "root";
        control_.size_limit = 1000;
        control_.common_storage = true;
        desc_ = &control_.storages[""];
    }

    // Places the info file of a backup. The backup is finished unless `more` contains another
    // "finished".
    static void Info(const std::string& name, const std::string& type, const std::string& size,
                     const std::string& more = "finished=2026-11-01 00:00:00") {
        Place("root/" + name + ".info", "type=" + type + "\nsize=" + size + "\n" + more);
    }

    void Run(const std::string& date = "2026-11-20") { control_.Scan(date); }

    static std::string Records(const StorageDesc& desc, const std::string& user) {
        std::string text;
        for (const auto& [date, backup] : desc.users.at(user).backups) {
            text += (text.empty() ? "" : " ") + date + (backup.type == 0 ? "F" : "D") +
                    std::to_string(backup.size) + (backup.locked ? "!" : "");
        }
        return text;
    }
    std::string Records(const std::string& user) const { return Records(*desc_, user); }

    static std::string Account(const StorageDesc& desc) {
        return std::to_string(desc.limit) + "/" + std::to_string(desc.free_size) + "/" +
               std::to_string(desc.reserved);
    }
    std::string Account() const { return Account(*desc_); }

    std::string Address() const {
        char text[32];
        std::snprintf(text, sizeof text, "%p", static_cast<const void*>(desc_));
        return text;
    }

    GlobalSizeControl control_;
    StorageDesc* desc_;
};

TEST_F(Scan, AnInfoFileThatEvictionWouldNotFindIsChargedForGood) {
    Info("F2026-11-15.web1", "full", "100");
    Info("foo", "full", "7");
    Info("2026-11-15.web2", "full", "10");
    Run();
    EXPECT_EQ(Account(), "883/883/0");
    EXPECT_EQ(desc_->users.size(), 1U);
    EXPECT_EQ(
        Log(4),
        (Lines{"4: Info file 'F2026-11-15.web1.info' is not named DATE.USER.info. Never evicted. "
               "size 100",
               "4: Info file 'foo.info' is not named DATE.USER.info. Never evicted. size 7"}));
}

TEST_F(Scan, AnInfoFileThatVanishesMeanwhileIsSkipped) {
    Info("2026-11-15.web1", "full", "10");
    Info("2026-11-17.web1", "full", "20");
    control_.CountInfoFiles(
        {"root/2026-11-15.web1.info", "root/2026-11-16.web1.info", "root/2026-11-17.web1.info"},
        "2026-11-20");
    EXPECT_EQ(Records("web1"), "2026-11-15F10 2026-11-17F20");
    EXPECT_EQ(Log(6), (Lines{"6: Skip 'root/2026-11-16.web1.info', which was removed during the "
                             "scan"}));
}

TEST_F(Scan, ANegativeSizeStopsIt) {
    Info("2026-11-15.web1", "full", "-100");
    EXPECT_EQ(TextOf<std::runtime_error>([&] { Run(); }),
              "root/2026-11-15.web1.info: the size -100 is negative");
}

TEST_F(Scan, OfNothing) {
    Run();
    EXPECT_EQ(Account(), "1000/1000/0");
    EXPECT_EQ(control_.max_count, 0);
    EXPECT_EQ(Log(), (Lines{kTrace, kClear}));
}

TEST_F(Scan, OfAMissingDirectoryIsOfNothing) {
    control_.path = "nowhere";
    Run();
    EXPECT_EQ(Account(), "1000/1000/0");
}

TEST_F(Scan, InitKeepsTheDateAndScans) {
    Info("2026-11-21.web1", "full", "10");
    control_.Init("2026-11-21");
    EXPECT_EQ(control_.date, "2026-11-21");
    EXPECT_EQ(Records("web1"), "2026-11-21F10");
    EXPECT_EQ(Log(8)[0], "8: void GlobalSizeControl::Init(const string&)");
    EXPECT_EQ(Log(8)[1], kTrace);
    EXPECT_EQ(Log(8)[2], kClear);
}

TEST_F(Scan, EntersFinishedBackups) {
    Info("2026-11-15.web1", "full", "10");
    Info("2026-11-16.web1", "incremental", "2");
    Info("2026-11-17.web1", "anything", "3");
    Info("2026-11-15.a.b.example", "full", "100");
    Run();
    EXPECT_EQ(Records("web1"), "2026-11-15F10 2026-11-16D2 2026-11-17D3");
    EXPECT_EQ(Records("a.b.example"), "2026-11-15F100");
    EXPECT_EQ(Account(), "887/885/0") << "13 and 100 are locked, 15 and 100 used";
    EXPECT_EQ(control_.max_count, 3);
    const std::string head = "7: " + Address();
    const std::string tail = ". new used = 0, new free_size = 1000";
    EXPECT_EQ(Log(),
              (Lines{kTrace, kClear, head + " Add full backup 2026-11-15.a.b.example.info" + tail,
                     head + " Add full backup 2026-11-15.web1.info" + tail,
                     head + " Add incremental backup 2026-11-16.web1.info" + tail,
                     head + " Add anything backup 2026-11-17.web1.info" + tail}));
}

TEST_F(Scan, AnUnfinishedBackupIsOnlyALineInTheLog) {
    Info("2026-11-15.web1", "full", "10", "");
    Run();
    EXPECT_TRUE(desc_->users.empty());
    EXPECT_EQ(Account(), "1000/1000/0");
    EXPECT_EQ(Log(), (Lines{kTrace, kClear,
                            "7: " + Address() + " Skip incomplete backup 2026-11-15.web1.info"}));
}

TEST_F(Scan, PresenceOfFinishedIsEnough) {
    Info("2026-11-15.web1", "full", "10", "finished");
    Run();
    EXPECT_EQ(Records("web1"), "2026-11-15F10");
}

TEST_F(Scan, ABackupOfTheCurrentDateIsEntered) {
    Info("2026-11-20.web1", "full", "10");
    Run("2026-11-20");
    EXPECT_EQ(Records("web1"), "2026-11-20F10");
    EXPECT_EQ(Account(), "990/990/0");
}

TEST_F(Scan, ABackupOfTomorrowIsChargedForGood) {
    Info("2026-11-21.web1", "full", "30");
    Info("2026-11-22.web2", "incremental", "5");
    Run();
    EXPECT_EQ(Records("web1"), "") << "the user exists, the backup is not entered";
    EXPECT_EQ(Records("web2"), "");
    EXPECT_EQ(Account(), "965/965/0");
    EXPECT_EQ(control_.max_count, 0);
    EXPECT_EQ(Log(), (Lines{kTrace, kClear,
                            "4: Skip backup. Backup date '2026-11-21' in future. Current date "
                            "'2026-11-20'. new free = 970",
                            "4: Skip backup. Backup date '2026-11-22' in future. Current date "
                            "'2026-11-20'. new free = 965"}));
}

TEST_F(Scan, ACustomBackupIsChargedForGoodAndHasNoUser) {
    Info("custom.web1", "full", "100");
    Info("custom.web2", "full", "1", "finished=x\ndeleted=");
    Run();
    EXPECT_TRUE(desc_->users.empty());
    EXPECT_EQ(Account(), "899/899/0");
    EXPECT_EQ(Log(), (Lines{kTrace, kClear, "7: Custom backup custom.web1.info size 100",
                            "7: Custom backup custom.web2.info size 1"}));
}

TEST_F(Scan, AnUnfinishedCustomBackupIsNotCharged) {
    Info("custom.web1", "full", "100", "");
    Run();
    EXPECT_EQ(Account(), "1000/1000/0");
    EXPECT_EQ(Log(7).back(), "7: " + Address() + " Skip incomplete backup custom.web1.info");
}

TEST_F(Scan, LinesOfEnteredBackupsShowOnlyWhatIsChargedForGood) {
    Info("2026-11-15.web1", "full", "10");
    Info("2026-11-21.web1", "full", "30");
    Info("custom.web1", "full", "100");
    Info("web1/2026-11-16/2026-11-16.web1", "full", "7");
    Run();
    EXPECT_EQ(Account(), "863/853/0");
    EXPECT_EQ(Log(7),
              (Lines{"7: " + Address() +
                         " Add full backup 2026-11-15.web1.info. new used = 0, new free_size "
                         "= 1000",
                     "4: Skip backup. Backup date '2026-11-21' in future. Current date "
                     "'2026-11-20'. new free = 970",
                     "7: Custom backup custom.web1.info size 100",
                     "7: " + Address() +
                         " Add full backup 2026-11-16.web1.info. new used = 130, new "
                         "free_size = 870"}));
}

TEST_F(Scan, AUserWithoutAFullBackupLocksItsNewestOnly) {
    Info("2026-11-15.web1", "incremental", "10");
    Info("2026-11-16.web1", "incremental", "3");
    Run();
    EXPECT_EQ(Account(), "997/987/0");
}

TEST_F(Scan, TwoFilesOfOneUserAndDateAreOneRecordTheLaterOnes) {
    Info("2026-11-15.web1", "full", "10");
    Info("web1/2026-11-15/2026-11-15.web1", "incremental", "4");
    Run();
    EXPECT_EQ(Records("web1"), "2026-11-15D4");
    EXPECT_EQ(Account(), "996/996/0");
}

// --- Deleted backups ---

TEST_F(Scan, ADeletedBackupFillsTheDaysUpToTheCurrentOne) {
    Info("2026-11-17.web1", "full", "10", "finished=x\ndeleted=yes");
    Run("2026-11-20");
    EXPECT_EQ(Records("web1"), "2026-11-17F10 2026-11-18D0 2026-11-19D0");
    EXPECT_EQ(control_.max_count, 3);
    EXPECT_EQ(Account(), "990/990/0");
}

TEST_F(Scan, FilledSundaysStandAsFulls) {
    Info("2026-11-13.web1", "incremental", "10", "finished=x\ndeleted=");
    Run("2026-11-17");
    EXPECT_EQ(Records("web1"), "2026-11-13D10 2026-11-14D0 2026-11-15F0 2026-11-16D0");
    EXPECT_EQ(Account(), "1000/990/0");
}

TEST_F(Scan, FilledDaysGoOverTheEndOfAMonth) {
    Info("2026-02-27.web1", "full", "1", "finished=x\ndeleted=");
    Run("2026-03-02");
    EXPECT_EQ(Records("web1"), "2026-02-27F1 2026-02-28D0 2026-03-01F0");
}

TEST_F(Scan, FilledDaysLeaveBackupsAloneWhateverTheOrder) {
    Info("2026-11-16.web1", "full", "10", "finished=x\ndeleted=");
    Info("2026-11-18.web1", "incremental", "4");
    Info("2026-11-19.web1", "full", "5", "finished=x\ndeleted=");
    Run("2026-11-21");
    EXPECT_EQ(Records("web1"), "2026-11-16F10 2026-11-17D0 2026-11-18D4 2026-11-19F5 2026-11-20D0");
}

TEST_F(Scan, ADeletedBackupOfTheCurrentDateOrLaterFillsNothing) {
    Info("2026-11-20.web1", "full", "10", "finished=x\ndeleted=");
    Info("2026-11-21.web2", "full", "10", "finished=x\ndeleted=");
    Run("2026-11-20");
    EXPECT_EQ(Records("web1"), "2026-11-20F10");
    EXPECT_EQ(Records("web2"), "");
}

// --- Repeated scans ---

TEST_F(Scan, ASecondScanForgetsTheFirst) {
    Info("2026-11-15.web1", "full", "10");
    Info("2026-11-16.web1", "full", "10");
    Run();
    desc_->reserved = 5;
    desc_->users.at("web1").backups.at("2026-11-15").locked = true;
    std::filesystem::remove("root/2026-11-16.web1.info");
    Info("2026-11-15.web2", "full", "1");
    Run();
    EXPECT_EQ(Records("web1"), "2026-11-15F10");
    EXPECT_EQ(Account(), "989/989/0");
    EXPECT_EQ(control_.max_count, 2) << "a scan never lowers it";
    std::filesystem::remove("root/2026-11-15.web1.info");
    Run();
    EXPECT_EQ(Records("web1"), "") << "a user whose backups have gone stays";
}

// --- Several storages ---

TEST_F(Scan, WithoutACommonStorageTheNodeChooses) {
    control_.common_storage = false;
    StorageDesc& other = control_.storages["n1"];
    Info("2026-11-15.web1", "full", "10", "finished=x\nnode=n1");
    Info("2026-11-16.web1", "full", "10", "finished=x\nnode=n1");
    Info("2026-11-15.web2", "full", "1");
    Info("2026-11-15.web3", "full", "1", "finished=x\nnode=unknown");
    Run();
    EXPECT_EQ(Records(other, "web1"), "2026-11-15F10 2026-11-16F10");
    EXPECT_EQ(Account(other), "990/980/0");
    EXPECT_EQ(Records("web2"), "2026-11-15F1");
    EXPECT_EQ(Account(), "999/999/0");
    EXPECT_EQ(other.users.size() + desc_->users.size(), 2U);
    EXPECT_EQ(control_.max_count, 2);
    EXPECT_EQ(Log(7).size(), 3U) << "no line for a node that nobody knows";
}

TEST_F(Scan, TheLargestCountIsThatOfAnyUserOnAnyStorage) {
    control_.common_storage = false;
    control_.storages["n1"];
    Info("2026-11-15.web1", "full", "1", "finished=x\nnode=n1");
    for (const char* name : {"2026-11-15.web2", "2026-11-16.web2", "2026-11-17.web2"}) {
        Info(name, "full", "1");
    }
    Run();
    EXPECT_EQ(control_.max_count, 3) << "of the first storage";
}

TEST_F(Scan, WithACommonStorageTheNodeDoesNotMatter) {
    Info("2026-11-15.web1", "full", "10", "finished=x\nnode=n1");
    Run();
    EXPECT_EQ(Records("web1"), "2026-11-15F10");
}

// --- Sizes ---

TEST_F(Scan, AMissingSizeIsZero) {
    Place("root/2026-11-15.web1.info", "type=full\nfinished=x");
    Run();
    EXPECT_EQ(Records("web1"), "2026-11-15F0");
}

TEST_F(Scan, SizesBeyondTheLimitLeaveNegativeSpace) {
    Info("2026-11-15.web1", "full", "1500");
    Run();
    EXPECT_EQ(Account(), "-500/-500/0");
    EXPECT_EQ(control_.MaxUsedSize(), 1500);
}

TEST_F(Scan, WithoutALimitTheSpaceStaysHuge) {
    control_.size_limit = ServerLimits::kNoSize;
    Info("2026-11-15.web1", "full", "1500");
    Run();
    EXPECT_EQ(Account(), "9223372036854774307/9223372036854774307/0");
}

TEST_F(Scan, ASizeThatCannotBeReadStopsTheScanAndNamesTheFile) {
    Info("2026-11-15.web1", "full", "10");
    Info("2026-11-16.web1", "full", "10G");
    Info("2026-11-17.web1", "full", "10");
    EXPECT_EQ(TextOf<std::runtime_error>([&] { Run(); }),
              "root/2026-11-16.web1.info: '10G' is not a whole decimal number");
    EXPECT_EQ(Records("web1"), "2026-11-15F10") << "half filled";
    EXPECT_EQ(Account(), "1000/1000/0");
}

TEST_F(Scan, ASizeOfAnUnfinishedBackupIsNotLookedAt) {
    Info("2026-11-16.web1", "full", "10G", "");
    EXPECT_NO_THROW(Run());
}

TEST_F(Scan, SumsOfHostileSizesDoNotWrapRound) {
    Info("2026-11-15.web1", "full", "9223372036854775807");
    Info("2026-11-16.web1", "full", "9223372036854775807");
    Info("custom.web1", "full", "9223372036854775807");
    Run();
    EXPECT_LT(desc_->free_size, 0);
    EXPECT_LT(desc_->limit, 0);
}

}  // namespace
