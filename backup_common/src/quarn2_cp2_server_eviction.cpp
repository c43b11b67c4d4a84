#include "quarn2_cp2_server_eviction.h"

#include <algorithm>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "quarn2/info.h"
#include "quarn2_cp2_misc.h"
#include "quarn2_cp2_misc_newest.h"
#include "quarn2_cp2_misc_sizes.h"
#include "quarn2_cp2_server_check.h"
#include "quarn2_cp2_server_info.h"
#include "quarn2_cp2_server_plan.h"

namespace {

constexpr kro_log::Module kLog("main");

using StorageDesc = GlobalSizeControl::StorageDesc;
using BackupInfo = StorageDesc::UserDesc::BackupInfo;

long long ForLog(std::int64_t number) { return static_cast<long long>(number); }

bool IsFull(const BackupInfo& backup) { return backup.type == 0; }
bool IsDaily(const BackupInfo& backup) { return backup.type == 1; }

std::int64_t Count(const Backups& backups, bool (*is_kind)(const BackupInfo&)) {
    return std::count_if(backups.begin(), backups.end(),
                         [is_kind](const auto& record) { return is_kind(record.second); });
}

}  // namespace

Backups::const_iterator OldestRemovable(const Backups& backups) {
    for (auto record = backups.begin(); record != backups.end(); ++record) {
        if (record->second.locked) continue;
        const auto successor = std::next(record);
        if (successor == backups.end()) break;
        if (!IsFull(record->second) || IsFull(successor->second)) return record;
    }
    return backups.end();
}

std::vector<std::string> ExcessDailies(const Backups& backups, int leave) {
    std::vector<std::string> dates;
    std::int64_t excess = Count(backups, IsDaily) - leave;
    for (auto record = backups.begin(); record != backups.end() && excess > 0; ++record) {
        if (!IsDaily(record->second) || record->second.locked) continue;
        if (std::next(record) == backups.end()) break;
        dates.push_back(record->first);
        --excess;
    }
    return dates;
}

// One pass over the backups is enough, because the deletion of a full backup that another full
// backup follows does not make an earlier backup removable.
std::vector<std::string> ExcessFulls(const Backups& backups, int leave) {
    std::vector<std::string> dates;
    std::int64_t excess = Count(backups, IsFull) - leave;
    for (auto record = backups.begin(); record != backups.end() && excess > 0; ++record) {
        if (!IsFull(record->second) || record->second.locked) continue;
        const auto successor = std::next(record);
        if (successor == backups.end()) break;
        if (!IsFull(successor->second)) continue;
        dates.push_back(record->first);
        --excess;
    }
    return dates;
}

