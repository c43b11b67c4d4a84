#include "quarn2_cp2_server_eviction.h"

#include <algorithm>
#include <stdexcept>

#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "quarn2/info.h"
#include "quarn2_cp2_misc.h"
#include "quarn2_cp2_server_info.h"

namespace {

constexpr kro_log::Module kLog("main");

using StorageDesc = GlobalSizeControl::StorageDesc;
using BackupInfo = StorageDesc::UserDesc::BackupInfo;

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

void VisitOldest(GlobalSizeControl& control, int keep,
                 const std::function<void(const Victim&)>& visit) {
    for (auto& [key, desc] : control.storages) {
        for (auto& [name, user] : desc.users) {
            if (static_cast<std::int64_t>(user.backups.size()) <= keep) continue;
            const auto record = OldestRemovable(user.backups);
            if (record != user.backups.end()) visit({&desc, &name, &user, record});
        }
    }
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

// Deleting a full whose successor is a full makes no record before it removable, so one walk finds
// what starting over after each deletion would.
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

void ForgetBackup(const Victim& victim) {
    victim.storage->free_size = SumOfSizes(victim.storage->free_size, victim.record->second.size);
    victim.user->backups.erase(victim.record);
}

namespace {

// An info root that cannot be read, or that is empty, has not lost one backup but all of them.
void CheckInfoRoot(const std::string& path) {
    if (kro_file::Dir(path, 2).Read()) return;
    throw std::runtime_error("The info root '" + path + "' is missing or empty");
}

// A backup without a local info file was deleted by a job meanwhile, or another machine or a job
// with a directory of its own keeps the file: only the storage knows. A day that was filled in
// takes nothing from anybody, and nobody need be asked.
void DeleteFiles(const GlobalSizeControl& control, const Victim& victim) {
    const std::string& date = victim.record->first;
    const std::string info_path = quarn2::GetInfoFile(control.path, *victim.user_name, date);
    const std::int64_t size = victim.record->second.size;
    const bool exists = kro_file::Exists(info_path);
    KRO_LOG(kLog, exists || size != 0 ? 5 : 6, "Evict backup '%s', size: %lld", info_path.c_str(),
            static_cast<long long>(size));
    if (exists) return Delete(victim.storage->storage, info_path, false);
    if (size != 0) {
        CheckInfoRoot(control.path);
        const std::string fetched =
            FetchInfoFile(*victim.storage->storage, control.path, *victim.user_name, date);
        if (!fetched.empty()) return Delete(victim.storage->storage, fetched, false);
    }
    KRO_LOG(kLog, 6, "Backup '%s' is already gone", info_path.c_str());
}

void DeleteBackup(const GlobalSizeControl& control, const Victim& victim) {
    DeleteFiles(control, victim);
    ForgetBackup(victim);
}

void DeleteAll(const GlobalSizeControl& control, StorageDesc& desc, const std::string& name,
               StorageDesc::UserDesc& user, const std::vector<std::string>& dates) {
    for (const std::string& date : dates) {
        DeleteBackup(control, {&desc, &name, &user, user.backups.find(date)});
    }
}

}  // namespace

void GlobalSizeControl::DropOldest(int keep) {
    if (keep < 0) throw std::runtime_error("No space left. But all backups are locked");
    if (keep >= max_count) return;
    VisitOldest(*this, keep, [this](const Victim& victim) { DeleteBackup(*this, victim); });
    --max_count;
}

void GlobalSizeControl::DropByCount(int count_to_leave_full, int count_to_leave_daily) {
    KRO_LOG(kLog, 8, "%s count_to_leave_full = %d, count_to_leave_daily = %d", "DropByCount",
            count_to_leave_full, count_to_leave_daily);
    for (auto& [key, desc] : storages) {
        for (auto& [name, user] : desc.users) {
            DeleteAll(*this, desc, name, user, ExcessDailies(user.backups, count_to_leave_daily));
            DeleteAll(*this, desc, name, user, ExcessFulls(user.backups, count_to_leave_full));
        }
    }
}
