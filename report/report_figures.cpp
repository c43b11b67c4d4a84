#include "report_figures.h"

#include <algorithm>

#include "kro/kro_err.h"
#include "kro/str.h"
#include "quarn2_cp2_misc_sizes.h"

namespace {

constexpr std::int64_t kHour = 3600;

std::optional<kro_date::DateTime> ParseTime(const std::string& text) {
    try {
        return kro_date::DateTime(text);
    } catch (const kro_err::Error&) {
        return std::nullopt;
    }
}

std::optional<kro_date::DateTime> TimeOf(const Newest& newest) {
    if (const auto created = ParseTime(newest.created)) return created;
    if (const auto finished = ParseTime(newest.finished)) return finished;
    return ParseTime(newest.date + " 00:00:00");
}

}  // namespace

void Census::Add(const Backup& backup) {
    ++counts_[backup.state];
    // A misnamed info file does not count for a user, because its name contains none.
    if (backup.state == State::kMisnamed || backup.user.empty()) return;
    Newest& newest = newest_[backup.user];
    if (backup.state != State::kCustom && backup.date != "custom") newest.has_scheduled = true;
    if (backup.state == State::kComplete) AddComplete(backup, newest);
}

void Census::AddComplete(const Backup& backup, Newest& newest) {
    ++(backup.is_full ? full_ : daily_);
    if (oldest_date_.empty() || backup.date < oldest_date_) oldest_date_ = backup.date;
    newest_date_ = std::max(newest_date_, backup.date);
    if (backup.date < newest.date) return;
    newest.date = backup.date;
    newest.created = backup.created;
    newest.finished = backup.finished;
    newest.is_marked_deleted = backup.is_marked_deleted;
}

std::int64_t Census::Count(State state) const {
    const auto found = counts_.find(state);
    return found == counts_.end() ? 0 : found->second;
}

Space SpaceOf(const GlobalSizeControl& account) {
    Space space;
    for (const auto& [key, desc] : account.storages) {
        space.used = SumOfSizes(space.used, LessSize(account.size_limit, desc.free_size));
        const std::int64_t never = LessSize(account.size_limit, desc.limit);
        std::int64_t chains = 0;
        for (const auto& [name, user] : desc.users) {
            if (!user.backups.empty()) chains = SumOfSizes(chains, user.GetLockedSize());
        }
        space.protected_bytes = SumOfSizes(space.protected_bytes, chains);
        space.kept = SumOfSizes(space.kept, LessSize(never, chains));
        space.unfinished = SumOfSizes(space.unfinished, desc.unfinished);
        for (const auto& [path, size] : desc.half_deleted) {
            space.being_deleted = SumOfSizes(space.being_deleted, std::max<std::int64_t>(size, 0));
        }
    }
    return space;
}

std::optional<std::int64_t> FreeSpace(const Space& space, std::optional<std::int64_t> limit,
                                      std::optional<std::int64_t> reserved) {
    if (!limit || *limit == ServerLimits::kNoSize) return std::nullopt;
    std::int64_t free = LessSize(*limit, space.used);
    // A reservation is for a file of an unfinished backup, which the ledger counts already.
    free = LessSize(free, std::max(space.unfinished, reserved.value_or(0)));
    return LessSize(free, space.being_deleted);
}

void SetLimit(std::vector<DaySums>& days, std::int64_t limit) {
    for (DaySums& day : days) day.limit.reset();
    if (!days.empty() && limit != ServerLimits::kNoSize) days.back().limit = limit;
}

std::string ForecastText(const Forecast& forecast) {
    if (!forecast.has_data) return "unknown, the events are of too few days";
    if (!forecast.expected) return "not within a year";
    if (*forecast.expected == 0) return "already";
    const auto day = [](std::optional<int> days) { return days ? str::Str(*days) : "never"; };
    const char* const unit = *forecast.expected == 1 ? " day (" : " days (";
    return "in " + str::Str(*forecast.expected) + unit + day(forecast.earliest) + " to " +
           day(forecast.latest) + ")";
}

std::vector<Overdue> FindOverdue(const std::map<std::string, Newest>& newest,
                                 const kro_date::DateTime& reference, int max_hours) {
    std::vector<Overdue> overdue;
    for (const auto& [user, backup] : newest) {
        if (!backup.has_scheduled || backup.is_marked_deleted) continue;
        const std::optional<kro_date::DateTime> time = TimeOf(backup);
        if (!time) {
            overdue.push_back({user, backup.date, std::nullopt});
            continue;
        }
        const std::int64_t age = reference - *time;
        if (age > max_hours * kHour) overdue.push_back({user, backup.date, age / kHour});
    }
    return overdue;
}
