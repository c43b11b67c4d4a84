// The plans of evictions. Most cases are tables; backup_letters.h describes their notation. The
// text of a plan contains the user and the letter of each victim in the order of the deletions:
// first the victims of the count limits, then each pass in brackets.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstring>

#include "backup_letters.h"
#include "quarn2_cp2_server_plan.h"
#include "removal_reason_names.h"

namespace {

using backup_letters::DateOf;
using backup_letters::NameOf;
using backup_letters::Names;
using backup_letters::Of;

std::string Text(const Victims& victims) {
    std::string text;
    for (const Victim& victim : victims) {
        const char name = NameOf(victim.date);
        text += victim.user + static_cast<char>(victim.is_interrupted ? std::tolower(name) : name);
    }
    return text;
}

std::string Text(const EvictionPlan& plan) {
    std::string text = Text(plan.by_count);
    for (const Victims& pass : plan.passes) text += "[" + Text(pass) + "]";
    text += Text(plan.after_passes);
    return plan.IsPossible() ? text : text + " lacks " + std::to_string(plan.missing);
}

// The victims with their reasons, types and sizes.
std::string Reasons(const EvictionPlan& plan) {
    std::string text;
    for (const Victim& victim : plan.AllVictims()) {
        text += victim.user + NameOf(victim.date) + " " + ::NameOf(victim.reason) + " type " +
                std::to_string(victim.type) + " size " + std::to_string(victim.size) + "\n";
    }
    return text;
}

// The model with the records of the users "a" and "b".
void Fill(GlobalSizeControl& control, const std::string& a, const std::string& b = "") {
    GlobalSizeControl::StorageDesc& desc = control.storages[""];
    desc.users["a"].backups = Of(a);
    desc.users["b"].backups = Of(b);
    control.max_count = static_cast<int>(std::max(a.size(), b.size()));
}

NotComplete OpenOf(const std::string& user, const std::string& letters) {
    NotComplete found;
    for (const char letter : letters)
        found.open[user].insert(DateOf(static_cast<std::size_t>(letter - 'A')));
    return found;
}

// --- The rules for one user ---

TEST(OldestRemovable, OfATable) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", ""},      {"F", ""},     {"D", ""},    {"FF", "A"},  {"FD", ""},    {"DF", "A"},
        {"DD", "A"},   {"FDD", "B"},  {"FDF", "B"}, {"FFD", "A"}, {"FDFD", "B"}, {"FFDD", "A"},
        {"fF", ""},    {"fFF", "B"},  {"dDF", "B"}, {"fdf", ""},  {"Fdd", ""},   {"FdD", ""},
        {"FdF", ""},   {"FdFF", "C"}, {"FfF", "A"}, {"xF", "A"},  {"FxF", "B"},  {"Fx", ""},
        {"FDfd", "B"}, {"fDDF", "B"}, {"Df", "A"},  {"Fd", ""},   {"Ff", "A"}};
    for (const auto& [letters, expected] : cases) {
        const Backups backups = Of(letters);
        const auto found = OldestRemovable(backups);
        EXPECT_EQ(found == backups.end() ? "" : Names(Backups{*found}), expected) << letters;
        const Chain chain = ChainOf(backups, {});
        const auto same = OldestRemovable(chain);
        EXPECT_EQ(same == chain.end() ? "" : Names(Chain{*same}), expected) << letters;
    }
}

struct ExcessCase {
    const char* letters;
    int leave;
    const char* taken;
    const char* left;
};

TEST(Excess, DailiesOfATable) {
    const ExcessCase cases[] = {
        {"", 0, "", ""},         {"FDD", 0, "B", "AC"},   {"FDD", 1, "B", "AC"},
        {"FDD", 2, "", "ABC"},   {"FDFD", 0, "B", "ACD"}, {"dDF", 0, "B", "AC"},
        {"DDDD", 2, "AB", "CD"}, {"DDDD", 0, "ABC", "D"}, {"ddD", 0, "", "ABC"},
        {"xxF", 0, "", "ABC"},   {"FDDF", 9, "", "ABCD"}, {"FDDF", 0, "BC", "AD"},
    };
    for (const ExcessCase& row : cases) {
        const Backups backups = Of(row.letters);
        Chain chain = ChainOf(backups, {});
        EXPECT_EQ(Names(RemoveExcessDailies(chain, row.leave)), row.taken) << row.letters;
        EXPECT_EQ(Names(chain), row.left) << row.letters;
    }
}

