// The execution of evictions. Most cases are tables; backup_letters.h describes their notation. The
// tests compare the names of the remaining records.
#include <gtest/gtest.h>

#include "backup_letters.h"
#include "kro/kro_err.h"
#include "program_site.h"
#include "quarn2/token.h"
#include "quarn2_cp2_server_plan.h"

namespace {

using backup_letters::DateOf;
using backup_letters::Names;
using backup_letters::Of;

class Eviction : public ProgramSite {
  protected:
    Eviction() {
        control_.path = "root";
        desc_->storage = quarn2::GetStorage(quarn2::BackupToken("memory:site"));
        // Creates an entry, because an info root without any entry counts as missing.
        Place("root/.keep", "");
    }

    void User(const std::string& name, const std::string& letters) {
        desc_->users[name].backups = Of(letters);
        // Creates the newest info file, because the server checks that it exists before it evicts
        // an older backup.
        if (!letters.empty())
            Place("root/" + DateOf(letters.size() - 1) + "." + name + ".info", "");
        control_.max_count = std::max(control_.max_count, static_cast<int>(letters.size()));
    }

    std::string Survivors(const std::string& user) const {
        return Names(desc_->users.at(user).backups);
    }

    // Creates a backup with an info file and one slice on the storage.
    void Files(const std::string& user, std::size_t index) {
        const std::string name = DateOf(index) + "." + user;
        const std::string info = "last-slice=F" + name + ".tgz\nsize=1\ntype=full";
        Place("root/" + name + ".info", info);
        store_->SetFile(name + ".info", info);
        store_->SetFile("F" + name + ".tgz", "x");
    }

