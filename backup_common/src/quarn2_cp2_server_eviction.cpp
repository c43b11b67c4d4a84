// Executes eviction plans.

#include <algorithm>
#include <functional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/str.h"
#include "quarn2/info.h"
#include "quarn2_cp2_misc_delete.h"
#include "quarn2_cp2_misc_newest.h"
#include "quarn2_cp2_misc_sizes.h"
#include "quarn2_cp2_server_check.h"
#include "quarn2_cp2_server_info.h"
#include "quarn2_cp2_server_plan.h"

namespace {

constexpr kro_log::Module kLog("main");

using StorageDesc = GlobalSizeControl::StorageDesc;

long long ForLog(std::int64_t number) { return static_cast<long long>(number); }

// Throws when the info root is missing or empty. In this case, a missing info file does not show
// that its backup was deleted.
void CheckInfoRoot(const std::string& path) {
    if (kro_file::Dir(path, 2).Read()) return;
    throw std::runtime_error("The info root '" + path + "' is missing or empty");
}

// The cause of an eviction in the events. The used space is that after the eviction.
DeletionCause CauseOf(const GlobalSizeControl& control, const Victim& victim) {
    DeletionCause cause{.reason = victim.reason, .limit = control.LimitOrNothing()};
    const StorageDesc& desc = control.storages.at(victim.storage);
    cause.used = LessSize(control.UsedSizeOf(desc), victim.size);
    return cause;
}

// A record of size 0 represents a day without a backup and has no files. If a job of that date was
// interrupted, the files with this user and date belong to that job.
bool IsRecordOnly(const GlobalSizeControl& control, const Victim& victim) {
    return victim.size == 0 &&
           control.unfinished.OpenKeys().contains(victim.date + "." + victim.user);
}

// Deletes a backup. If the info root has no info file of the backup, uses the info file on the
// storage: the local one may be on another machine or in a job's own directory. If the storage has
// none either, a job has already deleted the backup. A record of size 0 represents a day without a
// backup and has no files.
void DeleteFiles(const GlobalSizeControl& control, const Victim& victim) {
    const std::shared_ptr<quarn2::Storage>& storage = control.storages.at(victim.storage).storage;
    const std::string info_path = quarn2::GetInfoFile(control.path, victim.user, victim.date);
    const bool exists = !IsRecordOnly(control, victim) && kro_file::Exists(info_path);
    KRO_LOG(kLog, exists || victim.size != 0 ? 5 : 6, "Evict backup '%s', size: %lld",
            info_path.c_str(), ForLog(victim.size));
    KRO_LOG(kLog, 7, "The reason for this eviction is '%s'", NameOf(victim.reason));
    const DeletionCause cause = CauseOf(control, victim);
    if (exists) return Delete(storage, info_path, false, cause);
    if (victim.size != 0) {
        CheckInfoRoot(control.path);
        const std::string fetched = FetchInfoFile(*storage, control.path, victim.user, victim.date);
        if (!fetched.empty()) return Delete(storage, fetched, false, cause);
    }
    KRO_LOG(kLog, 6, "Backup '%s' is already gone", info_path.c_str());
}

void DeleteInterrupted(GlobalSizeControl& control, const Victim& victim) {
    KRO_LOG(kLog, 5, "Evict backup '%s.%s' of an interrupted job, size: %lld", victim.date.c_str(),
            victim.user.c_str(), ForLog(victim.size));
    KRO_LOG(kLog, 7, "The reason for this eviction is '%s'", NameOf(victim.reason));
    control.unfinished.RemoveInterrupted(victim.user, victim.date,
                                         control.storages.at(victim.storage).storage,
                                         CauseOf(control, victim));
    control.RefreshUnfinished();
}

// Deletes the backups one after another. When a deletion fails, the records of that backup and of
// the backups after it are kept.
void DeleteAll(GlobalSizeControl& control, const Victims& victims) {
    if (victims.empty()) return;
    control.CheckStorage();
    control.FinishBegunFirst();
    for (const Victim& victim : victims) {
        if (victim.is_interrupted) {
            DeleteInterrupted(control, victim);
        } else {
            DeleteFiles(control, victim);
            ForgetBackup(control.storages, victim);
        }
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
    KRO_LOG(kLog, 5, "Backup '%s.%s' was deleted by another process and is no longer counted",
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

// The keys of users in the model: the name of the storage and the name of the user.
using UserKeys = std::set<std::pair<std::string, std::string>>;

UserKeys UsersOf(const Victims& victims) {
    UserKeys users;
    for (const Victim& victim : victims) users.emplace(victim.storage, victim.user);
    return users;
}

// Forgets the newest backup of each user if another process, such as --delete, has deleted that
// backup. Otherwise the deleted backup would be protected as the newest, and the newest existing
// backup could be evicted. Returns true when a backup was forgotten.
bool ForgetNewestThatIsGone(GlobalSizeControl& control, const UserKeys& users) {
    bool any = false;
    for (const auto& [storage, user] : users) {
        const Backups& backups = control.storages.at(storage).users.at(user).backups;
        if (backups.empty()) continue;
        const auto& [date, newest] = *backups.rbegin();
        any = ForgetIfGone(control, {storage, user, date, newest.size}) || any;
    }
    return any;
}

// For each of these users, forgets the backups that another process has deleted. With count limits,
// each deleted backup that is still counted would cause the deletion of an existing one. Returns
// true when a backup was forgotten.
bool ForgetAllThatAreGone(GlobalSizeControl& control, const UserKeys& users) {
    bool any = false;
    for (const auto& [storage, user] : users) {
        const Backups backups = control.storages.at(storage).users.at(user).backups;
        for (const auto& [date, backup] : backups) {
            any = ForgetIfGone(control, {storage, user, date, backup.size}) || any;
        }
    }
    return any;
}

using AfterStep = std::function<void()>;

// Deletes the victims of a plan in their order. Calls `after_step` after the deletions for the
// count limits and after each pass.
void Execute(
    GlobalSizeControl& control, const EvictionPlan& plan, const AfterStep& after_step = [] {}) {
    DeleteAll(control, plan.by_count);
    after_step();
    for (const Victims& pass : plan.passes) {
        DeleteAll(control, pass);
        --control.max_count;
        after_step();
    }
    DeleteAll(control, plan.after_passes);
}

[[noreturn]] void ThrowAllLocked() {
    throw std::runtime_error("No space left. But all backups are locked");
}

// Logs that evictions cannot free enough space, so that the operator sees that a limit or a size is
// wrong and that no backup was deleted.
void LogImpossible(const EvictionPlan& plan, std::int64_t wanted, const char* unit) {
    KRO_LOG(kLog, 4,
            "Evictions cannot free enough space: %lld %s, but all evictions together would free "
            "only %lld "
            "bytes. Nothing was deleted. Check --size-limit and the sizes in the info files",
            ForLog(wanted), unit, ForLog(plan.FreedSize()));
}

void LogUsed(const GlobalSizeControl& control) {
    KRO_LOG(kLog, 6, "Backup size: %lld, limit: %lld", ForLog(control.MaxUsedSize()),
            ForLog(control.size_limit));
}

std::string KeyOf(const GlobalSizeControl& control, const StorageDesc& storage) {
    const auto found =
        std::find_if(control.storages.begin(), control.storages.end(),
                     [&storage](const auto& entry) { return &entry.second == &storage; });
    if (found == control.storages.end())
        throw std::logic_error("internal error: the account does not contain this storage");
    return found->first;
}

// True when an interrupted deletion is not finished yet. The remaining files use space, and a plan
// would delete other backups to free that space.
bool HasBegunDeletion(const GlobalSizeControl& control) {
    return std::any_of(control.storages.begin(), control.storages.end(),
                       [](const auto& entry) { return !entry.second.half_deleted.empty(); });
}

// Refuses a reservation without deleting anything. Counts the passes without a victim before the
// first victim as executed, because they would delete nothing.
[[noreturn]] void RefuseRoom(GlobalSizeControl& control, const EvictionPlan& plan,
                             std::int64_t size) {
    const auto first = std::find_if(plan.passes.begin(), plan.passes.end(),
                                    [](const Victims& pass) { return !pass.empty(); });
    control.max_count -= static_cast<std::int32_t>(first - plan.passes.begin());
    if (plan.HasVictims()) LogImpossible(plan, size, "bytes are requested");
    ThrowAllLocked();
}

}  // namespace

NotComplete FindNotComplete(const GlobalSizeControl& control) {
    NotComplete found;
    for (std::string name : control.unfinished.OpenKeys()) {
        const std::string date = str::GetWord(name, ".");
        found.open[name].insert(date);
    }
    for (const InterruptedBackup& backup : control.unfinished.Interrupted(control.date)) {
        found.interrupted[backup.user][backup.date] = {backup.bytes, backup.is_full ? 0 : 1, false};
    }
    return found;
}

void GlobalSizeControl::CheckStorage() {
    if (is_storage_checked) return;
    for (const auto& [key, desc] : storages) CheckRightStorage(*desc.storage, path);
    is_storage_checked = true;
    KRO_LOG(kLog, 5,
            "The storage contains backups that are in the info root: deletions are allowed again");
}

void GlobalSizeControl::DropOldest(int keep) {
    if (keep < 0) ThrowAllLocked();
    const auto make_plan = [&] { return PlanDropOne(*this, keep, FindNotComplete(*this)); };
    EvictionPlan plan = make_plan();
    while (ForgetNewestThatIsGone(*this, UsersOf(plan.AllVictims()))) plan = make_plan();
    Execute(*this, plan);
}

void GlobalSizeControl::DropByCount(int count_to_leave_full, int count_to_leave_daily) {
    KRO_LOG(kLog, 8, "%s count_to_leave_full = %d, count_to_leave_daily = %d", "DropByCount",
            count_to_leave_full, count_to_leave_daily);
    const auto make_plan = [&] {
        return PlanCounts(storages, count_to_leave_full, count_to_leave_daily,
                          FindNotComplete(*this));
    };
    EvictionPlan plan;
    plan.by_count = make_plan();
    while (ForgetAllThatAreGone(*this, UsersOf(plan.by_count))) plan.by_count = make_plan();
    if (plan.HasVictims() && MayDelete(*this)) Execute(*this, plan);
}

void GlobalSizeControl::MakeRoom(const StorageDesc& storage, std::int64_t size, bool is_remote) {
    const auto has_room = [&] {
        return storage.NeededFor(size, is_remote) <= LessSize(storage.free_size, storage.reserved);
    };
    if (has_room()) return;
    if (HasBegunDeletion(*this)) {
        CheckStorage();
        FinishBegunFirst();
        if (has_room()) return;
    }
    const auto make_plan = [&] {
        return PlanRoom(*this, KeyOf(*this, storage), size, FindNotComplete(*this), is_remote);
    };
    EvictionPlan plan = make_plan();
    while (ForgetNewestThatIsGone(*this, UsersOf(plan.AllVictims()))) plan = make_plan();
    if (!plan.IsPossible()) RefuseRoom(*this, plan, storage.NeededFor(size, is_remote));
    Execute(*this, plan);
}

bool GlobalSizeControl::CanMakeRoom(const StorageDesc& storage, std::int64_t size,
                                    bool is_remote) const {
    return PlanRoom(*this, KeyOf(*this, storage), size, FindNotComplete(*this), is_remote)
        .IsPossible();
}

void GlobalSizeControl::FitIntoLimits() {
    const EvictionPlan plan = PlanStart(*this);
    if (!plan.IsPossible()) {
        LogUsed(*this);
        LogImpossible(plan, MaxUsedSize(), "bytes are used");
        ThrowAllLocked();
    }
    KRO_LOG(kLog, 8, "%s count_to_leave_full = %d, count_to_leave_daily = %d", "DropByCount",
            full_limit, daily_limit);
    if (plan.HasVictims() && !MayDelete(*this)) return;
    Execute(*this, plan, [this] { LogUsed(*this); });
}
