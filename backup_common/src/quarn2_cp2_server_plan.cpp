#include "quarn2_cp2_server_plan.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace {

using StorageDesc = GlobalSizeControl::StorageDesc;
using Record = Backups::value_type;

template <class Value>
const Value& ValueOf(const std::map<std::string, Value>& map, const std::string& user) {
    static const Value kNone;
    const auto found = map.find(user);
    return found == map.end() ? kNone : found->second;
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

// Moves the excess backups of a user from the chain to `victims`. The deletion of dailies may make
// a full backup removable, so the full backups are chosen after the dailies are removed.
void EvictExcess(Victims& victims, const UserRef& user, Chain& chain, const Chain& others,
                 int leave_full, int leave_daily) {
    Add(victims, user, RemoveExcessDailies(chain, leave_daily), RemovalReason::kCountDaily);
    Add(victims, user, RemoveExcessFulls(chain, leave_full, others), RemovalReason::kCountFull);
}

// Calls `function` with the UserRef of each user, in the order of storages and users.
template <class Function>
void ForEachUser(const Storages& storages, Function function) {
    for (const auto& [key, desc] : storages) {
        for (const auto& [name, user] : desc.users) function(UserRef{&key, &name, &user.backups});
    }
}

// Adds the backups that a job is making again.
Chain WithOpen(Chain others, const UserRef& user, const Dates& open) {
    for (const Record& record : *user.backups) {
        if (open.contains(record.first)) others.push_back(&record);
    }
    return others;
}

// The backups of one user during a simulation.
class SimulatedUser {
  public:
    SimulatedUser(const UserRef& ref, const NotComplete& not_complete)
        : ref_(ref), open_(&ValueOf(not_complete.open, *ref.name)), count_(ref.backups->size()) {
        // The model of the storage "" contains no interrupted backups, so the simulation adds them.
        if (ref.storage->empty()) {
            interrupted_ = ChainOf(ValueOf(not_complete.interrupted, *ref.name), {});
        }
        if (!open_->empty() || !interrupted_.empty()) Load();
    }

    Victims EvictExcess(int leave_full, int leave_daily) {
        Load();
        Victims victims;
        ::EvictExcess(victims, ref_, chain_, Others(), leave_full, leave_daily);
        count_ = chain_.size();
        return victims;
    }

    // Appends the backup of this user that one pass deletes to `victims`, if there is one.
    void Pass(Victims& victims, int keep, RemovalReason reason, bool with_interrupted) {
        if (with_interrupted && !interrupted_.empty() &&
            Exceeds(count_ + interrupted_.size(), keep) && EvictInterrupted(victims, reason)) {
            return;
        }
        if (!Exceeds(count_, keep)) return;
        const Record* oldest = Oldest();
        if (oldest == nullptr) return;
        victims.push_back(VictimOf(ref_, *oldest, reason));
        Remove(oldest);
    }

    // Adds the user's oldest interrupted backup if it may be evicted and the user has no older
    // removable backup.
    bool EvictInterrupted(Victims& victims, RemovalReason reason) {
        if (interrupted_.empty()) return false;
        Load();
        const Chain others = Others();
        const auto backup =
            std::find_if(interrupted_.begin(), interrupted_.end(), [&](const Record* candidate) {
                return IsInterruptedRemovable(*candidate, chain_, others);
            });
        if (backup == interrupted_.end()) return false;
        const Record* oldest = Oldest();
        if (oldest != nullptr && oldest->first < (*backup)->first) return false;
        victims.push_back(VictimOf(ref_, **backup, reason));
        victims.back().is_interrupted = true;
        interrupted_.erase(backup);
        return true;
    }

  private:
    static bool Exceeds(std::size_t count, int keep) {
        return static_cast<std::int64_t>(count) > keep;
    }

    // Fills chain_. Most users lose at most one backup and need no chain.
    void Load() {
        if (is_loaded_) return;
        is_loaded_ = true;
        chain_ = ChainOf(*ref_.backups, *open_);
        std::erase(chain_, removed_);
        count_ = chain_.size();
    }

    const Record* Oldest() {
        if (!is_loaded_ && removed_ != nullptr) Load();
        if (is_loaded_) {
            const auto oldest = OldestRemovable(chain_, Others());
            return oldest == chain_.end() ? nullptr : *oldest;
        }
        const auto oldest = OldestRemovable(*ref_.backups);
        return oldest == ref_.backups->end() ? nullptr : &*oldest;
    }

    void Remove(const Record* backup) {
        removed_ = backup;
        --count_;
        std::erase(chain_, backup);
    }

    // The user's backups that are not complete.
    Chain Others() const { return WithOpen(interrupted_, ref_, *open_); }

    UserRef ref_;
    const Dates* open_;
    std::size_t count_;
    Chain chain_;  // the complete backups; filled when is_loaded_ is true
    Chain interrupted_;
    const Record* removed_ = nullptr;  // the backup that was removed before chain_ was filled
    bool is_loaded_ = false;
};

// Simulates deletions without a copy of the model.
class Simulation {
  public:
    Simulation(const Storages& storages, const NotComplete& not_complete) {
        std::size_t users = 0;
        for (const auto& [key, desc] : storages) {
            free_[key] = desc.free_size;
            users += desc.users.size();
        }
        users_.reserve(users);
        ForEachUser(storages,
                    [&](const UserRef& user) { users_.emplace_back(user, not_complete); });
    }

    Victims DropExcess(int leave_full, int leave_daily) {
        Victims victims;
        for (SimulatedUser& user : users_) {
            const Victims excess = user.EvictExcess(leave_full, leave_daily);
            victims.insert(victims.end(), excess.begin(), excess.end());
        }
        CountAsFree(victims);
        return victims;
    }

    Victims Pass(int keep, RemovalReason reason, bool with_interrupted) {
        Victims victims;
        for (SimulatedUser& user : users_) user.Pass(victims, keep, reason, with_interrupted);
        CountAsFree(victims);
        return victims;
    }

    // A pass over the interrupted backups only.
    Victims PassInterrupted(RemovalReason reason) {
        Victims victims;
        for (SimulatedUser& user : users_) user.EvictInterrupted(victims, reason);
        CountAsFree(victims);
        return victims;
    }

    // The free space of each storage, by its key.
    const std::map<std::string, std::int64_t>& free() const noexcept { return free_; }
    // The size of the interrupted backups that were removed.
    const std::int64_t& freed_interrupted() const noexcept { return freed_interrupted_; }

  private:
    void CountAsFree(const Victims& victims) {
        for (const Victim& victim : victims) {
            std::int64_t& free =
                victim.is_interrupted ? freed_interrupted_ : free_.at(victim.storage);
            free = SumOfSizes(free, victim.size);
        }
    }

    std::map<std::string, std::int64_t> free_;
    std::int64_t freed_interrupted_ = 0;
    std::vector<SimulatedUser> users_;
};

using Missing = std::function<std::int64_t()>;

// Adds passes to the plan until `missing` returns 0 or max_count passes are planned. A pass removes
// an interrupted backup only while `helps` returns true.
void AddPasses(EvictionPlan& plan, Simulation& simulation, int max_count, RemovalReason reason,
               const Missing& missing, const std::function<bool()>& helps) {
    for (int keep = max_count - 1; keep >= 0 && missing() > 0; --keep) {
        plan.passes.push_back(simulation.Pass(keep, reason, helps()));
    }
    while (missing() > 0 && helps()) {
        const Victims more = simulation.PassInterrupted(reason);
        if (more.empty()) break;
        plan.after_passes.insert(plan.after_passes.end(), more.begin(), more.end());
    }
    plan.missing = missing();
}

std::int64_t MissingFor(std::int64_t size, std::int64_t free, std::int64_t reserved) {
    return std::max<std::int64_t>(LessSize(size, LessSize(free, reserved)), 0);
}

// The largest number of bytes that a storage uses beyond the limit.
std::int64_t Excess(const Simulation& simulation, std::int64_t limit) {
    std::int64_t excess = 0;
    for (const auto& [key, free] : simulation.free()) {
        excess = std::max(excess, LessSize(LessSize(limit, free), limit));
    }
    return excess;
}

}  // namespace

