// The figures of --status. The functions only process data.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kro/kro_date.h"
#include "quarn2_cp2_forecast.h"
#include "quarn2_cp2_server_model.h"
#include "report_backup.h"

// The newest complete backup of a user.
struct Newest {
    std::string date;  // empty: the user has no complete backup
    std::string created;
    std::string finished;
    bool is_marked_deleted = false;
    bool has_scheduled = false;  // has at least one backup that is not custom
};

// Counts the backups one by one, so that its memory use grows only with the number of users.
class Census {
  public:
    void Add(const Backup& backup);

    std::int64_t users() const noexcept { return static_cast<std::int64_t>(newest_.size()); }
    std::int64_t Count(State state) const;
    std::int64_t full() const noexcept { return full_; }
    std::int64_t daily() const noexcept { return daily_; }
    // The dates of the oldest and newest complete backups; empty when there are none.
    const std::string& oldest_date() const noexcept { return oldest_date_; }
    const std::string& newest_date() const noexcept { return newest_date_; }
    const std::map<std::string, Newest>& newest() const noexcept { return newest_; }

  private:
    void AddComplete(const Backup& backup, Newest& newest);

    std::map<State, std::int64_t> counts_;
    std::int64_t full_ = 0;
    std::int64_t daily_ = 0;
    std::string oldest_date_;
    std::string newest_date_;
    std::map<std::string, Newest> newest_;  // by user
};

// Sizes in bytes.
struct Space {
    std::int64_t used = 0;             // complete backups, custom ones included
    std::int64_t protected_bytes = 0;  // part of `used`: the newest chains, which are never evicted
    std::int64_t kept = 0;             // part of `used`: custom and other backups, never evicted
    std::int64_t unfinished = 0;       // files of backups that are not complete
    std::int64_t being_deleted = 0;    // backups whose deletion was interrupted
};

Space SpaceOf(const GlobalSizeControl& account);

// The space that is left below the limit. Nothing when the limit is unknown or there is none.
std::optional<std::int64_t> FreeSpace(const Space& space, std::optional<std::int64_t> limit,
                                      std::optional<std::int64_t> reserved);

// Replaces the size limit in a history, so that forecasts use `limit` (ServerLimits::kNoSize:
// none).
void SetLimit(std::vector<DaySums>& days, std::int64_t limit);

// A forecast in words: "in 12 days (8 to 20)", "already", "not within a year", ...
std::string ForecastText(const Forecast& forecast);

struct Overdue {
    std::string user;
    std::string date;                   // of the newest complete backup; empty: there is none
    std::optional<std::int64_t> hours;  // the age of that backup
};

// The users whose newest complete backup is older than `max_hours` at `reference`, in the order of
// their names. The age counts from "created", else from "finished", else from the beginning of the
// backup's date. Leaves out users with only custom backups, and users whose newest backup another
// program has marked as deleted.
std::vector<Overdue> FindOverdue(const std::map<std::string, Newest>& newest,
                                 const kro_date::DateTime& reference, int max_hours);
