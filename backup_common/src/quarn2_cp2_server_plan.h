// Plans evictions. The functions only read the model and delete nothing; the server executes a plan
// later. So the server knows before the first deletion whether all deletions together free enough
// space.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "quarn2_cp2_server_model.h"

using Storages = std::map<std::string, GlobalSizeControl::StorageDesc>;

// One backup to delete, identified by its keys in the model. The size is in bytes.
struct Victim {
    std::string storage;
    std::string user;
    std::string date;
    std::int64_t size = 0;

    friend bool operator==(const Victim&, const Victim&) = default;
};

using Victims = std::vector<Victim>;

struct EvictionPlan {
    Victims by_count;             // backups beyond the count limits; deleted first
    std::vector<Victims> passes;  // each pass decrements max_count; some are empty
    bool possible = true;         // false: all passes together free too little

    bool HasVictims() const noexcept;
    Victims AllVictims() const;
    std::int64_t FreedSize() const noexcept;
};

// One eviction pass: the oldest removable backup of every user with more than `keep` backups, in
// the order of storages and users.
Victims PlanPass(const Storages& storages, int keep);

// The backups beyond these counts. For each user, the dailies come before the full backups.
Victims PlanCounts(const Storages& storages, int leave_full, int leave_daily);

// A copy of the model without the backups for which `is_open` returns true. A job is making these
// backups again, so they are not deleted and do not protect older backups. Their space still counts
// as used.
using IsOpenBackup = std::function<bool(const std::string& user, const std::string& date)>;
Storages WithoutOpen(const Storages& storages, const IsOpenBackup& is_open);

// Plans eviction passes until the storage `key` has `size` bytes that are neither used nor
// reserved. `storages` is the model, or a copy without some backups.
EvictionPlan PlanRoom(const GlobalSizeControl& control, const std::string& key, std::int64_t size,
                      const Storages& storages);

// Plans the deletions of a starting server: first for the count limits, then until no storage uses
// more than the size limit.
EvictionPlan PlanStart(const GlobalSizeControl& control);

// Removes the record of a deleted backup from the model or from a copy of the model.
void ForgetBackup(Storages& storages, const Victim& victim);
