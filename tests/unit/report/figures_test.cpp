// The figures of --status: counts, space and overdue users.
#include <gtest/gtest.h>

#include "report_figures.h"

namespace {

Backup One(const std::string& user, const std::string& date, State state, bool is_full = true) {
    Backup backup;
    backup.user = user;
    backup.date = date;
    backup.state = state;
    backup.is_full = is_full;
    backup.created = date + " 01:00:00";
    backup.finished = date + " 02:00:00";
    return backup;
}

TEST(ReportCensus, CountsEachBackupOnce) {
    Census census;
    census.Add(One("a", "2026-11-15", State::kComplete));
    census.Add(One("a", "2026-11-16", State::kComplete, false));
    census.Add(One("a", "2026-11-29", State::kFuture));
    census.Add(One("b", "2026-11-08", State::kUnfinished));
    census.Add(One("c", "custom", State::kCustom));
    census.Add(One("", "foo", State::kMisnamed));
    EXPECT_EQ(census.users(), 3);
    EXPECT_EQ(census.full(), 1);
    EXPECT_EQ(census.daily(), 1);
    EXPECT_EQ(census.oldest_date(), "2026-11-15");
    EXPECT_EQ(census.newest_date(), "2026-11-16");
    EXPECT_EQ(census.Count(State::kFuture), 1);
    EXPECT_EQ(census.Count(State::kUnfinished), 1);
    EXPECT_EQ(census.Count(State::kBeingDeleted), 0);
    EXPECT_EQ(census.newest().at("a").created, "2026-11-16 01:00:00");
    EXPECT_EQ(census.newest().at("b").date, "");
}

TEST(ReportSpace, ProtectedAreTheNewestChains) {
    GlobalSizeControl account;
    account.size_limit = 10000;
    auto& desc = account.AddStorage(nullptr);
    auto& user = desc.users["web1"];
    user.backups["2026-11-08"] = {100, 0, false};
    user.backups["2026-11-15"] = {200, 0, false};
    user.backups["2026-11-16"] = {30, 1, false};
    user.backups["2026-11-17"] = {40, 1, false};
    desc.users["empty"];
    desc.free_size = 10000 - 370 - 5;
    desc.limit = 10000 - 240 - 5;
    desc.unfinished = 7;
    desc.half_deleted["x.info"] = 9;
    desc.half_deleted["y.info"] = -1;
    const Space space = SpaceOf(account);
    EXPECT_EQ(space.used, 375);
    EXPECT_EQ(space.protected_bytes, 240);
    EXPECT_EQ(space.kept, 5);
    EXPECT_EQ(space.unfinished, 7);
    EXPECT_EQ(space.being_deleted, 9);
}

TEST(ReportSpace, FreeIsWhatIsLeftBelowTheLimit) {
    Space space;
    space.used = 600;
    space.unfinished = 50;
    space.being_deleted = 10;
    struct Case {
        std::optional<std::int64_t> limit;
        std::optional<std::int64_t> reserved;
        std::optional<std::int64_t> free;
    };
    const Case cases[] = {
        {std::nullopt, std::nullopt, std::nullopt},
        {ServerLimits::kNoSize, 0, std::nullopt},
        {1000, std::nullopt, 340},
        {1000, 20, 340},  // the ledger has the reserved file already
        {1000, 80, 310},
        {500, std::nullopt, -160},
    };
    for (const Case& one : cases) EXPECT_EQ(FreeSpace(space, one.limit, one.reserved), one.free);
}

TEST(ReportOverdue, DependsOnTheNewestCompleteBackup) {
    struct Case {
        const char* what;
        Newest newest;
        std::optional<std::int64_t> hours;  // nullopt: the user is not overdue
    };
    const auto made = [](const std::string& created, const std::string& finished) {
        return Newest{"2026-11-19", created, finished, false, true};
    };
    const Case cases[] = {
        {"26 hours", made("2026-11-19 22:00:00", ""), std::nullopt},
        {"a second more", made("2026-11-19 21:59:59", ""), 26},
        {"by the end of the put", made("", "2026-11-19 20:00:00"), 28},
        {"the beginning counts first", made("2026-11-19 20:00:00", "2026-11-20 23:00:00"), 28},
        {"by the date", made("yesterday", "x"), 48},
        {"in the future", made("2027-01-01 00:00:00", ""), std::nullopt},
        {"marked as deleted", {"2026-11-01", "", "", true, true}, std::nullopt},
        {"only custom backups", {"", "", "", false, false}, std::nullopt},
    };
    const kro_date::DateTime reference("2026-11-21 00:00:00");
    for (const Case& one : cases) {
        const auto overdue = FindOverdue({{"web1", one.newest}}, reference, 26);
        ASSERT_EQ(overdue.size(), one.hours ? 1U : 0U) << one.what;
        if (one.hours) {
            EXPECT_EQ(overdue[0].hours, one.hours) << one.what;
        }
    }
    const auto without = FindOverdue({{"web1", {"", "", "", false, true}}}, reference, 26);
    ASSERT_EQ(without.size(), 1U);
    EXPECT_EQ(without[0].hours, std::nullopt);
}

}  // namespace
