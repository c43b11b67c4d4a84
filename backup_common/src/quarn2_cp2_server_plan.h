// Plans evictions. The functions are pure decisions over the model and delete nothing. The server
// executes a plan. The plan shows before the first deletion whether the deletions are enough.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "quarn2_cp2_server_model.h"

using Storages = std::map<std::string, GlobalSizeControl::StorageDesc>;

// One backup to delete, by its keys in the model. The size is in bytes.
struct Victim {
    std::string storage;
    std::string user;
    std::string date;
    std::int64_t size = 0;

    friend bool operator==(const Victim&, const Victim&) = default;
};

using Victims = std::vector<Victim>;

struct EvictionPlan {
    Victims by_count;             // beyond the count limits; deleted first
    std::vector<Victims> passes;  // each lowers max_count by one; some are empty
    bool possible = true;         // false: even all passes are not enough

    bool HasVictims() const noexcept;
    Victims AllVictims() const;
    std::int64_t FreedSize() const noexcept;
};

// One pass: the oldest removable record of every user with more than `keep` records, in the order
// of storages and users.
Victims PlanPass(const Storages& storages, int keep);

// The backups beyond these counts; of each user the dailies first.
Victims PlanCounts(const Storages& storages, int leave_full, int leave_daily);

// A copy of the model without the backups for which `is_open` is true. Their jobs are being
// repeated, so they are not deleted and do not protect older backups. Their space still counts as
// used.
using IsOpenBackup = std::function<bool(const std::string& user, const std::string& date)>;
Storages WithoutOpen(const Storages& storages, const IsOpenBackup& is_open);

// Plans passes until the storage with this key has `size` bytes that are neither used nor reserved.
// `storages` is the model, or a copy without some backups.
EvictionPlan PlanRoom(const GlobalSizeControl& control, const std::string& key, std::int64_t size,
                      const Storages& storages);

// Plans the deletions of a starting server: first for the count limits, then until no storage uses
// more than the size limit.
EvictionPlan PlanStart(const GlobalSizeControl& control);

// Removes a deleted backup from the model, or from a copy of it.
void ForgetBackup(Storages& storages, const Victim& victim);
