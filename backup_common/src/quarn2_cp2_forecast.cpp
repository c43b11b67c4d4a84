#include "quarn2_cp2_forecast.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

#include "quarn2_cp2_misc_sizes.h"

namespace {

constexpr int kWeek = 7;

// `values` must not be empty. Interpolates linearly between neighbouring values.
double Quantile(std::vector<double> values, double part) {
    std::sort(values.begin(), values.end());
    const double at = part * static_cast<double>(values.size() - 1);
    const auto below = static_cast<std::size_t>(at);
    const std::size_t above = std::min(below + 1, values.size() - 1);
    return values[below] + (values[above] - values[below]) * (at - static_cast<double>(below));
}

double Median(std::vector<double> values) { return Quantile(std::move(values), 0.5); }

std::vector<DayValue> LastDays(const std::vector<DayValue>& values) {
    std::vector<DayValue> last;
    for (const DayValue& value : values) {
        if (value.day > values.back().day - kTrendDays) last.push_back(value);
    }
    return last;
}

// The slopes of all pairs of days that are whole weeks apart.
std::vector<double> WeeklySlopes(const std::vector<DayValue>& values) {
    std::vector<double> slopes;
    for (std::size_t i = 0; i < values.size(); ++i) {
        for (std::size_t k = i + 1; k < values.size(); ++k) {
            const int distance = values[k].day - values[i].day;
            if (distance <= 0 || distance % kWeek != 0) continue;
            slopes.push_back((values[k].value - values[i].value) / distance);
        }
    }
    return slopes;
}

int WeekdayOf(int day) noexcept { return (day % kWeek + kWeek) % kWeek; }

// The usual value of each weekday: the median of the values of that weekday, each projected along
// the trend to the last day. Empty for a weekday that has no values.
using WeekLevels = std::array<std::optional<double>, kWeek>;
WeekLevels LevelsOf(const std::vector<DayValue>& values, double slope) {
    std::array<std::vector<double>, kWeek> moved;
    for (const DayValue& value : LastDays(values)) {
        moved.at(static_cast<std::size_t>(WeekdayOf(value.day)))
            .push_back(value.value + slope * (values.back().day - value.day));
    }
    WeekLevels levels;
    for (std::size_t i = 0; i < moved.size(); ++i) {
        if (!moved.at(i).empty()) levels.at(i) = Median(moved.at(i));
    }
    return levels;
}

// The space that would be used at the end of each day if the server had not deleted backups to make
// space.
std::vector<DayValue> DemandOf(const std::vector<DaySums>& days) {
    std::vector<DayValue> demand;
    double evicted = 0;
    for (const DaySums& day : days) {
        evicted += static_cast<double>(day.evicted);
        if (day.used) demand.push_back({day.day, static_cast<double>(*day.used) + evicted});
    }
    return demand;
}

// How much higher the used space is on the highest weekday than on the weekday of the last day.
double WeeklyPeak(const std::vector<DayValue>& demand, double slope) {
    const WeekLevels levels = LevelsOf(demand, slope);
    const auto today = static_cast<std::size_t>(WeekdayOf(demand.back().day));
    double peak = 0;
    for (const auto& level : levels) peak = std::max(peak, level.value_or(0) - *levels.at(today));
    return peak;
}

std::vector<DayValue> CompletedOf(const std::vector<DaySums>& days) {
    std::vector<DayValue> values;
    values.reserve(days.size());
    for (const DaySums& day : days) values.push_back({day.day, static_cast<double>(day.completed)});
    return values;
}

// The usual size of the backups that are completed per day, as the mean of a week that ends with
// the last day. A weekday without events counts as 0.
double DailyRate(const std::vector<DayValue>& completed, double slope) {
    double sum = 0;
    for (const auto& level : LevelsOf(completed, slope)) sum += level.value_or(0);
    return std::max(sum / kWeek, 0.0);
}

std::optional<double> LastLimit(const std::vector<DaySums>& days) {
    const auto last = std::find_if(days.rbegin(), days.rend(),
                                   [](const DaySums& day) { return day.limit.has_value(); });
    if (last == days.rend()) return std::nullopt;
    return static_cast<double>(*last->limit);
}

// The days until `level` reaches `aim` with `slope` per day.
std::optional<int> DaysUntil(double level, double slope, double aim) {
    if (level >= aim) return 0;
    if (slope <= 0) return std::nullopt;
    const double days = std::ceil((aim - level) / slope);
    if (!(days <= kForecastDays)) return std::nullopt;
    return static_cast<int>(days);
}

Forecast Reaches(double level, const Trend& trend, double aim) {
    return {true, DaysUntil(level, trend.slope, aim), DaysUntil(level, trend.high, aim),
            DaysUntil(level, trend.low, aim)};
}

constexpr Forecast kNever = {true, std::nullopt, std::nullopt, std::nullopt};

}  // namespace

