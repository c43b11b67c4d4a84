// The sums of --history.
#include <gtest/gtest.h>

#include "report_sums.h"

namespace {

using Reason = RemovalReason;

Event EventOf(EventKind kind, const std::string& user, Reason reason,
              std::optional<std::int64_t> size) {
    Event event;
    event.kind = kind;
    event.user = user;
    event.reason = reason;
    event.size = size;
    return event;
}

std::vector<EventSum> SumsOf(const std::vector<Event>& events) {
    EventSums sums;
    for (const Event& event : events) sums.Add(event);
    return sums.Sums();
}

TEST(ReportSums, AreByUserKindAndReason) {
    using enum EventKind;
    const std::vector<EventSum> expected = {{{"a", kCompleted, Reason::kNone}, 2, 7},
                                            {{"a", kDeleted, Reason::kSizeReserve}, 1, 4},
                                            {{"a", kDeleted, Reason::kAsked}, 1, 1},
                                            {{"b", kCompleted, Reason::kNone}, 1, 9}};
    EXPECT_EQ(SumsOf({EventOf(kDeleted, "a", Reason::kSizeReserve, 4),
                      EventOf(kCompleted, "b", Reason::kNone, 9),
                      EventOf(kCompleted, "a", Reason::kNone, 5),
                      EventOf(kDeleted, "a", Reason::kAsked, 1),
                      EventOf(kCompleted, "a", Reason::kNone, 2)}),
              expected);
}

TEST(ReportSums, ContainTheConclusionsOfUploadsAndDeletionsOnly) {
    struct Case {
        EventKind kind;
        bool is_added_up;
    };
    const Case cases[] = {{EventKind::kUnknown, false},       {EventKind::kStored, false},
                          {EventKind::kCompleted, true},      {EventKind::kRefused, true},
                          {EventKind::kAbandoned, true},      {EventKind::kDeletionBegun, false},
                          {EventKind::kDeleted, true},        {EventKind::kDeletionFailed, true},
                          {EventKind::kServerStarted, false}, {EventKind::kServerEnded, false},
                          {EventKind::kRescan, false}};
    for (const Case& one : cases) {
        EXPECT_EQ(!SumsOf({EventOf(one.kind, "a", Reason::kNone, 1)}).empty(), one.is_added_up)
            << NameOf(one.kind);
    }
}

TEST(ReportSums, AnEventWithoutASizeCountsButHasNoBytes) {
    const Event without = EventOf(EventKind::kRefused, "a", Reason::kNone, std::nullopt);
    const Event with = EventOf(EventKind::kRefused, "a", Reason::kNone, 3);
    EXPECT_EQ(SumsOf({without, without}).front().size, std::nullopt);
    EXPECT_EQ(SumsOf({without, with, without}).front(),
              (EventSum{{"a", EventKind::kRefused, Reason::kNone}, 3, 3}));
}

TEST(ReportSums, TheEndOfAClearIsNoDeletedBackup) {
    EXPECT_EQ(SumsOf({EventOf(EventKind::kDeleted, "a", Reason::kClear, 2),
                      EventOf(EventKind::kDeleted, "", Reason::kClear, std::nullopt)}),
              (std::vector<EventSum>{{{"a", EventKind::kDeleted, Reason::kClear}, 1, 2}}));
}

TEST(ReportSums, TotalsAreThoseOfAllUsers) {
    using enum EventKind;
    EventSums sums;
    for (const char* user : {"a", "b", "c"}) {
        sums.Add(EventOf(kDeleted, user, Reason::kCountFull, 2));
        sums.Add(EventOf(kRefused, user, Reason::kNone, std::nullopt));
    }
    const std::vector<EventSum> expected = {{{"", kRefused, Reason::kNone}, 3, std::nullopt},
                                            {{"", kDeleted, Reason::kCountFull}, 3, 6}};
    EXPECT_EQ(sums.Totals(), expected);
}

}  // namespace
