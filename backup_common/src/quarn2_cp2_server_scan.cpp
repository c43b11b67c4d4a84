// Fills the server's accounting from the info files of the backups.

#include <list>
#include <stdexcept>

#include "kro/kro_date.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/str.h"
#include "quarn2/info.h"
#include "quarn2/info_reader.h"
#include "quarn2/names.h"
#include "quarn2_cp2_misc_removal.h"
#include "quarn2_cp2_server_model.h"

namespace {

constexpr kro_log::Module kLog("main");

using StorageDesc = GlobalSizeControl::StorageDesc;
using UserDesc = StorageDesc::UserDesc;
using BackupInfo = UserDesc::BackupInfo;

long long ForLog(std::int64_t number) { return static_cast<long long>(number); }

// Reads info files one after another and counts their backups.
class Scanner {
  public:
    Scanner(GlobalSizeControl& control, const std::string& current_date)
        : control_(control), current_date_(current_date) {}

    ScanResult Take(const std::string& path) {
        const std::string name = kro_file::Name(path);
        info_.Read(path);
        const auto desc = control_.storages.find(control_.common_storage ? "" : ValueOf("node"));
        if (desc == control_.storages.end()) return ScanResult::kOtherNode;
        const bool is_being_deleted = IsBeingDeleted(info_);
        if (is_being_deleted) NoteHalfDeleted(desc->second, path);
        const std::string_view last_slice = info_.Find("last-slice").value_or("");
        if (control_.unfinished.Contains(path, last_slice)) {
            NoteUnfinished(desc->second, path, last_slice);
            return is_being_deleted ? ScanResult::kBeingDeleted : ScanResult::kUnfinished;
        }
        const ScanResult result = CountBackup(desc->second, name);
        return is_being_deleted ? ScanResult::kBeingDeleted : result;
    }

    const quarn2::InfoReader& info() const noexcept { return info_; }

  private:
    std::string ValueOf(std::string_view key) const {
        return std::string(info_.Find(key).value_or(std::string_view()));
    }

    // Records a backup whose deletion was interrupted. Its remaining files will be removed, so an
    // invalid size must not prevent the start of the server.
    void NoteHalfDeleted(StorageDesc& desc, const std::string& path) const {
        std::int64_t& size = desc.half_deleted[path];
        try {
            size = str::Int64(ValueOf("size"));
        } catch (const kro_err::Error& error) {
            KRO_LOG(kLog, 4, "Partly deleted backup '%s' counts as empty. What: %s", path.c_str(),
                    error.what());
        }
    }

    // Records the size of a backup that is not complete. If the backup was complete before its job
    // was repeated, the storage may still have its old files as well as the new ones.
    void NoteUnfinished(const StorageDesc& desc, const std::string& path,
                        std::string_view last_slice) const {
        KRO_LOG(kLog, 4, "Skip backup '%s': it is not complete", kro_file::Name(path).c_str());
        if (!info_.Find("finished")) return;
        try {
            const std::string type = ValueOf("type");
            control_.unfinished.AddInfo(path, {last_slice, type, str::Int64(ValueOf("size"))},
                                        desc.storage.get());
        } catch (const kro_err::Error& error) {
            KRO_LOG(kLog, 4, "%s: %s", path.c_str(), error.what());
        }
    }

    ScanResult CountBackup(StorageDesc& desc, const std::string& name) const {
        if (!info_.Find("finished")) {
            KRO_LOG(kLog, 7, "%p Skip incomplete backup %s", static_cast<void*>(&desc),
                    name.c_str());
            return ScanResult::kNotFinished;
        }
        const std::int64_t size = str::Int64(ValueOf("size"));
        // Throws for a negative size, because it would increase the free space.
        if (size < 0) throw std::runtime_error("the size " + str::Str(size) + " is negative");
        if (str::StartsWith(name, "custom.")) {
            desc.CountPermanently(size);
            KRO_LOG(kLog, 7, "Custom backup %s size %lld", name.c_str(), ForLog(size));
            return ScanResult::kCustom;
        }
        const std::string user_name = quarn2::GetUserName(name);
        const std::string date = quarn2::GetDate(name);
        // The name of the info file must be DATE.USER.info. A name with a type letter is longer, a
        // name without a user is shorter.
        if (name.size() != date.size() + user_name.size() + std::string_view("..info").size()) {
            // An eviction could not find this info file by user and date, so the size of the backup
            // can never be freed.
            desc.CountPermanently(size);
            KRO_LOG(kLog, 4, "Info file '%s' is not named DATE.USER.info. Never evicted. size %lld",
                    name.c_str(), ForLog(size));
            return ScanResult::kMisnamed;
        }
        UserDesc& user = desc.users[user_name];
        const bool is_future = date > current_date_;
        if (!is_future) {
            Enter(desc, user, date, {name, ValueOf("type"), size});
        } else {
            desc.CountPermanently(size);
            KRO_LOG(kLog, 4,
                    "Skip backup. Backup date '%s' in future. Current date '%s'. new free = %lld",
                    date.c_str(), current_date_.c_str(), ForLog(desc.free_size));
        }
        if (info_.Find("deleted")) FillDays(user, date);
        return is_future ? ScanResult::kFuture : ScanResult::kCounted;
    }