bool EvictionPlan::HasVictims() const noexcept {
    return !by_count.empty() || !after_passes.empty() ||
           std::any_of(passes.begin(), passes.end(),
                       [](const Victims& pass) { return !pass.empty(); });
}

Victims EvictionPlan::AllVictims() const {
    Victims all = by_count;
    for (const Victims& pass : passes) all.insert(all.end(), pass.begin(), pass.end());
    all.insert(all.end(), after_passes.begin(), after_passes.end());
    return all;
}

std::int64_t EvictionPlan::FreedSize() const noexcept {
    std::int64_t size = 0;
    const auto add = [&size](const Victims& victims) {
        for (const Victim& victim : victims) size = SumOfSizes(size, victim.size);
    };
    add(by_count);
    for (const Victims& pass : passes) add(pass);
    add(after_passes);
    return size;
}

namespace {

// Plans one pass when every backup of the storage is complete. Does not use a simulation, because a
// simulation takes twice as long.
Victims PassOfComplete(const Storages& storages, int keep, RemovalReason reason) {
    Victims victims;
    ForEachUser(storages, [&](const UserRef& user) {
        if (static_cast<std::int64_t>(user.backups->size()) <= keep) return;
        const auto oldest = OldestRemovable(*user.backups);
        if (oldest != user.backups->end()) victims.push_back(VictimOf(user, *oldest, reason));
    });
    return victims;
}

}  // namespace

