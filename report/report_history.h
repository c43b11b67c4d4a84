// Conclusions from the events of one storage. EventSummary only processes data.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "quarn2_cp2_event.h"
#include "quarn2_cp2_forecast.h"

struct KnownLimits;
struct Site;

struct DeletionSums {
    std::int64_t backups = 0;
    std::int64_t bytes = 0;  // counts only events that contain a size

    friend bool operator==(const DeletionSums&, const DeletionSums&) = default;
};
using Deletions = std::map<RemovalReason, DeletionSums>;

// Adds up events one by one, in the order in which they were written. Needs memory for each user
// and each day.
class EventSummary {
  public:
    void Add(const Event& event);

    // The last event of each kind, the oldest first.
    std::vector<Event> LastEvents() const;

    // The days with events before this day, the earliest first.
    std::vector<DaySums> DaysBefore(int day) const;

    // The last refused or abandoned upload of each user that has completed no backup since.
    const std::map<std::string, Event>& refused() const noexcept { return refused_; }

    // The last failed deletion of each backup that was not deleted since, by user and date.
    using Backup = std::pair<std::string, std::string>;
    const std::map<Backup, Event>& failed_deletions() const noexcept { return failed_; }

    // The deleted backups by reason. A reason without deletions is missing.
    const Deletions& deletions() const noexcept { return deletions_; }

  private:
    void AddDeletion(const Event& event);

    std::map<EventKind, Event> last_;
    std::map<std::string, Event> refused_;
    std::map<Backup, Event> failed_;
    Deletions deletions_;
    DailySums sums_;
};

// Reads the events of the site's storage and user. Records a finding when the file cannot be read.
// Skips lines that are not events.
EventSummary ReadEventSummary(Site& site);

// The days with events before today, for a forecast with the size limit in `known`. If that limit
// is not known, the forecast uses the limit in the events.
std::vector<DaySums> DaysForForecast(const EventSummary& summary, const KnownLimits& known);

// The deletions since the last rotation of the events file: the deletions in both files (`all`)
// minus those in the rotated file. So each rotation resets these counters to 0, which a monitoring
// system recognizes as a restart. If the counters included the rotated file, a rotation would only
// decrease them, and the monitoring system would count the rest as new deletions.
Deletions DeletionsSinceRotation(const Site& site, const Deletions& all);

// Subtracts `earlier` from `all`. A sum that would be negative becomes 0.
Deletions Without(Deletions all, const Deletions& earlier);