void DailySums::Add(const Event& event) {
    DaySums& sums = days_[EventDay(event.time)];
    const std::int64_t size = event.size.value_or(0);
    if (event.kind == EventKind::kCompleted) sums.completed = SumOfSizes(sums.completed, size);
    if (event.kind == EventKind::kDeleted) {
        sums.deleted = SumOfSizes(sums.deleted, size);
        if (IsForSpace(event.reason)) sums.evicted = SumOfSizes(sums.evicted, size);
    }
    if (event.used) sums.used = event.used;
    if (event.limit) sums.limit = event.limit;
}

std::vector<DaySums> DailySums::Days() const {
    std::vector<DaySums> days;
    for (const auto& [day, sums] : days_) {
        days.push_back(sums);
        days.back().day = day;
    }
    return days;
}

std::optional<Trend> TrendOf(const std::vector<DayValue>& values) {
    const std::vector<DayValue> last = LastDays(values);
    const std::vector<double> slopes = WeeklySlopes(last);
    if (last.size() < kMinTrendDays || slopes.empty()) return std::nullopt;
    return Trend{Median(slopes), Quantile(slopes, 0.25), Quantile(slopes, 0.75)};
}

Forecast EvictionForecast(const std::vector<DaySums>& days) {
    const std::vector<DayValue> demand = DemandOf(days);
    const std::optional<Trend> trend = TrendOf(demand);
    if (!trend) return {};
    const std::optional<double> limit = LastLimit(days);
    if (!limit) return kNever;
    const auto last = std::find_if(days.rbegin(), days.rend(),
                                   [](const DaySums& day) { return day.used.has_value(); });
    const double level = static_cast<double>(*last->used) + WeeklyPeak(demand, trend->slope);
    return Reaches(level, *trend, *limit);
}

Forecast DepthForecast(const std::vector<DaySums>& days, int min_days) {
    const std::vector<DayValue> completed = CompletedOf(days);
    const std::optional<Trend> trend = TrendOf(completed);
    if (!trend) return {};
    const std::optional<double> limit = LastLimit(days);
    if (!limit || min_days <= 0) return kNever;
    return Reaches(DailyRate(completed, trend->slope), *trend, *limit / min_days);
}

Forecast RefusalForecast(const std::vector<DaySums>& days, std::int64_t newest_chains) {
    const std::vector<DayValue> completed = CompletedOf(days);
    const std::optional<Trend> trend = TrendOf(completed);
    if (!trend) return {};
    const std::optional<double> limit = LastLimit(days);
    if (!limit) return kNever;
    const double rate = DailyRate(completed, trend->slope);
    const auto chains = static_cast<double>(newest_chains);
    if (rate <= 0) return Reaches(chains, {}, *limit);
    const double growth = chains / rate;
    return Reaches(chains, {trend->slope * growth, trend->low * growth, trend->high * growth},
                   *limit);
}
