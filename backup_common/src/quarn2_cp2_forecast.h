// Forecasts for a storage with a size limit, from the daily sums of its events. The functions are
// pure: they use neither the clock nor files.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "quarn2_cp2_event.h"

// The events of one day. All sizes are in bytes.
struct DaySums {
    int day = 0;                        // local civil day, as days since 1970-01-01
    std::int64_t completed = 0;         // size of the backups that were completed
    std::int64_t deleted = 0;           // size of the backups that were deleted
    std::int64_t evicted = 0;           // the part of `deleted` that was deleted to make space
    std::optional<std::int64_t> used;   // the used space after the last event of the day
    std::optional<std::int64_t> limit;  // the size limit after the last event of the day

    friend bool operator==(const DaySums&, const DaySums&) = default;
};

// Adds up events by day. Sums saturate at the maximum value.
class DailySums {
  public:
    void Add(const Event& event);

    // The days with events, the earliest first.
    std::vector<DaySums> Days() const;

  private:
    std::map<int, DaySums> days_;
};

// A trend in bytes per day. The lower and upper quartile of the slopes between pairs of days are
// its range.
struct Trend {
    double slope = 0;
    double low = 0;
    double high = 0;
};

struct DayValue {
    int day = 0;
    double value = 0;
};

// Computes a trend from the last kTrendDays days: the median slope of all pairs of days that are
// whole weeks apart. So weekly full backups do not appear as a trend, and a few unusual days do not
// change it. `values` are sorted by day. Returns std::nullopt for fewer than kMinTrendDays days
// with values. With kMinTrendDays days there are always at least three such pairs.
std::optional<Trend> TrendOf(const std::vector<DayValue>& values);
inline constexpr int kTrendDays = 30;
inline constexpr std::size_t kMinTrendDays = 10;

// Forecasts end this number of days after the last day of the history.
inline constexpr int kForecastDays = 365;

// The number of days from the last day of the history until a condition begins; 0 if it already
// holds. A member is empty if the condition does not begin within kForecastDays.
struct Forecast {
    bool has_data = false;        // false: not enough data, the other members have no values
    std::optional<int> expected;  // with the slope of the trend
    std::optional<int> earliest;  // with the quartile that reaches the condition first
    std::optional<int> latest;    // with the other quartile

    friend bool operator==(const Forecast&, const Forecast&) = default;
};

// The three functions below use the size limit of the last day whose events contain one. Without a
// limit, their conditions never begin. `days` is the result of DailySums::Days without the current
// day, because that day is not over. Days without events may be missing.

// Forecasts when the server begins to delete backups because of the size limit. Backups that it has
// already deleted for that reason count as growth.
Forecast EvictionForecast(const std::vector<DaySums>& days);

// Forecasts when the limit becomes less than the size of the backups that all users together
// complete in `min_days` days. From then on the storage keeps fewer than about `min_days` days of
// backups for each user, even if the count limits allow more.
Forecast DepthForecast(const std::vector<DaySums>& days, int min_days);

// Forecasts when the newest backups of all users, with the full backups that they need, reach the
// limit. From then on the server refuses uploads, because it never deletes these backups.
// `newest_chains` is their size on the last day. They are assumed to grow like the size of the
// backups that are completed per day.
Forecast RefusalForecast(const std::vector<DaySums>& days, std::int64_t newest_chains);