namespace {

// Throws when the info root is missing or empty. A missing info file then does not show that its
// backup was deleted, because all info files are missing.
void CheckInfoRoot(const std::string& path) {
    if (kro_file::Dir(path, 2).Read()) return;
    throw std::runtime_error("The info root '" + path + "' is missing or empty");
}

// Deletes a backup. If the backup has no local info file, a job has deleted the backup, or the info
// file is on another machine or in a job's own directory. Then the storage is queried. A record of
// size 0 stands for a missing day. Such a record needs no query, because it has no files.
void DeleteFiles(const GlobalSizeControl& control, const Victim& victim) {
    const std::shared_ptr<quarn2::Storage>& storage = control.storages.at(victim.storage).storage;
    const std::string info_path = quarn2::GetInfoFile(control.path, victim.user, victim.date);
    const bool exists = kro_file::Exists(info_path);
    KRO_LOG(kLog, exists || victim.size != 0 ? 5 : 6, "Evict backup '%s', size: %lld",
            info_path.c_str(), ForLog(victim.size));
    if (exists) return Delete(storage, info_path, false);
    if (victim.size != 0) {
        CheckInfoRoot(control.path);
        const std::string fetched = FetchInfoFile(*storage, control.path, victim.user, victim.date);
        if (!fetched.empty()) return Delete(storage, fetched, false);
    }
    KRO_LOG(kLog, 6, "Backup '%s' is already gone", info_path.c_str());
}

void DeleteAll(GlobalSizeControl& control, const Victims& victims) {
    if (victims.empty()) return;
    control.CheckStorage();
    control.FinishBegunFirst();
    for (const Victim& victim : victims) {
        DeleteFiles(control, victim);
        ForgetBackup(control.storages, victim);
    }
}

// False while the storage does not answer. The deletions for the count limits can wait, because a
// server must be able to start and end while the storage is down.
bool MayDelete(GlobalSizeControl& control) {
    try {
        control.CheckStorage();
        control.FinishBegunFirst();
        return true;
    } catch (const std::exception& error) {
        KRO_LOG(kLog, 4, "Backups beyond the limits are kept for now. What: %s", error.what());
        return false;
    }
}

// True when neither this machine nor the storage has the backup's info file. False when the storage
// does not answer.
bool IsGone(const GlobalSizeControl& control, const Victim& backup) {
    const std::string info_path = quarn2::GetInfoFile(control.path, backup.user, backup.date);
    if (backup.size == 0 || kro_file::Exists(info_path)) return false;
    CheckInfoRoot(control.path);
    const std::string name = backup.date + "." + backup.user + ".info";
    const std::string in_directory =
        kro_file::ConcatPath(backup.user, kro_file::ConcatPath(backup.date, name));
    try {
        quarn2::Storage& storage = *control.storages.at(backup.storage).storage;
        return !IsOnStorage(storage, name) && !IsOnStorage(storage, in_directory);
    } catch (const std::exception& error) {
        KRO_LOG(kLog, 6, "%s", error.what());
        return false;
    }
}

void ForgetGone(GlobalSizeControl& control, const Victim& backup) {
    KRO_LOG(kLog, 5, "Backup '%s.%s' was deleted by another process and counts no more",
            backup.date.c_str(), backup.user.c_str());
    StorageDesc& desc = control.storages.at(backup.storage);
    const StorageDesc::UserDesc& user = desc.users.at(backup.user);
    const std::int64_t before = user.GetLockedSize();
    ForgetBackup(control.storages, backup);
    const std::int64_t after = user.backups.empty() ? 0 : user.GetLockedSize();
    desc.limit = LessSize(SumOfSizes(desc.limit, before), after);
}

bool ForgetIfGone(GlobalSizeControl& control, const Victim& backup) {
    if (!IsGone(control, backup)) return false;
    ForgetGone(control, backup);
    return true;
}

// For each user in `victims`, forgets the newest backup if another process, such as --delete, has
// deleted that backup. Otherwise the deleted backup would be protected as the newest, and the
// newest existing backup could be evicted. Returns true when a backup was forgotten.
bool ForgetNewestThatIsGone(GlobalSizeControl& control, const Victims& victims) {
    bool any = false;
    for (const Victim& victim : victims) {
        const Backups& backups = control.storages.at(victim.storage).users.at(victim.user).backups;
        if (backups.empty()) continue;
        const auto& [date, newest] = *backups.rbegin();
        any = ForgetIfGone(control, {victim.storage, victim.user, date, newest.size}) || any;
    }
    return any;
}

// For each user in `victims`, forgets all backups that another process has deleted. With count
// limits, each deleted backup that is still counted would cause the deletion of an existing one.
// Returns true when a backup was forgotten.
bool ForgetAllThatAreGone(GlobalSizeControl& control, const Victims& victims) {
    std::set<std::pair<std::string, std::string>> users;
    for (const Victim& victim : victims) users.emplace(victim.storage, victim.user);
    bool any = false;
    for (const auto& [storage, user] : users) {
        const Backups backups = control.storages.at(storage).users.at(user).backups;
        for (const auto& [date, backup] : backups) {
            any = ForgetIfGone(control, {storage, user, date, backup.size}) || any;
        }
    }
    return any;
}

void ExecutePass(GlobalSizeControl& control, const Victims& victims) {
    DeleteAll(control, victims);
    --control.max_count;
}

[[noreturn]] void ThrowAllLocked() {
    throw std::runtime_error("No space left. But all backups are locked");
}

// Logs that evictions cannot free enough space, so that the operator sees that a limit or a size is
// wrong and that no backup was deleted.
void LogImpossible(const EvictionPlan& plan, std::int64_t wanted, const char* unit) {
    KRO_LOG(kLog, 4,
            "Evictions cannot make room: %lld %s, and all evictions together would free %lld "
            "bytes. Nothing was deleted. Check --size-limit and the sizes in the info files",
            ForLog(wanted), unit, ForLog(plan.FreedSize()));
}

void LogUsed(const GlobalSizeControl& control) {
    KRO_LOG(kLog, 6, "Backup size: %lld, limit: %lld", ForLog(control.GreatestUsedSize()),
            ForLog(control.size_limit));
}

std::string KeyOf(const GlobalSizeControl& control, const StorageDesc& storage) {
    const auto found =
        std::find_if(control.storages.begin(), control.storages.end(),
                     [&storage](const auto& entry) { return &entry.second == &storage; });
    if (found == control.storages.end()) throw std::logic_error("a storage of another model");
    return found->first;
}

// True when an interrupted deletion is not finished yet. The remaining files of that deletion use
// space, for which a plan would delete other backups.
bool HasBegunDeletion(const GlobalSizeControl& control) {
    return std::any_of(control.storages.begin(), control.storages.end(),
                       [](const auto& entry) { return !entry.second.half_deleted.empty(); });
}

// The model without the backups that a job is making again. Reads these jobs from the ledger,
// because they may have started after the server.
Storages Evictable(const GlobalSizeControl& control) {
    const std::set<std::string> open = control.unfinished.OpenKeys();
    return WithoutOpen(control.storages, [&open](const std::string& user, const std::string& date) {
        return !open.empty() && open.contains(date + "." + user);
    });
}

}  // namespace

