#include "report_sums.h"

#include "quarn2_cp2_misc_sizes.h"

namespace {

using SumsByKey = std::map<EventSum::Key, EventSum>;

bool IsAddedUp(const Event& event) noexcept {
    switch (event.kind) {
        case EventKind::kCompleted:
        case EventKind::kRefused:
        case EventKind::kAbandoned:
        case EventKind::kDeletionFailed:
            return true;
        case EventKind::kDeleted:
            // The event at the end of a --clear has no user. It is not added, because each deleted
            // backup has its own event.
            return !event.user.empty();
        default:
            return false;
    }
}

void AddTo(SumsByKey& sums, const EventSum& added) {
    EventSum& sum = sums[added.key];
    sum.key = added.key;
    sum.events += added.events;
    if (added.size) sum.size = SumOfSizes(sum.size.value_or(0), *added.size);
}

std::vector<EventSum> ValuesOf(const SumsByKey& sums) {
    std::vector<EventSum> values;
    values.reserve(sums.size());
    for (const auto& [key, sum] : sums) values.push_back(sum);
    return values;
}

}  // namespace

void EventSums::Add(const Event& event) {
    if (!IsAddedUp(event)) return;
    AddTo(sums_, {{event.user, event.kind, event.reason}, 1, event.size});
}

std::vector<EventSum> EventSums::Sums() const { return ValuesOf(sums_); }

std::vector<EventSum> EventSums::Totals() const {
    SumsByKey totals;
    for (const auto& [key, sum] : sums_) {
        AddTo(totals, {{"", key.kind, key.reason}, sum.events, sum.size});
    }
    return ValuesOf(totals);
}
