// The rules that choose one user's backups for eviction. The functions do not change the model.
//
// Two rules keep every remaining backup restorable: the newest backup of a user is never chosen,
// and a full backup that is followed by a daily is never chosen.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "quarn2_cp2_server_model.h"

using Backups = std::map<std::string, GlobalSizeControl::StorageDesc::UserDesc::BackupInfo>;
using Dates = std::set<std::string>;

// Backups of a user, oldest first. The pointers refer to the model.
using Chain = std::vector<const Backups::value_type*>;

// The user's backups except those of the dates in `without`.
Chain ChainOf(const Backups& backups, const Dates& without);

// A user's oldest backup that may be evicted; end() when there is none. `others`: the user's
// backups that are not complete now. A daily among them needs the full backup before it, because
// the daily may still be restorable, or its job may complete it again.
Backups::const_iterator OldestRemovable(const Backups& backups);
Chain::const_iterator OldestRemovable(const Chain& chain, const Chain& others = {});

// Removes the oldest dailies beyond the number `leave` from the chain and returns them, oldest
// first. Never removes the user's newest backup.
Chain RemoveExcessDailies(Chain& chain, int leave);

// Removes the oldest full backups beyond the number `leave` from the chain and returns them, oldest
// first. Removes only full backups that are followed by another full backup, with no daily of
// `others` between them.
Chain RemoveExcessFulls(Chain& chain, int leave, const Chain& others = {});

// True when a backup whose job was repeated and then interrupted may be evicted. The backup may
// still be restorable, so the rules for complete backups apply: a later complete backup must exist,
// and a full backup must be followed by another full backup. `complete`: the user's complete
// backups. `others`: the user's other backups, which count as followers, but not as complete.
bool IsInterruptedRemovable(const Backups::value_type& backup, const Chain& complete,
                            const Chain& others);

// The reasons why a backup is not evicted.
enum class KeepReason {
    kNewest,         // it is the newest backup of its user
    kLocked,         // it is locked
    kNeededByDaily,  // it is a full backup, and a daily follows it
    kBeingMade,      // a job is making it again, or was interrupted while it did so
    kNotNeeded,      // it may be evicted, but the limits do not require that
};

// A text for reports, such as "a daily depends on it".
const char* TextOf(KeepReason reason) noexcept;

// Returns why this backup of the chain is not evicted.
KeepReason WhyKept(const Chain& chain, Chain::const_iterator backup, const Chain& others = {});