    GlobalSizeControl control_;
    GlobalSizeControl::StorageDesc* desc_ = &control_.storages[""];
};

// --- DropByCount ---

struct CountCase {
    const char* letters;
    int full;
    int daily;
    const char* survivors;
};

TEST_F(Eviction, AnInfoRootThatIsGoneStopsIt) {
    User("web1", "FF");
    std::filesystem::remove_all("root");
    const std::string text = "The info root 'root' is missing or empty";
    EXPECT_EQ(TextOf<std::runtime_error>([&] { control_.DropOldest(1); }), text);
    std::filesystem::create_directory(
        "root");  // An empty directory looks like the mount point of a missing disk.
    EXPECT_EQ(TextOf<std::runtime_error>([&] { control_.DropOldest(1); }), text);
    EXPECT_EQ(Survivors("web1").size(), 2U);
    EXPECT_EQ(control_.max_count, 2);
}

TEST_F(Eviction, DropByCountOfATable) {
    const CountCase cases[] = {
        {"", 0, 0, ""},         {"F", 0, 0, "A"},         {"D", 0, 0, "A"},
        {"f", 0, 0, "A"},       {"FDD", 5, 0, "AC"},      {"FDD", 0, 0, "AC"},
        {"FFF", 1, 0, "C"},     {"FFF", 2, 0, "BC"},      {"FFF", 3, 0, "ABC"},
        {"FFF", 0, 0, "C"},     {"FDFD", 1, 5, "ABCD"},   {"FDFD", 1, 1, "CD"},
        {"FDFD", 1, 0, "CD"},   {"FDFDF", 1, 0, "E"},     {"FDFDF", 2, 0, "CE"},
        {"FDFDF", 1, 1, "CDE"}, {"FDDFDD", 9, 2, "ADEF"}, {"FDDFDD", 9, 3, "ACDEF"},
        {"DDDD", 9, 2, "CD"},   {"DDDD", 9, 0, "D"},      {"DDFF", 1, 0, "D"},
        {"FDDDD", 9, 1, "AE"},  {"fFF", 1, 0, "AC"},      {"FfF", 1, 0, "BC"},
        {"ffF", 1, 0, "ABC"},   {"dDF", 9, 0, "AC"},      {"dDD", 9, 1, "AC"},
        {"FdD", 9, 0, "ABC"},   {"ddD", 9, 0, "ABC"},     {"DDd", 9, 0, "C"},
        {"xxx", 0, 0, "ABC"},   {"FxF", 1, 0, "ABC"},     {"FFx", 1, 0, "BC"},
        {"FFD", 1, 9, "BC"},    {"FFDFFD", 2, 9, "BCEF"},
    };
    for (const CountCase& row : cases) {
        SCOPED_TRACE(std::string(row.letters) + " " + std::to_string(row.full) + ":" +
                     std::to_string(row.daily));
        User("web1", row.letters);
        for (const auto& [date, backup] : desc_->users.at("web1").backups) {
            store_->SetFile(date + ".web1.info", "");
        }
        const int count = control_.max_count;
        const std::int64_t free = desc_->free_size;
        std::int64_t gone = 0;
        for (const auto& [date, backup] : desc_->users.at("web1").backups) gone += backup.size;
        control_.DropByCount(row.full, row.daily);
        for (const auto& [date, backup] : desc_->users.at("web1").backups) gone -= backup.size;
        EXPECT_EQ(Survivors("web1"), row.survivors);
        EXPECT_EQ(control_.max_count, count);
        EXPECT_EQ(desc_->free_size, free + gone);
        EXPECT_EQ(desc_->limit, 0);
        EXPECT_EQ(desc_->reserved, 0);
    }
}

TEST_F(Eviction, DropByCountTellsWhatItDoes) {
    User("web1", "FDFDF");
    User("web2", "DD");
    for (const auto& [name, user] : desc_->users) {
        for (const auto& [date, backup] : user.backups) {
            Place("root/" + date + "." + name + ".info", "type=full");
        }
    }
    control_.DropByCount(1, 0);
    const auto line = [](const std::string& name, int size) {
        return "5: Evict backup 'root/" + name + ".info', size: " + std::to_string(size);
    };
    EXPECT_EQ(Log().front(), "8: DropByCount count_to_leave_full = 1, count_to_leave_daily = 0");
    EXPECT_EQ(Log(5), (Lines{line("2026-11-11.web1", 2), line("2026-11-13.web1", 8),
                             line("2026-11-10.web1", 1), line("2026-11-12.web1", 4),
                             line("2026-11-10.web2", 1)}));
}

TEST_F(Eviction, BackupsThatAreGoneAreNotCounted) {
    User("web1", "FFF");
    Files("web1", 0);
    Files("web1", 2);
    control_.DropByCount(2, 0);
    EXPECT_EQ(Survivors("web1"), "AC");
    EXPECT_EQ(Log(5), (Lines{"5: Backup '2026-11-11.web1' was deleted by another process and is no "
                             "longer counted"}));
}

TEST_F(Eviction, LargestCountsAreNoLimits) {
    User("web1", "FFDD");
    control_.DropByCount(ServerLimits::kNoCount, ServerLimits::kNoCount);
    EXPECT_EQ(Survivors("web1"), "ABCD");
}

// --- DropOldest ---

TEST_F(Eviction, DropOldestTakesOneFromEachUserAboveTheCount) {
    User("a", "FFF");
    User("b", "DDD");
    User("c", "FF");
    control_.DropOldest(2);
    EXPECT_EQ(Survivors("a"), "BC");
    EXPECT_EQ(Survivors("b"), "BC");
    EXPECT_EQ(Survivors("c"), "AB");
    EXPECT_EQ(control_.max_count, 2);
    EXPECT_EQ(desc_->free_size, 2);
    EXPECT_EQ(Log(5), (Lines{"5: Evict backup 'root/2026-11-10.a.info', size: 1",
                             "5: Evict backup 'root/2026-11-10.b.info', size: 1"}));
}

TEST_F(Eviction, DropOldestGoesOverStoragesAndUsersInOrder) {
    Place("root/2026-11-11.c.info", "");
    User("b", "FF");
    User("a", "FF");
    control_.storages["n1"].users["c"].backups = Of("FF");
    control_.storages["n1"].storage = desc_->storage;
    control_.DropOldest(1);
    EXPECT_EQ(Log(5), (Lines{"5: Evict backup 'root/2026-11-10.a.info', size: 1",
                             "5: Evict backup 'root/2026-11-10.b.info', size: 1",
                             "5: Evict backup 'root/2026-11-10.c.info', size: 1"}));
    EXPECT_EQ(desc_->free_size, 2);
    EXPECT_EQ(control_.storages.at("n1").free_size, 1);
}

TEST_F(Eviction, DropOldestOfACountThatNobodyExceedsChangesNothing) {
    User("a", "FFF");
    for (const int keep : {3, 4, ServerLimits::kNoCount}) {
        control_.DropOldest(keep);
        EXPECT_EQ(Survivors("a"), "ABC");
        EXPECT_EQ(control_.max_count, 3);
    }
    EXPECT_EQ(Log(), Lines());
}

TEST_F(Eviction, DropOldestBelowZeroIsTheEnd) {
    User("a", "FFF");
    EXPECT_EQ(TextOf<std::runtime_error>([&] { control_.DropOldest(-1); }),
              "No space left. But all backups are locked");
    EXPECT_EQ(Survivors("a"), "ABC");
    EXPECT_EQ(control_.max_count, 3);
}

TEST_F(Eviction, DropOldestWithoutUsersOnlyCountsDown) {
    control_.max_count = 2;
    control_.DropOldest(1);
    EXPECT_EQ(control_.max_count, 1);
    control_.storages.clear();
    control_.DropOldest(0);
    EXPECT_EQ(control_.max_count, 0);
}

TEST_F(Eviction, LockedBackupsAreSkippedUntilNothingIsLeft) {
    User("a", "ffF");
    int passes = 0;
    EXPECT_EQ(TextOf<std::runtime_error>([&] {
                  for (;; ++passes) control_.DropOldest(control_.max_count - 1);
              }),
              "No space left. But all backups are locked");
    EXPECT_EQ(passes, 3);
    EXPECT_EQ(Survivors("a"), "ABC");
}

TEST_F(Eviction, RepeatedPassesEndAtTheNewestChain) {
    User("a", "FDDFDD");
    const std::string survivors[] = {"ACDEF", "ADEF", "DEF", "DF", "DF", "DF"};
    for (const std::string& expected : survivors) {
        control_.DropOldest(control_.max_count - 1);
        EXPECT_EQ(Survivors("a"), expected);
    }
    EXPECT_THROW(control_.DropOldest(control_.max_count - 1), std::runtime_error);
}

TEST_F(Eviction, AnImpossibleStartDeletesNothing) {
    User("a", "FFFFDD");
    for (std::size_t i = 0; i < 6; ++i) Files("a", i);
    const Lines stored = Stored();
    control_.full_limit = 1;
    control_.daily_limit = 1;
    control_.size_limit = 100;
    desc_->free_size = -24;
    EXPECT_EQ(TextOf<std::runtime_error>([&] { control_.FitIntoLimits(); }),
              "No space left. But all backups are locked");
    EXPECT_EQ(Survivors("a"), "ABCDEF");
    EXPECT_EQ(Stored(), stored);
    EXPECT_EQ(control_.max_count, 6);
    EXPECT_EQ(
        Log(6),
        (Lines{"6: Backup size: 124, limit: 100",
               "4: Evictions cannot free enough space: 124 bytes are used, but all evictions "
               "together would free only 23 bytes. Nothing was deleted. Check --size-limit and "
               "the sizes in the info files"}));
    desc_->free_size = -23;
    control_.FitIntoLimits();
    EXPECT_EQ(Survivors("a"), "DF");
    EXPECT_EQ(desc_->free_size, 0);
}

// --- The plan and its execution ---

class Execution : public Eviction {
  protected:
    Execution() {
        for (const char* user : {"a", "b"}) {
            User(user, user == std::string("a") ? "FDDFDFF" : "DFDFF");
            for (std::size_t i = 0; i < desc_->users.at(user).backups.size(); ++i) Files(user, i);
        }
        control_.size_limit = 1000;
    }