Victims PlanPass(const Storages& storages, int keep, RemovalReason reason,
                 const NotComplete& not_complete) {
    if (not_complete.open.empty() && not_complete.interrupted.empty()) {
        return PassOfComplete(storages, keep, reason);
    }
    constexpr bool kWithInterrupted = true;
    return Simulation(storages, not_complete).Pass(keep, reason, kWithInterrupted);
}

Victims PlanCounts(const Storages& storages, int leave_full, int leave_daily,
                   const NotComplete& not_complete) {
    return Simulation(storages, not_complete).DropExcess(leave_full, leave_daily);
}

EvictionPlan PlanRoom(const GlobalSizeControl& control, const std::string& key, std::int64_t size,
                      const NotComplete& not_complete, bool is_remote) {
    EvictionPlan plan;
    const StorageDesc& desc = control.storages.at(key);
    if (MissingFor(desc.NeededFor(size, is_remote), desc.free_size, desc.reserved) == 0) {
        return plan;
    }
    Simulation simulation(control.storages, not_complete);
    const std::int64_t& free = simulation.free().at(key);
    const auto needed = [&] {
        return desc.NeededFor(size, is_remote, simulation.freed_interrupted());
    };
    AddPasses(
        plan, simulation, control.max_count, RemovalReason::kSizeReserve,
        [&] { return MissingFor(needed(), free, desc.reserved); }, [&] { return needed() > size; });
    return plan;
}

EvictionPlan PlanStart(const GlobalSizeControl& control) {
    EvictionPlan plan;
    Simulation simulation(control.storages, {});
    plan.by_count = simulation.DropExcess(control.full_limit, control.daily_limit);
    AddPasses(
        plan, simulation, control.max_count, RemovalReason::kSizeStart,
        [&] { return Excess(simulation, control.size_limit); }, [] { return false; });
    return plan;
}

EvictionPlan PlanDropOne(const GlobalSizeControl& control, int keep,
                         const NotComplete& not_complete) {
    EvictionPlan plan;
    if (keep >= control.max_count) return plan;
    plan.passes.push_back(
        PlanPass(control.storages, keep, RemovalReason::kSizeDropOne, not_complete));
    return plan;
}

namespace {

// The dates of the plan's victims, by storage and user: either the interrupted backups or those of
// the model.
using Chosen = std::map<std::string, std::map<std::string, Dates>>;

Chosen ChosenBy(const EvictionPlan& plan, bool is_interrupted) {
    Chosen chosen;
    for (const Victim& victim : plan.AllVictims()) {
        if (victim.is_interrupted != is_interrupted) continue;
        chosen[victim.storage][victim.user].insert(victim.date);
    }
    return chosen;
}

// The user's backups that are not complete.
Chain OthersOf(const UserRef& user, const NotComplete& not_complete, const Dates& gone) {
    Chain others;
    if (user.storage->empty()) {
        others = ChainOf(ValueOf(not_complete.interrupted, *user.name), gone);
    }
    return WithOpen(std::move(others), user, ValueOf(not_complete.open, *user.name));
}

// The reason why the plan keeps one backup. `chain`: the other backups of the user that the plan
// keeps. `open`: the dates of the backups that a job is making again. `others`: the backups of the
// user that are not complete and that the plan keeps.
KeepReason ReasonOf(const std::string& date, const Chain& chain, const Dates& open,
                    const Chain& others) {
    if (open.contains(date)) return KeepReason::kBeingMade;
    const auto record = std::find_if(chain.begin(), chain.end(), [&date](const Record* candidate) {
        return candidate->first == date;
    });
    return WhyKept(chain, record, others);
}

}  // namespace

std::vector<Kept> WhyKept(const Storages& storages, const EvictionPlan& plan,
                          const NotComplete& not_complete) {
    std::vector<Kept> kept;
    const Chosen chosen = ChosenBy(plan, false);
    const Chosen interrupted = ChosenBy(plan, true);
    ForEachUser(storages, [&](const UserRef& user) {
        const Dates& open_dates = ValueOf(not_complete.open, *user.name);
        const Dates& gone = ValueOf(ValueOf(chosen, *user.storage), *user.name);
        Dates without = open_dates;
        without.insert(gone.begin(), gone.end());
        const Chain chain = ChainOf(*user.backups, without);
        const Chain others =
            OthersOf(user, not_complete, ValueOf(ValueOf(interrupted, *user.storage), *user.name));
        for (const Record* record : ChainOf(*user.backups, gone)) {
            const auto& [date, backup] = *record;
            kept.push_back({*user.storage, *user.name, date, backup.size, backup.type,
                            ReasonOf(date, chain, open_dates, others)});
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