TEST(Excess, FullsOfATable) {
    const ExcessCase cases[] = {
        {"", 0, "", ""},       {"FFF", 1, "AB", "C"}, {"FFF", 2, "A", "BC"},
        {"FFF", 0, "AB", "C"}, {"FDF", 0, "", "ABC"}, {"FFDF", 1, "A", "BCD"},
        {"fFF", 1, "B", "AC"}, {"FfF", 1, "A", "BC"}, {"FxF", 0, "", "ABC"},
        {"DFF", 0, "B", "AC"}, {"FFF", 3, "", "ABC"}, {"FFDFFD", 2, "AD", "BCEF"},
    };
    for (const ExcessCase& row : cases) {
        const Backups backups = Of(row.letters);
        Chain chain = ChainOf(backups, {});
        EXPECT_EQ(Names(RemoveExcessFulls(chain, row.leave)), row.taken) << row.letters;
        EXPECT_EQ(Names(chain), row.left) << row.letters;
    }
}

TEST(Reasons, HaveNames) {
    for (const auto& [reason, name] : kRemovalReasonNames) {
        EXPECT_STREQ(::NameOf(reason), name);
        EXPECT_EQ(ParseRemovalReason(name), reason);
    }
    EXPECT_EQ(ParseRemovalReason("age"), RemovalReason::kUnknown);
    EXPECT_EQ(ParseRemovalReason(""), RemovalReason::kNone);
}

// --- A reservation ---

struct RoomCase {
    const char* a;
    const char* b;
    std::int64_t free;
    std::int64_t reserved;
    std::int64_t size;
    const char* plan;
};

TEST(PlanRoom, OfATable) {
    const RoomCase cases[] = {
        {"FFF", "FFF", 0, 0, 0, ""},
        {"FFF", "FFF", 5, 0, 5, ""},
        {"FFF", "FFF", 5, 4, 1, ""},
        {"FFF", "FFF", 5, 5, 1, "[aAbA]"},
        {"FFF", "FFF", 0, 0, 2, "[aAbA]"},
        {"FFF", "FFF", 0, 0, 3, "[aAbA][aBbB]"},
        {"FFF", "FFF", 0, 0, 6, "[aAbA][aBbB]"},
        {"FFF", "FFF", 0, 0, 7, "[aAbA][aBbB][] lacks 1"},
        {"FFF", "FFF", 5, 9, 12, "[aAbA][aBbB][] lacks 10"},
        {"FFF", "FF", 0, 0, 2, "[aA][aBbA]"},
        {"FFF", "F", 0, 0, 3, "[aA][aB]"},
        {"FDDF", "", 0, 0, 7, "[aB][aC][aA]"},
        {"FDDFDD", "", 0, 0, 23, "[aB][aC][aA][aE]"},
        {"FDDFDD", "", 0, 0, 24, "[aB][aC][aA][aE][][] lacks 1"},
        {"FDD", "", 0, 0, 3, "[aB][][] lacks 1"},
        {"FD", "F", 0, 0, 1, "[][] lacks 1"},
        {"fFF", "", 0, 0, 2, "[aB]"},
        {"fFF", "", 0, 0, 3, "[aB][][] lacks 1"},
        {"ffF", "", 0, 0, 1, "[][][] lacks 1"},
        {"", "", 0, 0, 1, " lacks 1"},
        {"F", "", -10, 0, 0, "[] lacks 10"},
        {"FF", "", -1, 0, 0, "[aA]"},
        {"FF", "", 0, -1, 1, ""},
    };
    for (const RoomCase& row : cases) {
        SCOPED_TRACE(std::string(row.a) + " " + row.b + " " + std::to_string(row.size));
        GlobalSizeControl control;
        Fill(control, row.a, row.b);
        GlobalSizeControl::StorageDesc& desc = control.storages.at("");
        desc.free_size = row.free;
        desc.reserved = row.reserved;
        EXPECT_EQ(Text(PlanRoom(control, "", row.size, {})), row.plan);
        EXPECT_EQ(desc.users.at("a").backups.size(), strlen(row.a)) << "a plan deletes nothing";
        EXPECT_EQ(desc.free_size, row.free);
    }
}

TEST(PlanRoom, NamesTheReasonOfEachVictim) {
    GlobalSizeControl control;
    Fill(control, "DFF", "F");
    EXPECT_EQ(Reasons(PlanRoom(control, "", 3, {})),
              "aA size-reserve type 1 size 1\naB size-reserve type 0 size 2\n");
}

