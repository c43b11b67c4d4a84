#include "quarn2_cp2_server_plan.h"

#include <algorithm>
#include <functional>

namespace {

using StorageDesc = GlobalSizeControl::StorageDesc;
using Record = Backups::value_type;

const Dates& DatesOf(const OpenBackups& open, const std::string& user) {
    static const Dates kNone;
    const auto found = open.find(user);
    return found == open.end() ? kNone : found->second;
}

// The keys and the backups of a user in the model.
struct UserRef {
    const std::string* storage;
    const std::string* name;
    const Backups* backups;
};

Victim VictimOf(const UserRef& user, const Record& record, RemovalReason reason) {
    const auto& [date, backup] = record;
    return {*user.storage, *user.name, date, backup.size, backup.type, reason};
}

void Add(Victims& victims, const UserRef& user, const Chain& taken, RemovalReason reason) {
    for (const Record* record : taken) victims.push_back(VictimOf(user, *record, reason));
}

// Takes the excess backups of a user out of the chain. The deletion of dailies may make a full
// backup removable, so the full backups are chosen from the backups that remain without these
// dailies.
void TakeExcess(Victims& victims, const UserRef& user, Chain& chain, int leave_full,
                int leave_daily) {
    Add(victims, user, TakeExcessDailies(chain, leave_daily), RemovalReason::kCountDaily);
    Add(victims, user, TakeExcessFulls(chain, leave_full), RemovalReason::kCountFull);
}

// Calls `function` with the UserRef of each user, in the order of storages and users.
template <class Function>
void ForEachUser(const Storages& storages, Function function) {
    for (const auto& [key, desc] : storages) {
        for (const auto& [name, user] : desc.users) function(UserRef{&key, &name, &user.backups});
    }
}

// Simulates deletions without a copy of the model.
class Simulation {
  public:
    Simulation(const Storages& storages, const OpenBackups& open) : open_(open) {
        for (const auto& [key, desc] : storages) free_[key] = desc.free_size;
        ForEachUser(storages, [this](const UserRef& user) {
            const Dates& dates = DatesOf(open_, *user.name);
            const std::size_t count =
                dates.empty() ? user.backups->size() : ChainOf(*user.backups, dates).size();
            users_.push_back({user, count, {}});
        });
    }

    Victims DropExcess(int leave_full, int leave_daily) {
        Victims victims;
        for (User& user : users_) {
            TakeExcess(victims, user.ref, ChainOfUser(user), leave_full, leave_daily);
            user.count = user.chain.size();
        }
        CountAsFree(victims);
        return victims;
    }

    Victims Pass(int keep, RemovalReason reason) {
        Victims victims;
        for (User& user : users_) {
            if (static_cast<std::int64_t>(user.count) <= keep) continue;
            Chain& chain = ChainOfUser(user);
            const auto oldest = OldestRemovable(chain);
            if (oldest == chain.end()) continue;
            victims.push_back(VictimOf(user.ref, **oldest, reason));
            chain.erase(oldest);
            --user.count;
        }
        CountAsFree(victims);
        return victims;
    }

    // The free space of each storage, by its key.
    const std::map<std::string, std::int64_t>& free() const noexcept { return free_; }

  private:
    struct User {
        UserRef ref;
        std::size_t count;
        Chain chain;  // empty until it is needed, because most users are not looked at
    };

    Chain& ChainOfUser(User& user) const {
        if (user.chain.empty())
            user.chain = ChainOf(*user.ref.backups, DatesOf(open_, *user.ref.name));
        return user.chain;
    }

    void CountAsFree(const Victims& victims) {
        for (const Victim& victim : victims) {
            std::int64_t& free = free_.at(victim.storage);
            free = SumOfSizes(free, victim.size);
        }
    }

