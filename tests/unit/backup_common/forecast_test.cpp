// Forecasts from synthetic histories.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <limits>
#include <random>

#include "quarn2_cp2_forecast.h"

namespace {

constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
constexpr int kFirstDay = 20000;
constexpr std::int64_t kLimit = 10'000;

using History = std::vector<DaySums>;

DaySums DayOf(int number, std::int64_t used, std::int64_t completed) {
    DaySums day;
    day.day = kFirstDay + number;
    day.used = used;
    day.completed = completed;
    day.limit = kLimit;
    return day;
}

// `used` and `completed` return the values of day i, where i is 0 to count - 1.
template <class Used, class Completed>
History HistoryOf(int count, const Used& used, const Completed& completed) {
    History days;
    for (int i = 0; i < count; ++i) days.push_back(DayOf(i, used(i), completed(i)));
    return days;
}

// A history in which each day uses `step` bytes more than the previous day. The last day uses
// `last` bytes.
History Growing(int count, std::int64_t step, std::int64_t last, std::int64_t completed = 100) {
    return HistoryOf(
        count, [=](int i) { return last - step * (count - 1 - i); },
        [=](int) { return completed; });
}

Forecast In(int days) { return {true, days, days, days}; }
const Forecast kNever = {true, std::nullopt, std::nullopt, std::nullopt};
const Forecast kNoData = {};

// --- The trend ---

TEST(Trend, IsTheMedianOfWeeklySlopes) {
    std::vector<DayValue> values;
    for (int i = 0; i < 30; ++i) values.push_back({i, 5.0 * i});
    auto trend = TrendOf(values);
    ASSERT_TRUE(trend);
    EXPECT_DOUBLE_EQ(trend->slope, 5);
    EXPECT_DOUBLE_EQ(trend->low, 5);
    EXPECT_DOUBLE_EQ(trend->high, 5);
    values[12].value = 1e18;
    values[20].value = -1e18;
    trend = TrendOf(values);
    EXPECT_DOUBLE_EQ(trend->slope, 5);
}

TEST(Trend, OfALevelWithNoiseHasARangeAroundZero) {
    std::vector<DayValue> values;
    std::mt19937 random(1);
    for (int i = 0; i < 30; ++i)
        values.push_back({i, 1000.0 + static_cast<double>(random() % 100)});
    const auto trend = TrendOf(values);
    ASSERT_TRUE(trend);
    EXPECT_LT(trend->low, 0);
    EXPECT_GT(trend->high, 0);
    EXPECT_NEAR(trend->slope, 0, 2);
}

TEST(Trend, UsesOnlyTheLast30Days) {
    std::vector<DayValue> values;
    for (int i = 0; i < 100; ++i) values.push_back({i, i < 70 ? 1000.0 * i : 70000.0});
    EXPECT_DOUBLE_EQ(TrendOf(values)->slope, 0);
}

TEST(Trend, NeedsTenDays) {
    std::vector<DayValue> values;
    EXPECT_FALSE(TrendOf(values));
    for (int i = 0; i < 9; ++i) values.push_back({i, 1.0 * i});
    EXPECT_FALSE(TrendOf(values));
    values.push_back({9, 9});
    EXPECT_TRUE(TrendOf(values));
    const std::vector<DayValue> same_day(10, DayValue{0, 1});
    EXPECT_FALSE(TrendOf(same_day));
}

// --- When evictions for space begin ---

TEST(EvictionForecast, FollowsTheTrend) {
    struct Case {
        const char* what;
        History days;
        Forecast forecast;
    };
    const std::vector<Case> cases = {
        {"no history", {}, kNoData},
        {"nine days", Growing(9, 100, 8000), kNoData},
        {"ten days", Growing(10, 100, 8000), In(20)},
        {"a month", Growing(30, 100, 8000), In(20)},
        {"half a year", Growing(180, 10, 8000), In(200)},
        {"not within a year", Growing(30, 1, 8000), kNever},
        {"just within a year", Growing(30, 10, 10'000 - 3650), In(365)},
        {"flat", Growing(30, 0, 8000), kNever},
        {"shrinking", Growing(30, -100, 2000), kNever},
        {"shrinking, but above the limit", Growing(30, -100, 11'000), In(0)},
        {"full", Growing(30, 100, kLimit), In(0)}};
    for (const Case& c : cases) EXPECT_EQ(EvictionForecast(c.days), c.forecast) << c.what;
}

TEST(EvictionForecast, IsNotChangedByAnOutlier) {
    for (const std::int64_t outlier : {std::int64_t{0}, std::int64_t{9999}, kMax}) {
        History days = Growing(30, 100, 8000);
        days[17].used = outlier;
        EXPECT_EQ(EvictionForecast(days).expected, 20) << outlier;
    }
}

TEST(EvictionForecast, IsNotChangedByGaps) {
    History days = Growing(30, 100, 8000);
    days.erase(days.begin() + 5, days.begin() + 14);
    days.erase(days.begin() + 10);
    EXPECT_EQ(EvictionForecast(days), In(20));
    for (DaySums& day : days) {
        if (day.day % 5 == 0) day.used.reset();
    }
    days.back().used = 8000;
    EXPECT_EQ(EvictionForecast(days), In(20));
}

// One day of each week adds full backups of 700 bytes. The other days add nothing.
TEST(EvictionForecast, WeeklyFullsAreNoTrendWithinTheWeek) {
    const auto staircase = [](int i) { return 3000 + (i + 3) / 7 * 700; };
    for (int count = 20; count < 40; ++count) {
        const History days = HistoryOf(count, staircase, [](int) { return 0; });
        int begin = count;
        while (staircase(begin) < kLimit) ++begin;
        const Forecast forecast = EvictionForecast(days);
        ASSERT_TRUE(forecast.expected) << count;
        // The forecast is never later than the first eviction, and at most a week earlier.
        EXPECT_LE(*forecast.expected, begin - count + 1) << count;
        EXPECT_GE(*forecast.expected, begin - count + 1 - 7) << count;
    }
}

// The count limits delete the oldest full backup some days after the new one is complete.
TEST(EvictionForecast, AWeeklyPeakCountsButIsNoGrowth) {
    const auto low = [](int i) { return i % 7 < 3 ? 9000 : 5000; };
    const auto high = [](int i) { return i % 7 < 3 ? 10'500 : 5000; };
    for (int count = 24; count < 31; ++count) {
        EXPECT_EQ(EvictionForecast(HistoryOf(count, low, [](int) { return 0; })), kNever) << count;
        EXPECT_EQ(EvictionForecast(HistoryOf(count, high, [](int) { return 0; })), In(0)) << count;
    }
}

TEST(EvictionForecast, UsesTheNewestLimit) {
    History days = Growing(30, 100, 8000);
    for (std::size_t i = 15; i < days.size(); ++i) days[i].limit = 2 * kLimit;
    EXPECT_EQ(EvictionForecast(days), In(120));
    days.back().limit.reset();
    EXPECT_EQ(EvictionForecast(days), In(120));
    for (DaySums& day : days) day.limit.reset();
    EXPECT_EQ(EvictionForecast(days), kNever);
}

// The limit was lowered, and the server deleted backups to fit into it.
TEST(EvictionForecast, PastEvictionsCountAsGrowth) {
    History days = Growing(30, 100, 8000);
    for (std::size_t i = 20; i < days.size(); ++i) *days[i].used -= 3000;
    days[20].evicted = days[20].deleted = 3000;
    EXPECT_EQ(EvictionForecast(days), In(50));
    // A deletion because of the count limits does not count as growth.
    days[20].evicted = 0;
    const Forecast counted = EvictionForecast(days);
    ASSERT_TRUE(counted.earliest);
    EXPECT_EQ(*counted.earliest, 50);
}

TEST(EvictionForecast, HasARange) {
    // Growth of 100 or 200 bytes per day in alternating weeks.
    std::int64_t used = 0;
    History days;
    for (int i = 0; i < 28; ++i) days.push_back(DayOf(i, used += i / 7 % 2 == 0 ? 100 : 200, 0));
    const Forecast forecast = EvictionForecast(days);
    ASSERT_TRUE(forecast.expected && forecast.earliest && forecast.latest);
    EXPECT_LT(*forecast.earliest, *forecast.latest);
    EXPECT_LE(*forecast.earliest, *forecast.expected);
    EXPECT_LE(*forecast.expected, *forecast.latest);
    const auto left = static_cast<int>(kLimit - used);
    EXPECT_GE(*forecast.earliest, left / 200);
    EXPECT_LE(*forecast.latest, left / 100 + 1);
}

TEST(EvictionForecast, BearsTheLargestNumbers) {
    History days = Growing(30, 100, 8000);
    for (DaySums& day : days) {
        day.used = kMax;
        day.evicted = kMax;
        day.completed = kMax;
        day.limit = kMax;
    }
    EXPECT_EQ(EvictionForecast(days), In(0));
    EXPECT_EQ(DepthForecast(days, 1), In(0));
    EXPECT_EQ(RefusalForecast(days, kMax), In(0));
    EXPECT_EQ(RefusalForecast(days, 0), kNever);
    for (DaySums& day : days) day.limit = 0;
    EXPECT_EQ(EvictionForecast(days), In(0));
}

// --- How many days of backups there is space for ---

TEST(DepthForecast, FollowsTheSizeOfCompletedBackups) {
    const auto used = [](int) { return 5000; };
    const auto rate = [](int step) { return [step](int i) { return 1000 + step * (i - 29); }; };
    struct Case {
        const char* what;
        int step;
        int min_days;
        Forecast forecast;
    };
    // 10,000 bytes are enough for 10 days of 1000 bytes. The mean of the last week is the value of
    // its middle day, three days before the last one. The forecast extrapolates this value to the
    // last day.
    const std::vector<Case> cases = {
        {"flat and enough", 0, 9, kNever}, {"flat and not enough", 0, 11, In(0)},
        {"growing", 10, 5, In(100)},       {"growing, soon", 10, 8, In(25)},
        {"shrinking", -10, 5, kNever},     {"any number", 10, 0, kNever}};
    for (const Case& c : cases) {
        EXPECT_EQ(DepthForecast(HistoryOf(30, used, rate(c.step)), c.min_days), c.forecast)
            << c.what;
    }
    EXPECT_EQ(DepthForecast(HistoryOf(9, used, rate(10)), 5), kNoData);
}

// Full backups of 4000 bytes on one day of each week and dailies of 500 bytes on the other days, so
// 1000 bytes per day.
TEST(DepthForecast, IsNotChangedByTheWeekdayOfTheFulls) {
    const auto used = [](int) { return 5000; };
    for (int weekday = 0; weekday < 7; ++weekday) {
        const auto weekly = [weekday](int i) { return i % 7 == weekday ? 4000 : 500; };
        const History days = HistoryOf(30, used, weekly);
        EXPECT_EQ(DepthForecast(days, 9), kNever) << weekday;
        EXPECT_EQ(DepthForecast(days, 11), In(0)) << weekday;
    }
}

TEST(DepthForecast, CountsDaysWithoutBackupsOfEachWeek) {
    History days = HistoryOf(
        35, [](int) { return 5000; }, [](int) { return 1400; });
    std::erase_if(days, [](const DaySums& day) { return day.day % 7 < 2; });
    EXPECT_EQ(DepthForecast(days, 9), kNever);
    EXPECT_EQ(DepthForecast(days, 11), In(0));
}

TEST(DepthForecast, IsNotChangedByAnOutlier) {
    History days = HistoryOf(
        30, [](int) { return 5000; }, [](int) { return 1000; });
    days[28].completed = 1'000'000;
    EXPECT_EQ(DepthForecast(days, 9).expected, std::nullopt);
}

// --- When uploads are refused ---

TEST(RefusalForecast, LetsTheNewestBackupsGrowLikeTheCompletedOnes) {
    const auto used = [](int) { return 5000; };
    const auto completed = [](int i) { return 1000 + 10 * (i - 29); };
    const History days = HistoryOf(30, used, completed);
    // The completed backups grow by 10 of 1000 bytes per day, so the forecast assumes that the
    // newest backups grow by one per cent per day.
    EXPECT_EQ(RefusalForecast(days, 5000), In(100));
    EXPECT_EQ(RefusalForecast(days, 8000), In(25));
    EXPECT_EQ(RefusalForecast(days, 10'000), In(0));
    EXPECT_EQ(RefusalForecast(days, 0), kNever);
    EXPECT_EQ(RefusalForecast(History(days.begin(), days.begin() + 9), 5000), kNoData);
}

TEST(RefusalForecast, IsNeverForNewestBackupsThatDoNotGrow) {
    EXPECT_EQ(RefusalForecast(Growing(30, 100, 8000), 9999), kNever);
    EXPECT_EQ(RefusalForecast(Growing(30, 100, 8000, 0), 9999), kNever);
    EXPECT_EQ(RefusalForecast(Growing(30, 100, 8000, 0), 10'000), In(0));
}

// --- The daily sums ---

Event EventAt(std::int64_t hours, EventKind kind, std::int64_t size) {
    Event event;
    // 2026-11-20 00:30 in the local time.
    std::tm civil{};
    civil.tm_year = 126;
    civil.tm_mon = 10;
    civil.tm_mday = 20;
    civil.tm_min = 30;
    civil.tm_isdst = -1;
    event.time = (std::mktime(&civil) + hours * 3600) * 1000;
    event.kind = kind;
    event.size = size;
    return event;
}

TEST(DailySums, AddUpTheEventsOfADay) {
    DailySums sums;
    sums.Add(EventAt(0, EventKind::kCompleted, 100));
    sums.Add(EventAt(1, EventKind::kCompleted, 20));
    sums.Add(EventAt(1, EventKind::kStored, 7));
    Event evicted = EventAt(2, EventKind::kDeleted, 30);
    evicted.reason = RemovalReason::kSizeReserve;
    evicted.used = 90;
    evicted.limit = 1000;
    sums.Add(evicted);
    Event counted = EventAt(23, EventKind::kDeleted, 40);
    counted.reason = RemovalReason::kCountDaily;
    counted.used = 50;
    sums.Add(counted);
    sums.Add(EventAt(49, EventKind::kCompleted, kMax));
    sums.Add(EventAt(50, EventKind::kCompleted, kMax));

    const int day = EventDay(evicted.time);
    EXPECT_EQ(DateOfDay(day), "2026-11-20");
    DaySums first = {day, 120, 70, 30, 50, 1000};
    DaySums third = {day + 2, kMax, 0, 0, std::nullopt, std::nullopt};
    EXPECT_THAT(sums.Days(), testing::ElementsAre(first, third));
}

}  // namespace
