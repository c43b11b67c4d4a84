// Civil dates and date-times in local time.
//
// The text formats are "YYYY-MM-DD" and "YYYY-MM-DD HH:MM:SS". The constructors throw
// kro_err::Error, which quotes the text, for any other text.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

#include "kro/kro_clock.h"

namespace kro_date {

class Date {
  public:
    explicit Date(std::string_view text);

    // The current date.
    static Date Today();

    std::string AsDate() const;

    // 0 for Sunday to 6 for Saturday.
    int weekday() const noexcept;

    void AddDays(int days) noexcept { days_ += days; }

  private:
    explicit Date(std::int64_t days) noexcept : days_(days) {}

    std::int64_t days_;  // days since 1970-01-01
};

class DateTime {
  public:
    explicit DateTime(std::string_view text);
    explicit DateTime(std::time_t time) noexcept : time_(time) {}
    static DateTime Now();

    std::string AsDateTime() const;

    // The seconds from `b` to `a`. A change between standard time and daylight saving time does not
    // affect the result.
    friend std::int64_t operator-(const DateTime& a, const DateTime& b) noexcept {
        return static_cast<std::int64_t>(a.time_) - static_cast<std::int64_t>(b.time_);
    }

  private:
    std::time_t time_;
};

// True when the constructor of Date accepts the text.
bool IsDate(std::string_view text) noexcept;

}  // namespace kro_date