    const OpenBackups& open_;
    std::map<std::string, std::int64_t> free_;
    std::vector<User> users_;
};

using Missing = std::function<std::int64_t()>;

// Adds passes until no bytes are missing or max_count passes are planned.
void AddPasses(EvictionPlan& plan, Simulation& simulation, int max_count, RemovalReason reason,
               const Missing& missing) {
    for (int keep = max_count - 1; keep >= 0 && missing() > 0; --keep) {
        plan.passes.push_back(simulation.Pass(keep, reason));
    }
    plan.missing = missing();
}

std::int64_t MissingFor(std::int64_t size, std::int64_t free, std::int64_t reserved) {
    return std::max<std::int64_t>(LessSize(size, LessSize(free, reserved)), 0);
}

// The bytes that the fullest storage uses beyond the limit.
std::int64_t Excess(const Simulation& simulation, std::int64_t limit) {
    std::int64_t excess = 0;
    for (const auto& [key, free] : simulation.free()) {
        excess = std::max(excess, LessSize(LessSize(limit, free), limit));
    }
    return excess;
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

Victims PlanPass(const Storages& storages, int keep, RemovalReason reason,
                 const OpenBackups& open) {
    Victims victims;
    ForEachUser(storages, [&](const UserRef& user) {
        if (static_cast<std::int64_t>(user.backups->size()) <= keep) return;
        const Dates& dates = DatesOf(open, *user.name);
        if (dates.empty()) {
            const auto oldest = OldestRemovable(*user.backups);
            if (oldest == user.backups->end()) return;
            victims.push_back(VictimOf(user, *oldest, reason));
            return;
        }
        const Chain chain = ChainOf(*user.backups, dates);
        const auto oldest = OldestRemovable(chain);
        if (static_cast<std::int64_t>(chain.size()) <= keep || oldest == chain.end()) return;
        victims.push_back(VictimOf(user, **oldest, reason));
    });
    return victims;
}

Victims PlanCounts(const Storages& storages, int leave_full, int leave_daily,
                   const OpenBackups& open) {
    Victims victims;
    ForEachUser(storages, [&](const UserRef& user) {
        Chain chain = ChainOf(*user.backups, DatesOf(open, *user.name));
        TakeExcess(victims, user, chain, leave_full, leave_daily);
    });
    return victims;
}

EvictionPlan PlanRoom(const GlobalSizeControl& control, const std::string& key, std::int64_t size,
                      const OpenBackups& open) {
    EvictionPlan plan;
    const StorageDesc& desc = control.storages.at(key);
    if (MissingFor(size, desc.free_size, desc.reserved) == 0) return plan;
    Simulation simulation(control.storages, open);
    const std::int64_t& free = simulation.free().at(key);
    AddPasses(plan, simulation, control.max_count, RemovalReason::kSizeReserve,
              [&] { return MissingFor(size, free, desc.reserved); });
    return plan;
}

EvictionPlan PlanStart(const GlobalSizeControl& control) {
    EvictionPlan plan;
    const OpenBackups none;
    Simulation simulation(control.storages, none);
    plan.by_count = simulation.DropExcess(control.full_limit, control.daily_limit);
    AddPasses(plan, simulation, control.max_count, RemovalReason::kSizeStart,
              [&] { return Excess(simulation, control.size_limit); });
    return plan;
}

EvictionPlan PlanDropOne(const GlobalSizeControl& control, int keep, const OpenBackups& open) {
    EvictionPlan plan;
    if (keep >= control.max_count) return plan;
    plan.passes.push_back(PlanPass(control.storages, keep, RemovalReason::kSizeDropOne, open));
    return plan;
}

namespace {

// The dates of the plan's victims, by storage and user.
using Chosen = std::map<std::string, OpenBackups>;

Chosen DatesOf(const EvictionPlan& plan) {
    Chosen chosen;
    for (const Victim& victim : plan.AllVictims()) {
        chosen[victim.storage][victim.user].insert(victim.date);
    }
    return chosen;
}

// The reason for one backup. `chain`: the user's backups that stay, without those of `open`.
KeepReason ReasonOf(const std::string& date, const Chain& chain, const Dates& open) {
    if (open.contains(date)) return KeepReason::kBeingMade;
    const auto record = std::find_if(chain.begin(), chain.end(), [&date](const Record* candidate) {
        return candidate->first == date;
    });
    return WhyKept(chain, record);
}

}  // namespace

std::vector<Kept> WhyKept(const Storages& storages, const EvictionPlan& plan,
                          const OpenBackups& open) {
    std::vector<Kept> kept;
    Chosen chosen = DatesOf(plan);
    ForEachUser(storages, [&](const UserRef& user) {
        const Dates& open_dates = DatesOf(open, *user.name);
        const Dates& gone = chosen[*user.storage][*user.name];
        Dates without = open_dates;
        without.insert(gone.begin(), gone.end());
        const Chain chain = ChainOf(*user.backups, without);
        for (const Record* record : ChainOf(*user.backups, gone)) {
            const auto& [date, backup] = *record;
            kept.push_back({*user.storage, *user.name, date, backup.size, backup.type,
                            ReasonOf(date, chain, open_dates)});
        }
    });
    return kept;
}

void ForgetBackup(Storages& storages, const Victim& victim) {
    StorageDesc& desc = storages.at(victim.storage);
    Backups& backups = desc.users.at(victim.user).backups;
    desc.free_size = SumOfSizes(desc.free_size, backups.at(victim.date).size);
    backups.erase(victim.date);
}