    // Returns the log lines about evictions and their reasons.
    static Lines Logged() {
        Lines lines = Log(7);
        std::erase_if(lines, [](const std::string& line) {
            return line.find("Evict backup") == std::string::npos &&
                   line.find("The reason for this eviction") == std::string::npos;
        });
        return lines;
    }

    static Lines LinesOf(const Victims& victims) {
        Lines lines;
        for (const Victim& victim : victims) {
            lines.push_back("5: Evict backup 'root/" + victim.date + "." + victim.user +
                            ".info', size: " + std::to_string(victim.size));
            lines.push_back(std::string("7: The reason for this eviction is '") +
                            NameOf(victim.reason) + "'");
        }
        return lines;
    }

    // The archives in the order of their removal from the storage. A deletion removes some files
    // twice.
    Lines Removed() const {
        Lines names;
        for (const std::string& line : store_->log()) {
            if (line.starts_with("Remove F")) names.push_back(line.substr(8, 12));
        }
        names.erase(std::unique(names.begin(), names.end()), names.end());
        return names;
    }

    // Calls `evict` and compares the deletions with the plan that was made before.
    template <class Evict>
    void ExpectExecuted(const EvictionPlan& plan, Evict evict) {
        const Victims victims = plan.AllVictims();
        ASSERT_GE(victims.size(), 2U);
        store_->ClearLog();
        ClearLog();
        const Lines before = Stored();
        evict();
        EXPECT_EQ(Logged(), LinesOf(victims));
        Lines names;
        for (const Victim& victim : victims) names.push_back(victim.date + "." + victim.user);
        EXPECT_EQ(Removed(), names);
        EXPECT_EQ(Stored().size(), before.size() - 2 * victims.size())
            << "an info file and a slice";
        for (const Victim& victim : victims) {
            EXPECT_FALSE(desc_->users.at(victim.user).backups.contains(victim.date));
        }
    }
};

TEST_F(Execution, OfAReservationIsThePlan) {
    desc_->free_size = 3;
    const EvictionPlan plan = PlanRoom(control_, "", 30, {});
    ExpectExecuted(plan, [&] { control_.MakeRoom(*desc_, 30); });
    EXPECT_EQ(control_.max_count, 7 - static_cast<int>(plan.passes.size()));
    EXPECT_GE(desc_->free_size, 30);
}

TEST_F(Execution, OfARequestIsThePlan) {
    ExpectExecuted(PlanDropOne(control_, 4, {}), [&] { control_.DropOldest(4); });
    EXPECT_EQ(control_.max_count, 6);
}

TEST_F(Execution, OfTheStartIsThePlan) {
    control_.full_limit = 3;
    control_.daily_limit = 2;
    desc_->free_size = -40;
    const EvictionPlan plan = PlanStart(control_);
    EXPECT_TRUE(!plan.by_count.empty() && plan.AllVictims().size() > plan.by_count.size());
    ExpectExecuted(plan, [&] { control_.FitIntoLimits(); });
    EXPECT_EQ(control_.max_count, 7 - static_cast<int>(plan.passes.size()));
}

TEST_F(Execution, OfTheEndIsThePlan) {
    EvictionPlan plan;
    plan.by_count = PlanCounts(control_.storages, 2, 1, {});
    ExpectExecuted(plan, [&] { control_.DropByCount(2, 1); });
    EXPECT_EQ(control_.max_count, 7);
}

// --- With files ---

TEST_F(Eviction, FilesGoWithTheRecord) {
    User("web1", "FF");
    Files("web1", 0);
    Files("web1", 1);
    control_.DropOldest(1);
    EXPECT_EQ(Survivors("web1"), "B");
    EXPECT_EQ(Stored(), (Lines{"2026-11-11.web1.info", "F2026-11-11.web1.tgz"}));
    EXPECT_EQ(Below("root"), (Lines{".keep", "2026-11-11.web1.info"}));
    EXPECT_EQ(Log(6), (Lines{"5: Evict backup 'root/2026-11-10.web1.info', size: 1",
                             "6: Delete 'F2026-11-10.web1.tgz'"}));
}

TEST_F(Eviction, FilesWhoseInfoFileIsOnTheStorageAloneGoToo) {
    User("web1", "FF");
    Files("web1", 0);
    std::filesystem::remove("root/2026-11-10.web1.info");
    control_.DropOldest(1);
    EXPECT_EQ(Survivors("web1"), "B");
    EXPECT_EQ(desc_->free_size, 1);
    EXPECT_EQ(Stored(), Lines());
    EXPECT_EQ(Below("root"), (Lines{".keep", "2026-11-11.web1.info"}));
}

TEST_F(Eviction, ADayThatWasFilledInAsksNobody) {
    Place("root/2026-11-11.web1.info", "");
    desc_->users["web1"].backups = {{"2026-11-10", {0, 0, false}}, {"2026-11-11", {1, 0, false}}};
    control_.max_count = 2;
    control_.DropOldest(1);
    EXPECT_EQ(Survivors("web1"), "B");
    EXPECT_EQ(store_->log(), Lines());
    EXPECT_EQ(Log(5), Lines()) << "no matter for an operator";
}

TEST_F(Eviction, InfoFilesInDirectoriesAreFound) {
    User("web1", "FF");
    Place("root/web1/2026-11-10/2026-11-10.web1.info",
          "last-slice=web1/2026-11-10/F2026-11-10.web1.1.dar\ntype=full");
    store_->SetFile("web1/2026-11-10/F2026-11-10.web1.1.dar", "x");
    control_.DropOldest(1);
    EXPECT_EQ(Stored(), Lines());
    EXPECT_EQ(Below("root"), (Lines{".keep", "2026-11-11.web1.info"}));
    EXPECT_EQ(Log(5),
              (Lines{"5: Evict backup 'root/web1/2026-11-10/2026-11-10.web1.info', size: 1"}));
}

TEST_F(Eviction, AFailedDeletionLeavesItsRecordAndStopsThePass) {
    for (const char* user : {"a", "b", "c"}) {
        User(user, "FF");
        Files(user, 0);
    }
    store_->SetHook([](const std::string&, const std::string& name) {
        if (name == "F2026-11-10.b.tgz") throw kro_err::Error(kro_err::Kind::kUnavailable, "down");
    });
    EXPECT_EQ(TextOf<kro_err::Error>([&] { control_.DropOldest(1); }), "down");
    EXPECT_EQ(Survivors("a"), "B");
    EXPECT_EQ(Survivors("b"), "AB");
    EXPECT_EQ(Survivors("c"), "AB");
    EXPECT_EQ(desc_->free_size, 1);
    EXPECT_EQ(control_.max_count, 2);
    store_->SetHook(nullptr);
    control_.DropOldest(1);
    EXPECT_EQ(Survivors("b"), "B");
    EXPECT_EQ(Survivors("c"), "B");
    EXPECT_EQ(Stored(), Lines());
    EXPECT_EQ(control_.max_count, 1);
}

TEST_F(Eviction, AFailedDeletionStopsTheCountLimitsToo) {
    User("a", "FFFF");
    for (std::size_t i = 0; i < 4; ++i) Files("a", i);
    store_->SetHook([](const std::string&, const std::string& name) {
        if (name == "F2026-11-11.a.tgz") throw kro_err::Error(kro_err::Kind::kUnavailable, "down");
    });
    EXPECT_EQ(TextOf<kro_err::Error>([&] { control_.DropByCount(1, 0); }), "down");
    EXPECT_EQ(Survivors("a"), "BCD");
    EXPECT_EQ(desc_->free_size, 1);
}

// --- The check of the storage ---

class UncheckedStorage : public Eviction {
  protected:
    UncheckedStorage() {
        User("a", "FFF");
        for (std::size_t i = 0; i < 3; ++i) {
            Files("a", i);
            Place("root/" + DateOf(i) + ".a.info",
                  "last-slice=F" + DateOf(i) + ".a.tgz\nsize=1\ntype=full\nfinished=" + DateOf(i));
        }
        control_.is_storage_checked = false;
        control_.full_limit = 2;
        control_.size_limit = 100;
    }

