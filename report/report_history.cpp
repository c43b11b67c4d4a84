#include "report_history.h"

#include <algorithm>

#include "kro/kro_clock.h"
#include "kro/kro_err.h"
#include "quarn2_cp2_event_log.h"
#include "quarn2_cp2_misc_sizes.h"
#include "report_figures.h"
#include "report_site.h"

void EventSummary::Add(const Event& event) {
    last_[event.kind] = event;
    sums_.Add(event);
    switch (event.kind) {
        case EventKind::kCompleted:
            refused_.erase(event.user);
            break;
        case EventKind::kRefused:
        case EventKind::kAbandoned:
            refused_[event.user] = event;
            break;
        case EventKind::kDeletionFailed:
            failed_[{event.user, event.date}] = event;
            break;
        case EventKind::kDeleted:
            failed_.erase({event.user, event.date});
            AddDeletion(event);
            break;
        default:
            break;
    }
}

void EventSummary::AddDeletion(const Event& event) {
    DeletionSums& sums = deletions_[event.reason];
    ++sums.backups;
    sums.bytes = SumOfSizes(sums.bytes, event.size.value_or(0));
}

std::vector<Event> EventSummary::LastEvents() const {
    std::vector<Event> events;
    for (const auto& [kind, event] : last_) events.push_back(event);
    std::stable_sort(events.begin(), events.end(),
                     [](const Event& a, const Event& b) { return a.time < b.time; });
    return events;
}

std::vector<DaySums> EventSummary::DaysBefore(int day) const {
    std::vector<DaySums> days = sums_.Days();
    std::erase_if(days, [day](const DaySums& sums) { return sums.day >= day; });
    return days;
}

EventSummary ReadEventSummary(Site& site) {
    EventSummary summary;
    const EventFilter filter{"", site.options.user, site.options.storage};
    try {
        ReadEvents(
            kEventsPath, filter, [&summary](const Event& event) { summary.Add(event); },
            [&site](const BrokenLine& line) {
                if (line.number == 0) site.output.Find("events file: " + line.reason);
            });
    } catch (const kro_err::Error& error) {
        site.output.Find("events file: " + std::string(error.what()));
    }
    return summary;
}

std::vector<DaySums> DaysForForecast(const EventSummary& summary, const KnownLimits& known) {
    std::vector<DaySums> days = summary.DaysBefore(EventDay(kro_date::SystemNowMs()));
    if (known.is_size_known) SetLimit(days, known.limits.size);
    return days;
}

Deletions Without(Deletions all, const Deletions& earlier) {
    for (const auto& [reason, sums] : earlier) {
        const auto found = all.find(reason);
        if (found == all.end()) continue;
        DeletionSums& left = found->second;
        left.backups = std::max<std::int64_t>(0, left.backups - sums.backups);
        left.bytes = std::max<std::int64_t>(0, left.bytes - sums.bytes);
    }
    return all;
}

Deletions DeletionsSinceRotation(const Site& site, const Deletions& all) {
    EventSummary rotated;
    const EventFilter filter{"", site.options.user, site.options.storage};
    try {
        ReadEvents(
            std::string(kEventsPath) + ".1", filter,
            [&rotated](const Event& event) { rotated.Add(event); },
            [](const BrokenLine& /*line*/) {});
    } catch (const kro_err::Error&) {
        // ReadEventSummary could not read the rotated file either. It has reported that, and `all`
        // contains no events of this file.
        return all;
    }
    return Without(all, rotated.deletions());
}