void GlobalSizeControl::CheckStorage() {
    if (is_storage_checked) return;
    for (const auto& [key, desc] : storages) CheckRightStorage(*desc.storage, path);
    is_storage_checked = true;
    KRO_LOG(kLog, 5, "The storage has backups that this server knows: deletions are allowed again");
}

void GlobalSizeControl::DropOldest(int keep) {
    if (keep < 0) ThrowAllLocked();
    if (keep >= max_count) return;
    Victims victims = PlanPass(Evictable(*this), keep);
    while (ForgetNewestThatIsGone(*this, victims)) victims = PlanPass(Evictable(*this), keep);
    ExecutePass(*this, victims);
}

void GlobalSizeControl::DropByCount(int count_to_leave_full, int count_to_leave_daily) {
    KRO_LOG(kLog, 8, "%s count_to_leave_full = %d, count_to_leave_daily = %d", "DropByCount",
            count_to_leave_full, count_to_leave_daily);
    const auto plan = [&] {
        return PlanCounts(Evictable(*this), count_to_leave_full, count_to_leave_daily);
    };
    Victims victims = plan();
    while (ForgetAllThatAreGone(*this, victims)) victims = plan();
    if (!victims.empty() && MayDelete(*this)) DeleteAll(*this, victims);
}

// Passes that delete nothing decrement max_count even when all passes together do not free enough
// space.
void GlobalSizeControl::MakeRoom(const StorageDesc& storage, std::int64_t size) {
    const auto has_room = [&] { return size <= LessSize(storage.free_size, storage.reserved); };
    if (has_room()) return;
    if (HasBegunDeletion(*this)) {
        CheckStorage();
        FinishBegunFirst();
        if (has_room()) return;
    }
    const auto make_plan = [&] {
        return PlanRoom(*this, KeyOf(*this, storage), size, Evictable(*this));
    };
    EvictionPlan plan = make_plan();
    while (ForgetNewestThatIsGone(*this, plan.AllVictims())) plan = make_plan();
    for (const Victims& pass : plan.passes) {
        if (!plan.possible && !pass.empty()) {
            LogImpossible(plan, size, "bytes are asked for");
            ThrowAllLocked();
        }
        ExecutePass(*this, pass);
    }
    if (!plan.possible) ThrowAllLocked();
}

void GlobalSizeControl::FitIntoLimits() {
    const EvictionPlan plan = PlanStart(*this);
    if (!plan.possible) {
        LogUsed(*this);
        LogImpossible(plan, GreatestUsedSize(), "bytes are used");
        ThrowAllLocked();
    }
    KRO_LOG(kLog, 8, "%s count_to_leave_full = %d, count_to_leave_daily = %d", "DropByCount",
            full_limit, daily_limit);
    if (plan.HasVictims() && !MayDelete(*this)) return;
    DeleteAll(*this, plan.by_count);
    LogUsed(*this);
    for (const Victims& pass : plan.passes) {
        ExecutePass(*this, pass);
        LogUsed(*this);
    }
}
