// The summary of events, and the forecast in words.
#include <gtest/gtest.h>

#include "report_figures.h"
#include "report_history.h"

namespace {

constexpr std::int64_t kDayMs = 24LL * 60 * 60 * 1000;

Event EventOf(EventKind kind, const std::string& user, const std::string& date, int day) {
    Event event;
    event.kind = kind;
    event.user = user;
    event.date = date;
    event.time = day * kDayMs;
    return event;
}

TEST(ReportEventSummary, KeepsTheLastEventOfEachKind) {
    EventSummary summary;
    summary.Add(EventOf(EventKind::kDeleted, "a", "2026-11-01", 5));
    summary.Add(EventOf(EventKind::kCompleted, "a", "2026-11-02", 5));
    summary.Add(EventOf(EventKind::kCompleted, "b", "2026-11-02", 3));
    std::string users;
    for (const Event& event : summary.LastEvents()) users += event.user + " ";
    EXPECT_EQ(users, "b a ") << "ordered by time, which may have been set back";
    EXPECT_EQ(summary.DaysBefore(6).size(), 2U);
    EXPECT_EQ(summary.DaysBefore(5).size(), 1U);
}

TEST(ReportEventSummary, ACompletedBackupEndsTheRefusalsOfItsUser) {
    EventSummary summary;
    summary.Add(EventOf(EventKind::kRefused, "a", "2026-11-01", 1));
    summary.Add(EventOf(EventKind::kAbandoned, "b", "2026-11-01", 1));
    summary.Add(EventOf(EventKind::kRefused, "c", "2026-11-01", 1));
    summary.Add(EventOf(EventKind::kCompleted, "a", "2026-11-01", 2));
    EXPECT_EQ(summary.refused().size(), 2U);
    EXPECT_FALSE(summary.refused().contains("a"));
}

TEST(ReportEventSummary, ADeletionEndsItsFailures) {
    EventSummary summary;
    summary.Add(EventOf(EventKind::kDeletionFailed, "a", "2026-11-01", 1));
    summary.Add(EventOf(EventKind::kDeletionFailed, "a", "2026-11-02", 1));
    summary.Add(EventOf(EventKind::kDeleted, "a", "2026-11-01", 2));
    EXPECT_EQ(summary.failed_deletions().size(), 1U);
    EXPECT_TRUE(summary.failed_deletions().contains({"a", "2026-11-02"}));
}

TEST(ReportEventSummary, DeletionsAreCountedByReason) {
    EventSummary summary;
    Event event = EventOf(EventKind::kDeleted, "a", "2026-11-01", 1);
    event.reason = RemovalReason::kCountFull;
    summary.Add(event);
    event.size = 70;
    summary.Add(event);
    event.reason = RemovalReason::kAsked;
    summary.Add(event);
    event.kind = EventKind::kDeletionFailed;
    summary.Add(event);
    const Deletions expected = {{RemovalReason::kCountFull, {2, 70}},
                                {RemovalReason::kAsked, {1, 70}}};
    EXPECT_EQ(summary.deletions(), expected);
}

TEST(ReportEventSummary, DeletionsOfTheRotatedFileAreSubtracted) {
    const Deletions all = {{RemovalReason::kCountFull, {5, 50}}, {RemovalReason::kAsked, {1, 7}}};
    const Deletions earlier = {{RemovalReason::kCountFull, {2, 20}},
                               {RemovalReason::kClear, {1, 1}}};
    EXPECT_EQ(Without(all, earlier),
              (Deletions{{RemovalReason::kCountFull, {3, 30}}, {RemovalReason::kAsked, {1, 7}}}));
    EXPECT_EQ(Without({{RemovalReason::kAsked, {1, 7}}}, {{RemovalReason::kAsked, {2, 9}}}),
              (Deletions{{RemovalReason::kAsked, {0, 0}}}))
        << "the file was rotated between the two readings";
}

TEST(ReportForecast, UsesTheGivenLimit) {
    std::vector<DaySums> days(3);
    days[1].limit = 500;
    SetLimit(days, 700);
    EXPECT_EQ(days[1].limit, std::nullopt);
    EXPECT_EQ(days[2].limit, 700);
    SetLimit(days, ServerLimits::kNoSize);
    EXPECT_EQ(days[2].limit, std::nullopt);
    days.clear();
    SetLimit(days, 700);
    EXPECT_TRUE(days.empty());
}

TEST(ReportForecast, IsInWords) {
    EXPECT_EQ(ForecastText({}), "unknown, the events are of too few days");
    EXPECT_EQ(ForecastText({true, std::nullopt, std::nullopt, std::nullopt}), "not within a year");
    EXPECT_EQ(ForecastText({true, 0, 0, 0}), "already");
    EXPECT_EQ(ForecastText({true, 12, 8, 20}), "in 12 days (8 to 20)");
    EXPECT_EQ(ForecastText({true, 1, 1, 2}), "in 1 day (1 to 2)");
    EXPECT_EQ(ForecastText({true, 12, 8, std::nullopt}), "in 12 days (8 to never)");
}

}  // namespace
