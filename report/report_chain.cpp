#include "report_chain.h"

#include <algorithm>
#include <map>
#include <utility>

#include "kro/kro_file.h"
#include "kro/str.h"
#include "quarn2/names.h"

namespace {

bool IsInChain(const Backup& backup) {
    return backup.state == State::kComplete || backup.state == State::kFuture;
}

void SortByDate(std::vector<Backup>& backups) {
    std::stable_sort(backups.begin(), backups.end(),
                     [](const Backup& a, const Backup& b) { return a.date < b.date; });
}

void AddToChain(std::vector<Chain>& chains, Backup backup) {
    if (backup.is_full || chains.empty()) {
        chains.emplace_back();
        chains.back().has_full = backup.is_full;
    }
    chains.back().backups.push_back(std::move(backup));
}

UserBackups GroupOne(std::string user, std::vector<Backup> backups) {
    SortByDate(backups);
    UserBackups group;
    group.user = std::move(user);
    for (Backup& backup : backups) {
        if (IsInChain(backup)) {
            AddToChain(group.chains, std::move(backup));
        } else {
            group.others.push_back(std::move(backup));
        }
    }
    return group;
}

std::string Archive(const std::string& stored_name) {
    return quarn2::StripSliceNumber(kro_file::Name(stored_name));
}

// The restorable dates nearest to `date`, formatted for the end of a message.
std::string NearestDates(const std::vector<Backup>& restorable, const std::string& date) {
    std::string before;
    std::string after;
    for (const Backup& backup : restorable) {
        if (backup.date < date) before = backup.date;
        if (backup.date > date && after.empty()) after = backup.date;
    }
    if (before.empty() && after.empty()) return "; this user has no other complete backup";
    return "; the nearest complete backups are of " + str::Append(before, after, " and ");
}

std::string MissingFault(const std::vector<Backup>& all, const std::string& date) {
    if (all.empty()) return "no backup of this user is known in the info root";
    const auto found = std::find_if(all.begin(), all.end(),
                                    [&](const Backup& backup) { return backup.date == date; });
    if (found == all.end()) return "there is no backup for " + date;
    if (found->is_marked_deleted && IsInChain(*found)) {
        return "the backup for " + date + " is marked as deleted";
    }
    return "the backup for " + date + " is not complete (" + NameOf(found->state) + ")";
}

Restore RestoreOf(Backup backup) {
    Restore restore;
    restore.backups.push_back(std::move(backup));
    return restore;
}

Restore FaultOf(std::string fault) {
    Restore restore;
    restore.fault = std::move(fault);
    return restore;
}

// `restorable` is sorted by date and ends with the daily.
Restore RestoreDaily(const std::vector<Backup>& restorable) {
    const Backup& daily = restorable.back();
    const auto full = std::find_if(restorable.rbegin(), restorable.rend(),
                                   [](const Backup& backup) { return backup.is_full; });
    if (full == restorable.rend()) {
        return FaultOf("the daily backup for " + daily.date +
                       " has no full backup before it, so it cannot be restored");
    }
    const std::string expected = "F" + full->date + "." + full->user;
    if (!daily.base.empty() && Archive(daily.base) != expected) {
        return FaultOf("the daily backup for " + daily.date + " was made on '" + daily.base +
                       "', and the full backup before it is '" + expected +
                       "': look for the missing full backup, or restore an earlier day");
    }
    Restore restore = RestoreOf(*full);
    restore.backups.push_back(daily);
    return restore;
}

}  // namespace

std::vector<UserBackups> GroupByUser(std::vector<Backup> backups) {
    std::map<std::string, std::vector<Backup>> by_user;
    for (Backup& backup : backups) by_user[backup.user].push_back(std::move(backup));
    std::vector<UserBackups> groups;
    groups.reserve(by_user.size());
    for (auto& [user, own] : by_user) groups.push_back(GroupOne(user, std::move(own)));
    return groups;
}

std::vector<Backup> NotRestorable(const UserBackups& user) {
    std::vector<Backup> broken;
    std::string full;
    for (const Chain& chain : user.chains) {
        for (const Backup& backup : chain.backups) {
            if (backup.is_marked_deleted) continue;
            const std::string name = "F" + backup.date + "." + backup.user;
            if (backup.is_full) full = name;
            const bool has_base = !backup.base.empty();
            const bool is_broken = full.empty() || (has_base && Archive(backup.base) != full);
            if (!backup.is_full && is_broken) broken.push_back(backup);
        }
    }
    return broken;
}

Restore FindRestore(std::vector<Backup> backups, const std::string& date) {
    SortByDate(backups);
    if (date == "custom") {
        const auto custom = std::find_if(backups.begin(), backups.end(), [](const Backup& backup) {
            return backup.state == State::kCustom;
        });
        return custom == backups.end() ? FaultOf(MissingFault(backups, date)) : RestoreOf(*custom);
    }
    std::vector<Backup> restorable;
    std::copy_if(
        backups.begin(), backups.end(), std::back_inserter(restorable),
        [](const Backup& backup) { return IsInChain(backup) && !backup.is_marked_deleted; });
    const auto wanted = std::find_if(restorable.begin(), restorable.end(),
                                     [&](const Backup& backup) { return backup.date == date; });
    if (wanted == restorable.end()) {
        const std::string nearest = backups.empty() ? "" : NearestDates(restorable, date);
        return FaultOf(MissingFault(backups, date) + nearest);
    }
    if (wanted->is_full) return RestoreOf(*wanted);
    restorable.erase(wanted + 1, restorable.end());
    return RestoreDaily(restorable);
}
