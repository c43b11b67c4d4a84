#include "quarn2_cp2_server_plan.h"

#include <algorithm>

#include "quarn2_cp2_server_eviction.h"

namespace {

using StorageDesc = GlobalSizeControl::StorageDesc;
using IsReached = std::function<bool(const Storages&)>;

void ForgetAll(Storages& storages, const Victims& victims) {
    for (const Victim& victim : victims) ForgetBackup(storages, victim);
}

void AddDates(Victims& victims, const std::string& key, const std::string& user,
              const Backups& backups, const std::vector<std::string>& dates) {
    for (const std::string& date : dates) {
        victims.push_back({key, user, date, backups.at(date).size});
    }
}

// The deletion of dailies may make a full backup removable, so the full backups are chosen from the
// backups that remain without these dailies.
void AddExcess(Victims& victims, const std::string& key, const std::string& user, Backups backups,
               int leave_full, int leave_daily) {
    const std::vector<std::string> dailies = ExcessDailies(backups, leave_daily);
    AddDates(victims, key, user, backups, dailies);
    for (const std::string& date : dailies) backups.erase(date);
    AddDates(victims, key, user, backups, ExcessFulls(backups, leave_full));
}

// `storages` is a copy of the model, in which the deletions are simulated.
void AddPasses(EvictionPlan& plan, Storages& storages, int max_count, const IsReached& is_reached) {
    while (!is_reached(storages)) {
        if (max_count <= 0) {
            plan.possible = false;
            return;
        }
        --max_count;
        plan.passes.push_back(PlanPass(storages, max_count));
        ForgetAll(storages, plan.passes.back());
    }
}

}  // namespace

bool EvictionPlan::HasVictims() const noexcept {
    return !by_count.empty() || std::any_of(passes.begin(), passes.end(),
                                            [](const Victims& pass) { return !pass.empty(); });
}

Victims EvictionPlan::AllVictims() const {
    Victims all = by_count;
    for (const Victims& pass : passes) all.insert(all.end(), pass.begin(), pass.end());
    return all;
}

std::int64_t EvictionPlan::FreedSize() const noexcept {
    std::int64_t size = 0;
    const auto add = [&size](const Victims& victims) {
        for (const Victim& victim : victims) size = SumOfSizes(size, victim.size);
    };
    add(by_count);
    for (const Victims& pass : passes) add(pass);
    return size;
}

Victims PlanPass(const Storages& storages, int keep) {
    Victims victims;
    for (const auto& [key, desc] : storages) {
        for (const auto& [name, user] : desc.users) {
            if (static_cast<std::int64_t>(user.backups.size()) <= keep) continue;
            const auto record = OldestRemovable(user.backups);
            if (record == user.backups.end()) continue;
            victims.push_back({key, name, record->first, record->second.size});
        }
    }
    return victims;
}

Victims PlanCounts(const Storages& storages, int leave_full, int leave_daily) {
    Victims victims;
    for (const auto& [key, desc] : storages) {
        for (const auto& [name, user] : desc.users) {
            AddExcess(victims, key, name, user.backups, leave_full, leave_daily);
        }
    }
    return victims;
}

Storages WithoutOpen(const Storages& storages, const IsOpenBackup& is_open) {
    Storages copy = storages;
    for (auto& [key, desc] : copy) {
        for (auto& [name, user] : desc.users) {
            std::erase_if(user.backups, [&is_open, &user_name = name](const auto& record) {
                return is_open(user_name, record.first);
            });
        }
    }
    return copy;
}

EvictionPlan PlanRoom(const GlobalSizeControl& control, const std::string& key, std::int64_t size,
                      const Storages& model) {
    const IsReached is_reached = [&key, size](const Storages& storages) {
        const StorageDesc& desc = storages.at(key);
        return size <= LessSize(desc.free_size, desc.reserved);
    };
    EvictionPlan plan;
    if (is_reached(model)) return plan;
    Storages storages = model;
    AddPasses(plan, storages, control.max_count, is_reached);
    return plan;
}

EvictionPlan PlanStart(const GlobalSizeControl& control) {
    EvictionPlan plan;
    Storages storages = control.storages;
    plan.by_count = PlanCounts(storages, control.full_limit, control.daily_limit);
    ForgetAll(storages, plan.by_count);
    AddPasses(plan, storages, control.max_count,
              [limit = control.size_limit](const Storages& copy) {
                  return std::all_of(copy.begin(), copy.end(), [limit](const auto& entry) {
                      return LessSize(limit, entry.second.free_size) <= limit;
                  });
              });
    return plan;
}

void ForgetBackup(Storages& storages, const Victim& victim) {
    StorageDesc& desc = storages.at(victim.storage);
    Backups& backups = desc.users.at(victim.user).backups;
    desc.free_size = SumOfSizes(desc.free_size, backups.at(victim.date).size);
    backups.erase(victim.date);
}