struct OpenCase {
    const char* a;
    const char* open;
    const char* plan;
};

// A backup whose job is repeated is not evicted, and does not count as the user's newest backup or
// as the full backup that follows an earlier one.
TEST(PlanRoom, WithBackupsThatAreMadeAgain) {
    const OpenCase cases[] = {
        {"FFF", "", "[aA][aB]"},          {"FFF", "C", "[][aA][] lacks 2"},
        {"FFF", "A", "[][aB][] lacks 1"}, {"FFF", "AB", "[][][] lacks 3"},
        {"FFF", "ABC", "[][][] lacks 3"}, {"FFD", "B", "[][][] lacks 3"},
        {"FDF", "B", "[][][] lacks 3"},   {"FFDF", "C", "[][aA][][] lacks 2"},
    };
    for (const OpenCase& row : cases) {
        GlobalSizeControl control;
        Fill(control, row.a);
        EXPECT_EQ(Text(PlanRoom(control, "", 3, OpenOf("a", row.open))), row.plan)
            << row.a << " " << row.open;
    }
    GlobalSizeControl control;
    Fill(control, "FFF");
    EXPECT_EQ(Text(PlanRoom(control, "", 3, OpenOf("b", "ABC"))), "[aA][aB]")
        << "the jobs of another user do not matter";
}

TEST(PlanRoom, CountsOnlyTheSpaceOfItsStorage) {
    GlobalSizeControl control;
    Fill(control, "FF");
    control.storages["n1"].users["c"].backups = Of("FF");
    EXPECT_EQ(Text(PlanRoom(control, "n1", 1, {})), "[aAcA]");
    EXPECT_EQ(Text(PlanRoom(control, "n1", 2, {})), "[aAcA][] lacks 1");
}

// A model in which a reservation of another machine lacks `missing` bytes.
class Interrupted : public testing::Test {
  protected:
    static constexpr std::int64_t kSize = 1000;

    void Make(const std::string& complete, const std::string& interrupted,
              const std::string& other_user, std::int64_t missing) {
        control_.storages.clear();
        Fill(control_, complete, other_user);
        not_complete_.interrupted["a"] = Of(interrupted);
        GlobalSizeControl::StorageDesc& desc = control_.storages.at("");
        control_.max_count = static_cast<int>(
            std::max(desc.users.at("a").backups.size(), desc.users.at("b").backups.size()));
        desc.unfinished = 0;
        for (const auto& [date, backup] : not_complete_.interrupted.at("a")) {
            desc.unfinished += backup.size;
        }
        desc.free_size = desc.unfinished + kSize - missing;
    }

    std::string Plan() const { return Text(PlanRoom(control_, "", kSize, not_complete_, true)); }

    GlobalSizeControl control_;
    NotComplete not_complete_;
};

struct InterruptedCase {
    const char* complete;     // of user "a"
    const char* interrupted;  // of user "a"
    const char* other_user;   // complete backups of user "b"
    std::int64_t missing;
    const char* plan;
};

TEST_F(Interrupted, BackupsAreEvictedWhenTheyAreTheOldest) {
    const InterruptedCase cases[] = {
        {"   F", "F", "", 1, "[aa]"},
        {"   F", "D", "", 1, "[aa]"},
        {"   F", "FF", "", 3, "[aa]ab"},
        {" F", "F F", "", 5, "[aa] lacks 4"},
        {"F F", " F", "", 1, "[aA]"},
        {"F F", " F", "", 3, "[aA][ab]"},
        {"F F", " F", "", 4, "[aA][ab] lacks 1"},
        {"F F", " D", "", 3, "[ab][aA]"},
        {"F F", " D", "", 2, "[ab]"},
        {"f F", " F", "", 2, "[ab]"},
        // A daily follows, so an older full backup stays.
        {"   F", "FDF", "", 7, "[ab]aaac"},
        {"   D", "F", "", 1, "[] lacks 1"},
        {"   D", "D", "", 1, "[aa]"},
        {"   D", "FF", "", 1, "[] lacks 1"},
        {"F DF", " F", "", 2, "[aC]"},
        {"F DF", " F", "", 5, "[aC][aA]"},
        {"F DF", " F", "", 7, "[aC][aA][ab]"},
        {"  FF", "FD", "", 3, "[ab][aa]"},
        // The user has no later complete backup.
        {"F", " F", "", 2, "[] lacks 2"},
        {"F", " D", "", 2, "[] lacks 2"},
        {"", "F", "", 1, " lacks 1"},
        {"F", "F", "", 1, "[] lacks 1"},
        // The user with the most backups comes first.
        {"   F", "F", "FFF", 1, "[bA]"},
        {"   F", "F", "FFF", 2, "[bA][aabB]"},
    };
    for (const InterruptedCase& row : cases) {
        Make(row.complete, row.interrupted, row.other_user, row.missing);
        EXPECT_EQ(Plan(), row.plan) << row.complete << "/" << row.interrupted << "/"
                                    << row.other_user << " " << row.missing;
    }
}

