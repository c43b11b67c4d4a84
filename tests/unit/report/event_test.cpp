// Events as text and as JSON.
#include <gtest/gtest.h>

#include <cstdlib>

#include "report_event.h"

namespace {

const Names kPlain(false, "");
const Names kHashed(true, "key");

// 2026-11-20 12:00:00.123 UTC.
constexpr std::int64_t kTime = 1795176000123;

Event Deleted() {
    Event event;
    event.time = kTime;
    event.kind = EventKind::kDeleted;
    event.reason = RemovalReason::kSizeReserve;
    event.user = "web1";
    event.date = "2026-11-01";
    event.type = "full";
    event.size = 5000;
    event.used = 95000;
    event.limit = 100000;
    return event;
}

Event WithDetail(EventKind kind, const std::string& user, const std::string& detail) {
    Event event;
    event.time = kTime;
    event.kind = kind;
    event.user = user;
    event.detail = detail;
    return event;
}

class ReportEvent : public testing::Test {
  protected:
    ReportEvent() {
        setenv("TZ", "Europe/Berlin", 1);
        tzset();
    }
    ~ReportEvent() override {
        setenv("TZ", "UTC", 1);
        tzset();
    }
};

TEST_F(ReportEvent, IsALineInLocalTimeWithTheReasonInWords) {
    EXPECT_EQ(EventLine(Deleted(), kPlain),
              "2026-11-20 13:00:00  deleted          web1 2026-11-01: full, 5.00 kB, space for an "
              "upload, used 95.0 kB of 100 kB");
    Event completed = Deleted();
    completed.kind = EventKind::kCompleted;
    completed.reason = RemovalReason::kNone;
    completed.limit.reset();
    completed.node = "node2";
    completed.storage = "own";
    EXPECT_EQ(EventLine(completed, kPlain),
              "2026-11-20 13:00:00  completed        web1 2026-11-01: full, 5.00 kB, used 95.0 kB, "
              "node node2, storage own");
    EXPECT_EQ(EventLine(WithDetail(EventKind::kDeletionFailed, "web1", "no answer"), kPlain),
              "2026-11-20 13:00:00  deletion failed  web1: no answer");
    EXPECT_EQ(EventLine(WithDetail(EventKind::kServerEnded, "", ""), kPlain),
              "2026-11-20 13:00:00  server ended");
}

TEST_F(ReportEvent, EachReasonHasItsWords) {
    std::string all;
    for (int number = 0; number <= static_cast<int>(RemovalReason::kResumed); ++number) {
        all += std::string(TextOf(static_cast<RemovalReason>(number))) + "\n";
    }
    EXPECT_EQ(all,
              "\na reason that this version does not know\n"
              "more daily backups than the count limit\nmore full backups than the count limit\n"
              "more than the size limit at the start of the server\nspace for an upload\n"
              "the storage was full\nnamed by --delete\nthe full backup that it needs is deleted\n"
              "never completed\n--clear\nthe rescan did not find it on the storage\n"
              "completion of an interrupted deletion\n");
}

TEST_F(ReportEvent, TextsAreEscaped) {
    EXPECT_EQ(EventLine(WithDetail(EventKind::kRefused, "a\x1b[2J", "b\n\\"), kPlain),
              "2026-11-20 13:00:00  refused          a\\x1b[2J: b\\x0a\\\\");
}

TEST_F(ReportEvent, JsonHasEachMember) {
    EXPECT_EQ(Format(kro_json::Value(EventJson(Deleted(), kPlain))),
              R"({"time":"2026-11-20T12:00:00.123Z","event":"deleted","reason":"size-reserve",)"
              R"("user":"web1","date":"2026-11-01","type":"full","size":5000,"used":95000,)"
              R"("limit":100000,"node":null,"storage":null,"detail":null})");
}

TEST_F(ReportEvent, NamesAreHashedEverywhere) {
    Event event = WithDetail(EventKind::kStored, "web1", "web1/F2026-11-20.web1.tgz");
    event.storage = "web1";
    event.date = "web1";
    for (const EventKind kind : {EventKind::kStored, EventKind::kDeletionFailed}) {
        event.kind = kind;
        EXPECT_EQ(EventLine(event, kHashed).find("web1"), std::string::npos);
        EXPECT_EQ(Format(kro_json::Value(EventJson(event, kHashed))).find("web1"),
                  std::string::npos);
    }
    // The text of an error can name the info file of any user.
    event = WithDetail(EventKind::kServerEnded, "", "root/2026-11-20.web1.info: broken");
    EXPECT_EQ(EventLine(event, kHashed), "2026-11-20 13:00:00  server ended     (left out)");
    event = WithDetail(EventKind::kRescan, "", "backups: 1");
    EXPECT_EQ(EventLine(event, kHashed), "2026-11-20 13:00:00  rescan           backups: 1");
}

}  // namespace
