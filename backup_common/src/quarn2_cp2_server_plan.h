// Plans evictions. The functions except FindNotComplete only read the model: they change no file,
// query no storage and log nothing. The server executes a plan later, so it knows before the first
// deletion whether all deletions together free enough space.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "quarn2_cp2_misc_reason.h"
#include "quarn2_cp2_server_chain.h"
#include "quarn2_cp2_server_model.h"

using Storages = std::map<std::string, GlobalSizeControl::StorageDesc>;

// The backups that are incomplete now. They were complete before their jobs began to repeat them.
struct NotComplete {
    // The dates of the backups that a job is making again, by user. They are not deleted, and do
    // not count as the later backup without which an older one must stay. A daily among them needs
    // the full backup before it. Their space still counts as used.
    std::map<std::string, Dates> open;
    // The backups whose repeated job was interrupted and does not continue, by user. They are not
    // in the model. The plan evicts each of them when it is its user's oldest removable backup.
    // StorageDesc::unfinished of the storage "" includes their sizes.
    std::map<std::string, Backups> interrupted;
};

// The backups that are not complete now. Reads the ledger, because their jobs may have started
// after the server.
NotComplete FindNotComplete(const GlobalSizeControl& control);

// One backup to delete, identified by its keys in the model. The size is in bytes.
struct Victim {
    std::string storage;
    std::string user;
    std::string date;
    std::int64_t size = 0;
    std::int32_t type = 1;  // see BackupInfo
    RemovalReason reason = RemovalReason::kSizeDropOne;
    bool is_interrupted = false;  // a backup of NotComplete::interrupted

    friend bool operator==(const Victim&, const Victim&) = default;
};

using Victims = std::vector<Victim>;

struct EvictionPlan {
    Victims by_count;             // backups beyond the count limits; deleted first
    std::vector<Victims> passes;  // one for each decrement of max_count; may be empty
    Victims after_passes;         // interrupted backups, deleted after the last pass
    // The bytes that are still missing after all deletions; 0 when the plan frees enough space.
    std::int64_t missing = 0;

    bool IsPossible() const noexcept { return missing == 0; }
    bool HasVictims() const noexcept;
    // All victims in the order of their deletion.
    Victims AllVictims() const;
    std::int64_t FreedSize() const noexcept;
};

// One eviction pass: the oldest removable backup of every user with more than `keep` backups, in
// the order of storages and users.
Victims PlanPass(const Storages& storages, int keep, RemovalReason reason,
                 const NotComplete& not_complete);

// Plans the deletion of the backups that exceed the count limits, with the reasons kCountDaily and
// kCountFull. For each user, the dailies come before the full backups.
Victims PlanCounts(const Storages& storages, int leave_full, int leave_daily,
                   const NotComplete& not_complete);

// Plans eviction passes until the storage `key` has `size` bytes that are neither used nor
// reserved, and also enough for backups that are not complete (see StorageDesc::NeededFor). The
// reason of each victim is kSizeReserve.
EvictionPlan PlanRoom(const GlobalSizeControl& control, const std::string& key, std::int64_t size,
                      const NotComplete& not_complete, bool is_remote = false);

// Plans the deletions of a starting server: first for the count limits, then, with the reason
// kSizeStart, until no storage uses more than the size limit.
EvictionPlan PlanStart(const GlobalSizeControl& control);

// Plans the one pass that a node client requests because the storage is full. The plan has no pass
// when `keep` is not below max_count. The reason of each victim is kSizeDropOne.
EvictionPlan PlanDropOne(const GlobalSizeControl& control, int keep,
                         const NotComplete& not_complete);

// A backup that a plan does not delete.
struct Kept {
    std::string storage;
    std::string user;
    std::string date;
    std::int64_t size = 0;
    std::int32_t type = 1;
    KeepReason reason = KeepReason::kNotNeeded;
};

// The reason for each backup of the model that is not a victim of the plan, in the order of
// storages, users and dates. Includes the records of size 0 of days without a backup, because the
// rules treat them as backups.
std::vector<Kept> WhyKept(const Storages& storages, const EvictionPlan& plan,
                          const NotComplete& not_complete);

// Removes the record of a deleted backup from the model or from a copy of the model. The victim
// must not be an interrupted backup.
void ForgetBackup(Storages& storages, const Victim& victim);