TEST_F(Interrupted, BackupsStayBeforeADailyThatIsBeingMade) {
    Make("  DF", "F", "", 1);
    not_complete_.open["a"] = {DateOf(2)};
    EXPECT_EQ(Plan(), "[][] lacks 1");
    Make("  FF", "F", "", 1);
    EXPECT_EQ(Plan(), "[aa]");
    not_complete_.open["a"] = {DateOf(2), DateOf(3)};
    EXPECT_EQ(Plan(), "[][] lacks 1") << "none of the later backups is complete";
}

TEST_F(Interrupted, BackupsStayWhenTheirRemovalDoesNotHelp) {
    Make("   F", "F", "", 1);
    GlobalSizeControl::StorageDesc& desc = control_.storages.at("");
    desc.reserved = kSize;
    desc.free_size = 2 * kSize - 1;
    EXPECT_EQ(Text(PlanRoom(control_, "", kSize, not_complete_)), "[] lacks 1")
        << "the reserved space covers the unfinished backups";
}

TEST_F(Interrupted, BackupsGoForAFullStorage) {
    Make("F F", " F", "", 1);
    EXPECT_EQ(Text(PlanDropOne(control_, 1, not_complete_)), "[aA]");
    Make("  F", " F", "", 1);
    control_.max_count = 2;
    EXPECT_EQ(Text(PlanDropOne(control_, 1, not_complete_)), "[ab]");
    EXPECT_EQ(Text(PlanCounts(control_.storages, 0, 0, not_complete_)), "");
}

// --- The request of a node client ---

TEST(PlanDropOne, IsOnePass) {
    GlobalSizeControl control;
    Fill(control, "DFF", "FF");
    EXPECT_EQ(Text(PlanDropOne(control, 3, {})), "") << "no pass, so max_count stays";
    EXPECT_EQ(Reasons(PlanDropOne(control, 2, {})), "aA size-dropone type 1 size 1\n");
    EXPECT_EQ(Text(PlanDropOne(control, 1, {})), "[aAbA]");
    EXPECT_EQ(Text(PlanDropOne(control, 0, {})), "[aAbA]");
    EXPECT_EQ(Text(PlanDropOne(control, 1, OpenOf("b", "A"))), "[aA]");
    EXPECT_EQ(Text(PlanDropOne(control, 2, OpenOf("a", "A"))), "[]");
    EXPECT_EQ(Text(PlanDropOne(control, 1, OpenOf("a", "A"))), "[aBbA]");
}

// --- A starting server, and the count limits ---

struct StartCase {
    const char* a;
    int full;
    int daily;
    std::int64_t free;
    const char* plan;
};

TEST(PlanStart, OfATable) {
    const StartCase cases[] = {
        {"FFF", 9, 9, 0, ""},
        {"FFF", 2, 9, 0, "aA"},
        {"FFF", 9, 9, -1, "[aA]"},
        {"FFF", 9, 9, -3, "[aA][aB]"},
        {"FFF", 9, 9, -4, "[aA][aB][] lacks 1"},
        {"FFF", 2, 9, -1, "aA"},
        {"FFF", 2, 9, -3, "aA[][aB]"},
        {"FFF", 2, 9, -5, "aA[][aB][] lacks 2"},
        {"FDDF", 1, 0, -7, "aBaCaA"},
        {"FDD", 9, 0, -2, "aB"},
        {"FDD", 9, 0, -3, "aB[][][] lacks 1"},
    };
    for (const StartCase& row : cases) {
        GlobalSizeControl control;
        Fill(control, row.a);
        control.full_limit = row.full;
        control.daily_limit = row.daily;
        control.size_limit = 1000;
        control.storages.at("").free_size = row.free;
        EXPECT_EQ(Text(PlanStart(control)), row.plan)
            << row.a << " " << row.full << ":" << row.daily << " " << row.free;
    }
}

