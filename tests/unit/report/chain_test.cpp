// Backup chains, the backups that a restore of one day needs, and the ages of backups.
#include <gtest/gtest.h>

#include <algorithm>

#include "report_chain.h"

namespace {

// "15F" is a full backup of 2026-11-15 and "16D" a daily. A further letter is the state: u
// unfinished, x being deleted, f future, m marked as deleted.
Backup One(const std::string& text, const std::string& user = "web1") {
    Backup backup;
    backup.user = user;
    backup.date = "2026-11-" + text.substr(0, 2);
    backup.is_full = text[2] == 'F';
    const std::string flag = text.substr(3);
    if (flag == "u") backup.state = State::kUnfinished;
    if (flag == "x") backup.state = State::kBeingDeleted;
    if (flag == "f") backup.state = State::kFuture;
    backup.is_marked_deleted = flag == "m";
    return backup;
}

std::vector<Backup> All(const std::vector<std::string>& texts) {
    std::vector<Backup> backups;
    for (const std::string& text : texts) backups.push_back(One(text));
    return backups;
}

std::string Days(const std::vector<Backup>& backups) {
    std::string text;
    for (const Backup& backup : backups)
        text += backup.date.substr(8) + (backup.is_full ? "F" : "D");
    return text;
}

// Returns the chains as a text: "15F16D" for a chain with a full backup, "(16D)" for a chain
// without one. The backups that are in no chain follow after "+".
std::string Chains(const UserBackups& group) {
    std::string text;
    for (const Chain& chain : group.chains) {
        text += chain.has_full ? Days(chain.backups) + " " : "(" + Days(chain.backups) + ") ";
    }
    return text + "+" + Days(group.others);
}

TEST(ReportChain, ADailyRestsOnTheNewestCompleteFullBackupBeforeIt) {
    struct Case {
        std::vector<std::string> backups;
        const char* chains;
    };
    const Case cases[] = {
        {{"15F"}, "15F +"},
        {{"15F", "16D", "17D"}, "15F16D17D +"},
        {{"17D", "15F", "16D"}, "15F16D17D +"},
        {{"08F", "15F", "16D"}, "08F 15F16D +"},
        {{"14D", "15F"}, "(14D) 15F +"},
        {{"14D", "16D"}, "(14D16D) +"},
        {{"08F", "15Fu", "16D"}, "08F16D +15F"},
        {{"08F", "15Fx", "16D"}, "08F16D +15F"},
        {{"08F", "15F", "29Df"}, "08F 15F29D +"},
        {{"15Fu"}, "+15F"},
    };
    for (const Case& one : cases) {
        const auto groups = GroupByUser(All(one.backups));
        ASSERT_EQ(groups.size(), 1U);
        EXPECT_EQ(Chains(groups[0]), one.chains);
    }
}

TEST(ReportChain, UsersDoNotMix) {
    const auto groups = GroupByUser({One("15F", "b"), One("16D", "a"), One("16D", "b")});
    ASSERT_EQ(groups.size(), 2U);
    EXPECT_EQ(groups[0].user + " " + Chains(groups[0]), "a (16D) +");
    EXPECT_EQ(groups[1].user + " " + Chains(groups[1]), "b 15F16D +");
}

TEST(ReportChain, ARestoreNeedsTheFullBackupAndTheDaily) {
    struct Case {
        std::vector<std::string> backups;
        const char* date;
        const char* restored;
    };
    const Case cases[] = {
        {{"15F", "16D", "17D"}, "2026-11-15", "15F"},
        {{"15F", "16D", "17D"}, "2026-11-17", "15F17D"},
        {{"17D", "16D", "15F"}, "2026-11-16", "15F16D"},
        {{"08F", "15F", "16D"}, "2026-11-16", "15F16D"},
        {{"08F", "15Fu", "16D"}, "2026-11-16", "08F16D"},
        {{"08F", "15Fm", "16D"}, "2026-11-16", "08F16D"},
        {{"15F", "29Df"}, "2026-11-29", "15F29D"},
    };
    for (const Case& one : cases) {
        const Restore restore = FindRestore(All(one.backups), one.date);
        EXPECT_EQ(Days(restore.backups), one.restored);
        EXPECT_EQ(restore.fault, "");
    }
}

TEST(ReportChain, AnImpossibleRestoreHasAReason) {
    struct Case {
        std::vector<std::string> backups;
        const char* date;
        const char* fault;
    };
    const Case cases[] = {
        {{}, "2026-11-16", "no backup of this user is known in the info root"},
        {{"15Fu"},
         "2026-11-16",
         "there is no backup for 2026-11-16; this user has no other complete backup"},
        {{"15F"},
         "2026-11-16",
         "there is no backup for 2026-11-16; the nearest complete backups are of 2026-11-15"},
        {{"08F", "15F", "18D", "19D"},
         "2026-11-16",
         "there is no backup for 2026-11-16; the nearest complete backups are of 2026-11-15 and "
         "2026-11-18"},
        {{"15F", "16Du", "17D"},
         "2026-11-16",
         "the backup for 2026-11-16 is not complete (unfinished); the nearest complete backups are "
         "of 2026-11-15 and 2026-11-17"},
        {{"15Fx", "17F"},
         "2026-11-15",
         "the backup for 2026-11-15 is not complete (deletion interrupted); the nearest complete "
         "backups are of 2026-11-17"},
        {{"15Fm", "17F"},
         "2026-11-15",
         "the backup for 2026-11-15 is marked as deleted; the nearest complete backups are of "
         "2026-11-17"},
        {{"14D", "15F"},
         "2026-11-14",
         "the daily backup for 2026-11-14 has no full backup before it, so it cannot be restored"},
        {{"15F"}, "custom", "there is no backup for custom"},
    };
    for (const Case& one : cases) {
        const Restore restore = FindRestore(All(one.backups), one.date);
        EXPECT_EQ(restore.fault, one.fault);
        EXPECT_TRUE(restore.backups.empty());
    }
}

TEST(ReportChain, ADailyOnAnotherBaseIsNotRestored) {
    std::vector<Backup> backups = All({"08F", "15F", "16D"});
    backups[2].base = "web1/2026-11-15/F2026-11-15.web1.tgz";
    EXPECT_EQ(Days(FindRestore(backups, "2026-11-16").backups), "15F16D");
    backups[2].base = "F2026-11-12.web1.tgz";
    EXPECT_EQ(
        FindRestore(backups, "2026-11-16").fault,
        "the daily backup for 2026-11-16 was made on 'F2026-11-12.web1.tgz', and the full "
        "backup before it is 'F2026-11-15.web1': look for the missing full backup, or restore "
        "an earlier day");
}

TEST(ReportChain, ACustomBackupIsRestoredAlone) {
    Backup custom = One("15F");
    custom.date = "custom";
    custom.state = State::kCustom;
    const Restore restore = FindRestore({One("15F"), custom}, "custom");
    ASSERT_EQ(restore.backups.size(), 1U);
    EXPECT_EQ(restore.backups[0].date, "custom");
}

TEST(ReportAge, CountsDaysBetweenDates) {
    Backup backup;
    backup.date = "2026-11-15";
    EXPECT_EQ(AgeInDays(backup, "2026-11-15"), 0);
    EXPECT_EQ(AgeInDays(backup, "2026-11-22"), 7);
    EXPECT_EQ(AgeInDays(backup, "2026-11-14"), -1);
    EXPECT_EQ(AgeInDays(backup, "2027-11-15"), 365);
    backup.date = "custom";
    EXPECT_EQ(AgeInDays(backup, "2026-11-22"), std::nullopt);
    backup.created = "2026-11-20 01:00:00";
    EXPECT_EQ(AgeInDays(backup, "2026-11-22"), 2);
    backup.date = "hostile";
    EXPECT_EQ(AgeInDays(backup, "2026-11-22"), std::nullopt);
}

TEST(ReportLedgerEntry, IsDescribedAsABackup) {
    LedgerEntry entry;
    entry.name = "F2026-11-20.web1.tgz.site";
    entry.started = "2026-11-20 01:00:00";
    entry.slices["F2026-11-20.web1.tgz.site.1.dar"] = {SliceState::kStored, 30, ""};
    Backup backup = FromEntry(entry);
    EXPECT_EQ(backup.user, "web1.tgz.site");
    EXPECT_EQ(backup.date, "2026-11-20");
    EXPECT_EQ(backup.size, 30);
    EXPECT_TRUE(backup.is_full);
    EXPECT_EQ(backup.state, State::kUnfinished);
    entry.name = "C2026-11-20.web1";
    entry.completed = "2026-11-20 02:00:00";
    backup = FromEntry(entry);
    EXPECT_EQ(backup.user + " " + backup.date, "web1 custom");
    EXPECT_EQ(backup.state, State::kLeftover);
}

}  // namespace
