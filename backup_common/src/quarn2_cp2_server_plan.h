// Plans of evictions: pure decisions over the model, nothing is deleted here. The server executes a
// plan; the plan says before the first deletion whether the deletions reach their aim.
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
    Victims by_count;             // beyond the count limits; they go first
    std::vector<Victims> passes;  // each lowers max_count by one; some are empty
    bool possible = true;         // false: the aim is not reached after the last pass

    bool HasVictims() const noexcept;
    Victims AllVictims() const;
    std::int64_t FreedSize() const noexcept;
};

// One pass: from every user with more than `keep` records the oldest removable one, in the order of
// storages and users.
Victims PlanPass(const Storages& storages, int keep);

// The backups beyond these counts, per user the dailies first.
Victims PlanCounts(const Storages& storages, int leave_full, int leave_daily);

// A copy of the model without the backups that `is_open` knows: their jobs are being repeated, so
// they are neither deleted nor protect an older one. Their space stays used.
using IsOpenBackup = std::function<bool(const std::string& user, const std::string& date)>;
Storages WithoutOpen(const Storages& storages, const IsOpenBackup& is_open);

// The passes until the storage with this key has `size` bytes that are neither used nor reserved.
// `storages` is the model, or a copy without some backups.
EvictionPlan PlanRoom(const GlobalSizeControl& control, const std::string& key, std::int64_t size,
                      const Storages& storages);

// What a starting server deletes: first for the count limits, then until no storage uses more than
// the size limit.
EvictionPlan PlanStart(const GlobalSizeControl& control);

// Removes a deleted backup from the model, or from a copy of it.
void ForgetBackup(Storages& storages, const Victim& victim);
