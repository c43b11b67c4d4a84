// The text of events.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <limits>

#include "kro/kro_err.h"
#include "quarn2_cp2_event.h"
#include "removal_reason_names.h"

namespace {

constexpr auto kMax = std::numeric_limits<std::int64_t>::max();

Event FullEvent() {
    Event event;
    event.time = 1795176000123;
    event.kind = EventKind::kDeleted;
    event.reason = RemovalReason::kSizeReserve;
    event.user = "web1";
    event.date = "2026-11-20";
    event.type = "full";
    event.size = 5;
    event.used = 0;
    event.limit = kMax;
    event.node = "node1";
    event.storage = "site";
    event.detail = "a \"text\"\nwith lines";
    return event;
}

std::string ErrorOf(std::string_view line) {
    try {
        ParseEvent(line);
    } catch (const kro_err::Error& error) {
        return error.what();
    }
    return "(no error)";
}

TEST(Event, IsOneLineWithItsMembersInOrder) {
    EXPECT_EQ(FormatEvent(FullEvent()),
              R"({"time":"2026-11-20T12:00:00.123Z","event":"deleted","reason":"size-reserve",)"
              R"("user":"web1","date":"2026-11-20","type":"full","size":5,"used":0,)"
              R"("limit":9223372036854775807,"node":"node1","storage":"site",)"
              R"("detail":"a \"text\"\nwith lines"})");
    EXPECT_EQ(ParseEvent(FormatEvent(FullEvent())), FullEvent());
}

TEST(Event, HasNoMemberForWhatIsAbsent) {
    Event event;
    event.kind = EventKind::kServerEnded;
    EXPECT_EQ(FormatEvent(event), R"({"time":"1970-01-01T00:00:00.000Z","event":"server-ended"})");
    EXPECT_EQ(ParseEvent(FormatEvent(event)), event);
    EXPECT_EQ(ParseEvent(R"({"time":"1970-01-01T00:00:00.000Z","event":"server-ended",)"
                         R"("user":null,"size":null,"reason":null})"),
              event);
}

TEST(Event, HasANameForEachKindAndReason) {
    const std::vector<std::pair<EventKind, std::string>> kinds = {
        {EventKind::kStored, "stored"},
        {EventKind::kCompleted, "completed"},
        {EventKind::kRefused, "refused"},
        {EventKind::kAbandoned, "abandoned"},
        {EventKind::kDeletionBegun, "deletion-begun"},
        {EventKind::kDeleted, "deleted"},
        {EventKind::kDeletionFailed, "deletion-failed"},
        {EventKind::kServerStarted, "server-started"},
        {EventKind::kServerEnded, "server-ended"},
        {EventKind::kRescan, "rescan"}};
    Event event;
    for (const auto& [kind, name] : kinds) {
        event.kind = kind;
        EXPECT_THAT(FormatEvent(event), testing::HasSubstr("\"event\":\"" + name + "\""));
        EXPECT_EQ(ParseEvent(FormatEvent(event)).kind, kind);
    }
    for (const auto& [reason, name] : kRemovalReasonNames) {
        event.reason = reason;
        EXPECT_THAT(FormatEvent(event),
                    testing::HasSubstr("\"reason\":\"" + std::string(name) + "\""));
        EXPECT_EQ(ParseEvent(FormatEvent(event)).reason, reason);
    }
}

TEST(Event, OfANewerVersionIsUnknownButReadable) {
    const Event event = ParseEvent(
        R"({"time":"2026-11-20T12:00:00.123Z","event":"moved","reason":"age","user":"web1",)"
        R"("to":{"storage":[1,2]},"size":7})");
    EXPECT_EQ(event.kind, EventKind::kUnknown);
    EXPECT_EQ(event.reason, RemovalReason::kUnknown);
    EXPECT_EQ(event.user, "web1");
    EXPECT_EQ(event.size, 7);
    EXPECT_EQ(ParseEvent(FormatEvent(event)), event);
}

TEST(Event, TimesAreInUtcWithMilliseconds) {
    const std::vector<std::pair<std::int64_t, std::string>> times = {
        {0, "1970-01-01T00:00:00.000Z"},
        {951782400001, "2000-02-29T00:00:00.001Z"},
        {1798761599999, "2026-12-31T23:59:59.999Z"},
        {253402300799999, "9999-12-31T23:59:59.999Z"}};
    for (const auto& [time, text] : times) {
        Event event;
        event.time = time;
        EXPECT_THAT(FormatEvent(event), testing::HasSubstr("\"time\":\"" + text + "\""));
        EXPECT_EQ(ParseEvent(FormatEvent(event)).time, time);
    }
    Event event;
    event.time = -1;
    EXPECT_EQ(ParseEvent(FormatEvent(event)).time, 0);
    event.time = kMax;
    EXPECT_EQ(ParseEvent(FormatEvent(event)).time, 253402300799999);
}