    struct Found {
        std::string name;
        std::string type;
        std::int64_t size;
    };

    void Enter(const StorageDesc& desc, UserDesc& user, const std::string& date,
               const Found& found) const {
        // Uses the end as the insertion hint, because the info files are sorted by date.
        user.backups.insert_or_assign(user.backups.end(), date,
                                      BackupInfo{found.size, found.type == "full" ? 0 : 1, false});
        KRO_LOG(kLog, 7, "%p Add %s backup %s. new used = %lld, new free_size = %lld",
                static_cast<const void*>(&desc), found.type.c_str(), found.name.c_str(),
                ForLog(LessSize(control_.size_limit, desc.free_size)), ForLog(desc.free_size));
    }

    // Adds a record of size 0 for each day without a backup, from the date of a backup with the key
    // "deleted" to the current date. Another program has deleted these backups, and the count
    // limits still count them. The records of Sundays are full backups, the others are dailies.
    void FillDays(UserDesc& user, const std::string& first) const {
        if (first >= current_date_) return;
        constexpr int kSunday = 0;
        for (kro_date::Date day(first); day.AsDate() < current_date_; day.AddDays(1)) {
            user.backups.try_emplace(day.AsDate(),
                                     BackupInfo{0, day.weekday() == kSunday ? 0 : 1, false});
        }
    }

    GlobalSizeControl& control_;
    const std::string& current_date_;
    quarn2::InfoReader info_;
};

void ChargeUser(StorageDesc& desc, const UserDesc& user) {
    if (user.backups.empty()) return;
    std::int64_t used = 0;
    for (const auto& [date, backup] : user.backups) used = SumOfSizes(used, backup.size);
    desc.limit = LessSize(desc.limit, user.GetLockedSize());
    desc.free_size = LessSize(desc.free_size, used);
}

// Subtracts the space of each user's backups from the free space. Returns the largest number of
// backups of any user.
std::int32_t ChargeUsers(StorageDesc& desc) {
    std::int32_t most = 0;
    for (const auto& [name, user] : desc.users) {
        most = std::max(most, static_cast<std::int32_t>(user.backups.size()));
        ChargeUser(desc, user);
    }
    return most;
}

}  // namespace

void GlobalSizeControl::Scan(const std::string& current_date, ScanObserver* observer,
                             const std::string& user) {
    KRO_LOG(kLog, 8, "void GlobalSizeControl::Scan(const string&)");
    ClearBackupInfo();
    std::list<std::string> paths;
    quarn2::GetInfoFiles(paths, path, false, user, "");
    CountInfoFiles(paths, current_date, observer);
    for (auto& [key, desc] : storages) max_count = std::max(max_count, ChargeUsers(desc));
    RefreshUnfinished();
}

void GlobalSizeControl::CountInfoFiles(const std::list<std::string>& paths,
                                       const std::string& current_date, ScanObserver* observer) {
    Scanner scanner(*this, current_date);
    for (const std::string& info_path : paths) {
        try {
            const ScanResult result = scanner.Take(info_path);
            if (observer != nullptr) observer->Take(info_path, scanner.info(), result);
        } catch (const std::exception& error) {
            if (!kro_file::Exists(info_path)) {
                KRO_LOG(kLog, 6, "Skip '%s', which was removed during the scan", info_path.c_str());
                continue;
            }
            if (observer != nullptr) {
                observer->Fail(info_path, error.what());
                continue;
            }
            // Adds the path of the info file, because the error text contains only a number or a
            // date.
            throw std::runtime_error(info_path + ": " + error.what());
        }
    }
}
