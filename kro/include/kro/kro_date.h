// Civil dates and date-times in local time.
//
// Texts are "YYYY-MM-DD" and "YYYY-MM-DD HH:MM:SS"; any other text is a kro_err::Error that quotes
// it.
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

namespace kro_date {

class Date {
  public:
    explicit Date(std::string_view text);

    // The date today.
    static Date Today();

    std::string AsDate() const;

    // 0 for Sunday to 6 for Saturday.
    int weekday() const noexcept;

    void AddDays(int days) noexcept { days_ += days; }

  private:
    explicit Date(std::int64_t days) noexcept : days_(days) {}

    std::int64_t days_;  // since 1970-01-01
};

class DateTime {
  public:
    explicit DateTime(std::string_view text);
    static DateTime Now();

    std::string AsDateTime() const;

    // Real elapsed seconds: a change of summer time in between adds or takes no hour.
    friend std::int64_t operator-(const DateTime& a, const DateTime& b) noexcept {
        return static_cast<std::int64_t>(a.time_) - static_cast<std::int64_t>(b.time_);
    }

  private:
    explicit DateTime(std::time_t time) noexcept : time_(time) {}

    std::time_t time_;
};

// True when the text is a date as Date takes it.
bool IsDate(std::string_view text) noexcept;

// The one place that asks for the time (kro_clock library; a test links its own).
std::time_t SystemNow() noexcept;

// The same for what is measured: no setting of the clock moves it.
std::chrono::steady_clock::time_point SteadyNow() noexcept;

}  // namespace kro_date