TEST(Event, OfABrokenLineIsAnErrorWithItsReason) {
    const auto with_time = [](const std::string& time) {
        return ErrorOf(R"({"time":")" + time + R"(","event":"stored"})");
    };
    for (const char* time :
         {"", "2026-11-20", "2026-11-20 12:00:00.123Z", "2026-11-20T12:00:00Z",
          "2026-11-20T12:00:00.123", "2026-11-20T12:00:00.123Zx", "x026-11-20T12:00:00.123Z"}) {
        EXPECT_EQ(with_time(time), "the time is not of the form YYYY-MM-DDTHH:MM:SS.mmmZ") << time;
    }
    for (const char* time :
         {"2026-02-29T12:00:00.123Z", "2026-11-20T24:00:00.000Z", "2026-11-20T12:60:00.000Z",
          "2026-11-20T12:00:60.000Z", "2026-00-01T12:00:00.000Z"}) {
        EXPECT_EQ(with_time(time), "this date or time does not exist") << time;
    }
    EXPECT_EQ(with_time("1969-12-31T23:59:59.999Z"), "the time is before 1970");
    for (const char* line :
         {"", "x", "{", R"({"time":"2026-11-20T12:00:00.123Z","event":"stored)"}) {
        EXPECT_EQ(ErrorOf(line), "this is not valid JSON") << line;
    }
    EXPECT_EQ(ErrorOf("[]"), "this is not a JSON object");
    const std::string begin = R"({"time":"2026-11-20T12:00:00.123Z",)";
    EXPECT_EQ(ErrorOf(begin + R"("user":"a"})"), "the member 'event' is missing");
    EXPECT_EQ(ErrorOf(begin + R"("event":5})"), "the member 'event' is not a string");
    EXPECT_EQ(ErrorOf(begin + R"("event":"stored","user":5})"),
              "the member 'user' is not a string");
    for (const char* size : {"-1", "1.5", "\"5\"", "9223372036854775808", "true"}) {
        EXPECT_EQ(ErrorOf(begin + R"("event":"stored","used":)" + size + "}"),
                  "the member 'used' is not a size in bytes")
            << size;
    }
}

TEST(Event, NegativeSizesBecomeZero) {
    Event event = FullEvent();
    event.used = -5;
    EXPECT_EQ(ParseEvent(FormatEvent(event)).used, 0);
}

TEST(Event, LongTextsAreCutBetweenCharacters) {
    const auto detail_of = [](const std::string& detail) {
        Event event = FullEvent();
        event.detail = detail;
        return ParseEvent(FormatEvent(event)).detail;
    };
    EXPECT_EQ(detail_of(std::string(1000, 'x')), std::string(1000, 'x'));
    EXPECT_EQ(detail_of(std::string(1001, 'x')), std::string(997, 'x') + "...");
    EXPECT_EQ(detail_of(std::string(996, 'x') + "\xe2\x82\xac\xe2\x82\xac"),
              std::string(996, 'x') + "...");
    EXPECT_LE(detail_of(std::string(5000, '\x80')).size(), 3 * kMaxEventText);
    EXPECT_EQ(detail_of("a\xff z"), "a\xef\xbf\xbd z");
}

TEST(Event, IsFoundBehindTheRestOfAnother) {
    const std::string line = FormatEvent(FullEvent());
    EXPECT_EQ(EventBehindFragment(line), "");
    EXPECT_EQ(EventBehindFragment(line.substr(0, 60) + line), line);
    EXPECT_EQ(EventBehindFragment("x" + line.substr(0, 60) + line), line);
    EXPECT_EQ(EventBehindFragment("x"), "");
    Event event = FullEvent();
    event.detail = line;
    EXPECT_EQ(EventBehindFragment(FormatEvent(event)), "");
}

class EventDays : public testing::Test {
  protected:
    EventDays() { SetZone("CET-1CEST,M3.5.0,M10.5.0/3"); }
    ~EventDays() override {
        if (zone_) {
            SetZone(zone_);
        } else {
            ::unsetenv("TZ");
            ::tzset();
        }
    }

  private:
    static void SetZone(const char* zone) {
        const std::string copy = zone;
        ::setenv("TZ", copy.c_str(), 1);
        ::tzset();
    }
    const char* zone_ = std::getenv("TZ");
};

TEST_F(EventDays, AreThoseOfTheLocalTime) {
    EXPECT_EQ(EventDay(0), 0);
    EXPECT_EQ(DateOfDay(EventDay(1795215599999)), "2026-11-20");
    EXPECT_EQ(DateOfDay(EventDay(1795215600000)), "2026-11-21");
    EXPECT_EQ(EventDay(253402300799999), EventDay(253402300799999 - 3600 * 1000) + 1);
}

TEST(Event, OnlyEvictionsForSpaceAreForSpace) {
    EXPECT_TRUE(IsForSpace(RemovalReason::kSizeStart));
    EXPECT_TRUE(IsForSpace(RemovalReason::kSizeReserve));
    EXPECT_TRUE(IsForSpace(RemovalReason::kSizeDropOne));
    for (const RemovalReason reason :
         {RemovalReason::kNone, RemovalReason::kUnknown, RemovalReason::kCountDaily,
          RemovalReason::kCountFull, RemovalReason::kAsked, RemovalReason::kDependant,
          RemovalReason::kIncomplete, RemovalReason::kClear, RemovalReason::kRescan,
          RemovalReason::kResumed}) {
        EXPECT_FALSE(IsForSpace(reason));
    }
}

}  // namespace
