#include <gtest/gtest.h>

#include <cstdlib>

#include "kro/kro_date.h"
#include "kro/kro_env.h"
#include "kro/kro_err.h"

namespace {

// Sets the time zone for one test.
class Zone {
  public:
    explicit Zone(const char* name) : old_(kro_env::GetEnv("TZ")) { Set(name); }
    ~Zone() { Set(old_.c_str()); }
    Zone(const Zone&) = delete;
    Zone& operator=(const Zone&) = delete;

  private:
    static void Set(const char* name) {
        if (*name == '\0') {
            ::unsetenv("TZ");
        } else {
            ::setenv("TZ", name, 1);
        }
        ::tzset();
    }
    std::string old_;
};

template <class Parsed>
std::string ErrorOf(const std::string& text) {
    try {
        Parsed parsed{std::string_view(text)};
    } catch (const kro_err::Error& error) {
        return error.what();
    }
    return "no error";
}

TEST(Date, ReadsAndWritesDates) {
    for (const char* text : {"2026-11-20", "2024-02-29", "2000-02-29", "0001-01-01", "9999-12-31",
                             "1969-12-31", "1970-01-01"}) {
        EXPECT_EQ(kro_date::Date(text).AsDate(), text);
        EXPECT_TRUE(kro_date::IsDate(text));
    }
}

TEST(Date, RefusesEveryOtherText) {
    for (const char* text :
         {"", "custom", "2026-11-2", "2026-11-200", "2026-13-01", "2026-00-01", "2026-02-29",
          "1900-02-29", "2026-04-31", "2026-11-00", "0000-01-01", "2026/11/20", "20261120",
          " 2026-11-20", "2026-11-20 ", "+026-11-20", "2026-1 -20", "2026-11-2x", "2026--1-20"}) {
        EXPECT_EQ(ErrorOf<kro_date::Date>(text),
                  std::string("'") + text + "' is not a date (YYYY-MM-DD)");
        EXPECT_FALSE(kro_date::IsDate(text)) << text;
    }
}

TEST(Date, KnowsTheDayOfTheWeek) {
    EXPECT_EQ(kro_date::Date("2026-11-22").weekday(), 0);
    EXPECT_EQ(kro_date::Date("2026-11-20").weekday(), 5);
    EXPECT_EQ(kro_date::Date("2026-11-21").weekday(), 6);
    EXPECT_EQ(kro_date::Date("1969-12-28").weekday(), 0);
}

TEST(Date, AddsDays) {
    kro_date::Date date("2024-02-28");
    date.AddDays(2);
    EXPECT_EQ(date.AsDate(), "2024-03-01");
    date.AddDays(-366);
    EXPECT_EQ(date.AsDate(), "2023-03-01");
}

TEST(Date, CountsDaysNotHoursOverSummerTime) {
    const Zone zone("Europe/Berlin");
    kro_date::Date date("2026-03-28");
    date.AddDays(1);
    EXPECT_EQ(date.AsDate(), "2026-03-29");
    date.AddDays(1);
    EXPECT_EQ(date.AsDate(), "2026-03-30");
}

TEST(Date, TodayIsTheLocalDate) {
    for (const char* name : {"Pacific/Kiritimati", "Pacific/Midway", "UTC"}) {
        const Zone zone(name);
        const std::string before = kro_date::DateTime::Now().AsDateTime().substr(0, 10);
        const std::string today = kro_date::Date::Today().AsDate();
        const std::string after = kro_date::DateTime::Now().AsDateTime().substr(0, 10);
        EXPECT_TRUE(today == before || today == after) << today;
    }
}

TEST(DateTime, ReadsAndWritesLocalTime) {
    const Zone zone("Europe/Berlin");
    for (const char* text : {"2026-11-20 16:06:18", "2026-07-01 00:00:00", "2026-12-31 23:59:59",
                             "1970-01-01 00:59:59", "2024-02-29 12:00:00"}) {
        EXPECT_EQ(kro_date::DateTime(text).AsDateTime(), text);
    }
}

TEST(DateTime, TakesTheSecondBeforeTheEpoch) {
    const Zone zone("UTC");
    EXPECT_EQ(kro_date::DateTime("1969-12-31 23:59:59").AsDateTime(), "1969-12-31 23:59:59");
}

TEST(DateTime, RefusesEveryOtherText) {
    for (const char* text :
         {"", "2026-11-20", "2026-11-20 16:06", "2026-11-20T16:06:18", "2026-11-20 24:00:00",
          "2026-11-20 16:60:00", "2026-11-20 16:06:60", "2026-02-30 16:06:18",
          "2026-11-20 16:06:18 ", "2026-11-20 16:06:1x", "2026-11-20  6:06:18"}) {
        EXPECT_EQ(ErrorOf<kro_date::DateTime>(text),
                  std::string("'") + text + "' is not a date and time (YYYY-MM-DD HH:MM:SS)");
    }
}

TEST(DateTime, DiffersByRealSeconds) {
    const Zone zone("Europe/Berlin");
    using kro_date::DateTime;
    EXPECT_EQ(DateTime("2026-11-20 16:06:18") - DateTime("2026-11-20 16:06:08"), 10);
    EXPECT_EQ(DateTime("2026-11-20 16:06:08") - DateTime("2026-11-20 16:06:18"), -10);
    EXPECT_EQ(DateTime("2026-03-29 12:00:00") - DateTime("2026-03-28 12:00:00"), 23 * 3600);
    EXPECT_EQ(DateTime("2026-10-25 12:00:00") - DateTime("2026-10-24 12:00:00"), 25 * 3600);
}

TEST(DateTime, NowIsTheSystemsTime) {
    const Zone zone("UTC");
    const kro_date::DateTime epoch("1970-01-01 00:00:00");
    const std::time_t before = kro_date::SystemNow();
    const std::int64_t now = kro_date::DateTime::Now() - epoch;
    EXPECT_GE(now, before);
    EXPECT_LE(now, kro_date::SystemNow());
}

TEST(Clock, SecondsAndMillisecondsAreTheSameTime) {
    const std::int64_t before = kro_date::SystemNow();
    const std::int64_t now = kro_date::SystemNowMs() / 1000;
    EXPECT_GE(now, before);
    // The clock of whole seconds may lag by a tick.
    EXPECT_LE(now, kro_date::SystemNow() + 1);
}

}  // namespace
