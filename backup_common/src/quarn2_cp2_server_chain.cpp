#include "quarn2_cp2_server_chain.h"

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace {

using Record = Backups::value_type;

const Record& RecordOf(const Record& record) { return record; }
const Record& RecordOf(const Record* record) { return *record; }

bool IsFull(const Record& record) { return record.second.type == 0; }
bool IsDaily(const Record& record) { return record.second.type == 1; }

std::int64_t Count(const Chain& chain, bool (*is_kind)(const Record&)) {
    return std::count_if(chain.begin(), chain.end(),
                         [is_kind](const Record* record) { return is_kind(*record); });
}

// True when `others` has a daily between the two backups.
bool HasDailyBetween(const Chain& others, const Record& backup, const Record& successor) {
    return std::any_of(others.begin(), others.end(), [&](const Record* other) {
        return !IsFull(*other) && other->first > backup.first && other->first < successor.first;
    });
}

// True when no daily needs the backup. `successor`: the next complete backup.
bool IsNeededByNoDaily(const Record& backup, const Record& successor, const Chain& others) {
    return !IsFull(backup) || (IsFull(successor) && !HasDailyBetween(others, backup, successor));
}

template <class Iterator>
Iterator FindOldestRemovable(Iterator begin, Iterator end, const Chain& others) {
    for (Iterator record = begin; record != end; ++record) {
        if (RecordOf(*record).second.locked) continue;
        const Iterator successor = std::next(record);
        if (successor == end) break;
        if (IsNeededByNoDaily(RecordOf(*record), RecordOf(*successor), others)) return record;
    }
    return end;
}

// Removes up to `excess` backups for which `is_excess` returns true from the chain and returns
// them. The parameters of `is_excess` are the backup and its successor in the original chain.
template <class IsExcess>
Chain Take(Chain& chain, std::int64_t excess, IsExcess is_excess) {
    Chain taken;
    if (excess <= 0) return taken;
    Chain left;
    left.reserve(chain.size());
    for (std::size_t i = 0; i < chain.size(); ++i) {
        const bool is_newest = i + 1 == chain.size();
        const bool is_taken = excess > 0 && !is_newest && !chain[i]->second.locked &&
                              is_excess(*chain[i], *chain[i + 1]);
        (is_taken ? taken : left).push_back(chain[i]);
        if (is_taken) --excess;
    }
    chain = std::move(left);
    return taken;
}

}  // namespace

Chain ChainOf(const Backups& backups, const Dates& without) {
    Chain chain;
    chain.reserve(backups.size());
    for (const Record& record : backups) {
        if (without.empty() || !without.contains(record.first)) chain.push_back(&record);
    }
    return chain;
}

Backups::const_iterator OldestRemovable(const Backups& backups) {
    return FindOldestRemovable(backups.begin(), backups.end(), {});
}

Chain::const_iterator OldestRemovable(const Chain& chain, const Chain& others) {
    return FindOldestRemovable(chain.begin(), chain.end(), others);
}

Chain RemoveExcessDailies(Chain& chain, int leave) {
    return Take(chain, Count(chain, IsDaily) - leave,
                [](const Record& backup, const Record&) { return IsDaily(backup); });
}

// One pass over the backups is enough, because the deletion of a full backup that another full
// backup follows does not make an earlier backup removable.
Chain RemoveExcessFulls(Chain& chain, int leave, const Chain& others) {
    return Take(chain, Count(chain, IsFull) - leave,
                [&others](const Record& backup, const Record& successor) {
                    return IsFull(backup) && IsNeededByNoDaily(backup, successor, others);
                });
}

bool IsInterruptedRemovable(const Record& backup, const Chain& complete, const Chain& others) {
    const auto is_later = [&backup](const Record* other) { return other->first >= backup.first; };
    const auto later = std::find_if(complete.begin(), complete.end(), is_later);
    if (later == complete.end() || (*later)->first == backup.first) return false;
    return IsNeededByNoDaily(backup, **later, others);
}

const char* TextOf(KeepReason reason) noexcept {
    switch (reason) {
        case KeepReason::kNewest:
            return "newest backup of its user";
        case KeepReason::kLocked:
            return "locked";
        case KeepReason::kNeededByDaily:
            return "a daily depends on it";
        case KeepReason::kBeingMade:
            return "its job is being repeated";
        case KeepReason::kNotNeeded:
            return "the limits do not require its deletion";
    }
    return "";
}

KeepReason WhyKept(const Chain& chain, Chain::const_iterator backup, const Chain& others) {
    const auto successor = std::next(backup);
    if (successor == chain.end()) return KeepReason::kNewest;
    if ((*backup)->second.locked) return KeepReason::kLocked;
    if (!IsNeededByNoDaily(**backup, **successor, others)) return KeepReason::kNeededByDaily;
    return KeepReason::kNotNeeded;
}