TEST(PlanStart, NamesTheReasonOfEachVictim) {
    GlobalSizeControl control;
    Fill(control, "FDDFFF", "FF");
    control.full_limit = 4;
    control.daily_limit = 1;
    control.size_limit = 1000;
    control.storages.at("").free_size = -7;
    EXPECT_EQ(Reasons(PlanStart(control)),
              "aB count-daily type 1 size 2\naC size-start type 1 size 4\n"
              "aA size-start type 0 size 1\n");
    control.full_limit = 3;
    control.daily_limit = 0;
    EXPECT_EQ(Reasons(PlanStart(control)),
              "aB count-daily type 1 size 2\naC count-daily type 1 size 4\n"
              "aA count-full type 0 size 1\n");
}

TEST(PlanStart, AStorageWithoutALimitIsNeverTooFull) {
    GlobalSizeControl control;
    Fill(control, "FF");
    control.daily_limit = ServerLimits::kNoCount;
    control.storages.at("").free_size = -10;  // two info files whose sizes together overflow
    EXPECT_EQ(Text(PlanStart(control)), "");
}

TEST(PlanStart, MeasuresTheFullestStorage) {
    GlobalSizeControl control;
    Fill(control, "FF");
    control.size_limit = 1000;
    control.storages.at("").free_size = -3;
    control.storages["n1"].free_size = -5;
    EXPECT_EQ(Text(PlanStart(control)), "[aA][] lacks 5");
}

TEST(PlanCounts, WithBackupsThatAreMadeAgain) {
    const OpenCase cases[] = {
        {"FFFF", "", "aAaBaC"}, {"FFFF", "D", "aAaB"},  {"FFFF", "A", "aBaC"}, {"FFD", "B", ""},
        {"FDF", "A", "aB"},     {"FDF", "C", ""},       {"FDFD", "C", "aB"},   {"FDF", "B", ""},
        {"FFDF", "C", "aA"},    {"FFDFF", "C", "aAaD"},
    };
    for (const OpenCase& row : cases) {
        GlobalSizeControl control;
        Fill(control, row.a);
        EXPECT_EQ(Text(PlanCounts(control.storages, 1, 0, OpenOf("a", row.open))), row.plan)
            << row.a << " " << row.open;
    }
}

TEST(PlanCounts, UsersWithBackupsOfTheSameDatesAreCountedAlone) {
    GlobalSizeControl control;
    Fill(control, "FDF", "FFD");
    EXPECT_EQ(Text(PlanCounts(control.storages, 1, 0, {})), "aBaAbA");
    EXPECT_EQ(Text(PlanCounts(control.storages, 2, 1, {})), "");
}

// --- The backups that stay ---

std::string WhyText(const std::vector<Kept>& kept) {
    std::string text;
    for (const Kept& backup : kept) {
        text += backup.user + NameOf(backup.date) + ": " + TextOf(backup.reason) + "\n";
    }
    return text;
}

TEST(WhyKept, NamesAReasonForEachBackupThatStays) {
    GlobalSizeControl control;
    Fill(control, "FDfDDF", "FDF");
    const NotComplete open = OpenOf("b", "C");
    EXPECT_EQ(WhyText(WhyKept(control.storages, PlanRoom(control, "", 2, open), open)),
              "aA: the limits do not require its deletion\naC: locked\n"
              "aD: the limits do not require its deletion\n"
              "aE: the limits do not require its deletion\naF: newest backup of its user\n"
              "bA: a daily depends on it\nbB: newest backup of its user\nbC: its job is being "
              "repeated\n");
    EXPECT_EQ(WhyText(WhyKept(control.storages, {}, {})),
              "aA: a daily depends on it\naB: the limits do not require its deletion\naC: locked\n"
              "aD: the limits do not require its deletion\n"
              "aE: the limits do not require its deletion\naF: newest backup of its user\n"
              "bA: a daily depends on it\nbB: the limits do not require its deletion\n"
              "bC: newest backup of its user\n");
}

TEST(WhyKept, AFullBackupIsNeededByADailyThatIsMadeAgain) {
    GlobalSizeControl control;
    Fill(control, "FDF");
    EXPECT_EQ(WhyText(WhyKept(control.storages, {}, OpenOf("a", "B"))),
              "aA: a daily depends on it\naB: its job is being repeated\n"
              "aC: newest backup of its user\n");
}

}  // namespace