    void FailWith(kro_err::Kind kind) {
        store_->SetHook(
            [kind](const std::string&, const std::string&) { throw kro_err::Error(kind, "down"); });
    }

    void ExpectNothingDeleted() {
        EXPECT_EQ(Survivors("a"), "ABC");
        EXPECT_EQ(Below("root").size(), 4U);
        EXPECT_EQ(control_.max_count, 3);
        EXPECT_FALSE(control_.is_storage_checked);
    }
};

TEST_F(UncheckedStorage, OneThatCannotBeAskedLosesNothing) {
    for (const kro_err::Kind kind : {kro_err::Kind::kUnavailable, kro_err::Kind::kUnauthorized}) {
        FailWith(kind);
        EXPECT_EQ(TextOf<kro_err::Error>([&] { control_.DropOldest(2); }), "down");
        EXPECT_EQ(TextOf<kro_err::Error>([&] { control_.MakeRoom(*desc_, 1); }), "down");
        ClearLog();
        control_.DropByCount(1, 0);
        control_.FitIntoLimits();
        EXPECT_EQ(Log(4), (Lines(2, "4: Backups beyond the limits are kept for now. What: down")));
        ExpectNothingDeleted();
    }
}

TEST_F(UncheckedStorage, OneThatHasNoneOfTheBackupsLosesNothing) {
    store_->Reset();
    const std::string text =
        "the storage memory:site has none of the 3 newest backups of the info root. Check that the "
        "storage is mounted and that the token is correct. If the storage was emptied on purpose, "
        "run --server --rescan";
    EXPECT_EQ(TextOf<std::runtime_error>([&] { control_.DropOldest(2); }), text);
    control_.DropByCount(1, 0);
    ExpectNothingDeleted();
}

TEST_F(UncheckedStorage, OneThatAnswersLaterIsCheckedOnce) {
    FailWith(kro_err::Kind::kUnavailable);
    control_.FitIntoLimits();
    store_->SetHook(nullptr);
    control_.DropByCount(2, 0);
    EXPECT_EQ(Survivors("a"), "BC");
    EXPECT_TRUE(control_.is_storage_checked);
    // The server must not repeat the check: it may delete the backups that the check looked for.
    control_.DropByCount(1, 0);
    EXPECT_EQ(Survivors("a"), "C");
}

TEST_F(UncheckedStorage, ABegunDeletionWaitsToo) {
    desc_->half_deleted["root/" + DateOf(0) + ".a.info"] = 5;
    desc_->free_size = desc_->limit = 50;
    FailWith(kro_err::Kind::kUnavailable);
    control_.FinishDeletions();
    EXPECT_EQ(Below("root").size(), 4U);
    EXPECT_EQ(desc_->free_size, 45);
    EXPECT_EQ(desc_->limit, 45);
}

}  // namespace
