#include "kro/kro_date.h"

#include <chrono>
#include <cstdio>
#include <optional>

#include "kro/kro_err.h"
#include "kro/str.h"

namespace kro_date {

namespace {

using std::chrono::day;
using std::chrono::days;
using std::chrono::month;
using std::chrono::sys_days;
using std::chrono::year;
using std::chrono::year_month_day;

constexpr std::size_t kDateSize = 10;      // YYYY-MM-DD
constexpr std::size_t kDateTimeSize = 19;  // YYYY-MM-DD HH:MM:SS

// True when the text has a digit for every 'd' of the shape, and the same characters otherwise.
bool HasShape(std::string_view text, std::string_view shape) noexcept {
    if (text.size() != shape.size()) return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (shape[i] == 'd' ? !str::IsDigit(text[i]) : text[i] != shape[i]) return false;
    }
    return true;
}

int Number(std::string_view digits) noexcept {
    int value = 0;
    for (const char c : digits) value = value * 10 + (c - '0');
    return value;
}

std::optional<year_month_day> ParseDate(std::string_view text) noexcept {
    if (!HasShape(text, "dddd-dd-dd")) return std::nullopt;
    const int number = Number(text.substr(0, 4));
    const year_month_day date(year(number), month(static_cast<unsigned>(Number(text.substr(5, 2)))),
                              day(static_cast<unsigned>(Number(text.substr(8, 2)))));
    if (number == 0 || !date.ok()) return std::nullopt;
    return date;
}

std::optional<std::tm> ParseDateTime(std::string_view text) noexcept {
    if (text.size() != kDateTimeSize || !HasShape(text.substr(kDateSize), " dd:dd:dd")) {
        return std::nullopt;
    }
    const auto date = ParseDate(text.substr(0, kDateSize));
    if (!date) return std::nullopt;
    std::tm civil{};
    civil.tm_year = static_cast<int>(date->year()) - 1900;
    civil.tm_mon = static_cast<int>(static_cast<unsigned>(date->month())) - 1;
    civil.tm_mday = static_cast<int>(static_cast<unsigned>(date->day()));
    civil.tm_hour = Number(text.substr(11, 2));
    civil.tm_min = Number(text.substr(14, 2));
    civil.tm_sec = Number(text.substr(17, 2));
    civil.tm_isdst = -1;
    if (civil.tm_hour > 23 || civil.tm_min > 59 || civil.tm_sec > 59) return std::nullopt;
    return civil;
}

kro_err::Error TextError(std::string_view text, const char* what) {
    return kro_err::Error(kro_err::Kind::kFailed, str::Quoted(text) + " is not " + what);
}

std::int64_t DaysOf(const year_month_day& date) noexcept {
    return sys_days(date).time_since_epoch().count();
}

sys_days DayAt(std::int64_t number) noexcept { return sys_days(days(static_cast<int>(number))); }

std::tm LocalTime(std::time_t time) noexcept {
    std::tm civil{};
    localtime_r(&time, &civil);
    return civil;
}

}  // namespace

Date::Date(std::string_view text) : days_(0) {
    const auto date = ParseDate(text);
    if (!date) throw TextError(text, "a date (YYYY-MM-DD)");
    days_ = DaysOf(*date);
}

Date Date::Today() {
    const std::tm now = LocalTime(SystemNow());
    return Date(DaysOf(year_month_day(year(now.tm_year + 1900),
                                      month(static_cast<unsigned>(now.tm_mon + 1)),
                                      day(static_cast<unsigned>(now.tm_mday)))));
}

std::string Date::AsDate() const {
    const year_month_day date(DayAt(days_));
    char text[32];
    std::snprintf(text, sizeof text, "%04d-%02u-%02u", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()));
    return text;
}

int Date::weekday() const noexcept {
    return static_cast<int>(std::chrono::weekday(DayAt(days_)).c_encoding());
}

DateTime::DateTime(std::string_view text) : time_(0) {
    auto civil = ParseDateTime(text);
    if (!civil) throw TextError(text, "a date and time (YYYY-MM-DD HH:MM:SS)");
    // The value that mktime returns on failure is also a valid time. Only a successful call sets
    // tm_wday.
    civil->tm_wday = -1;
    time_ = std::mktime(&*civil);
    if (civil->tm_wday < 0) throw TextError(text, "a time that this system can represent");
}

DateTime DateTime::Now() { return DateTime(SystemNow()); }

std::string DateTime::AsDateTime() const {
    const std::tm civil = LocalTime(time_);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", civil.tm_year + 1900,
                  civil.tm_mon + 1, civil.tm_mday, civil.tm_hour, civil.tm_min, civil.tm_sec);
    return text;
}

bool IsDate(std::string_view text) noexcept { return ParseDate(text).has_value(); }

}  // namespace kro_date
