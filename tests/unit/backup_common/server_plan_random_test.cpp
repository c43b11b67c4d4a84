// Plans evictions for random models and checks the guarantees of each plan. The checks execute the
// plan on a list of the records and share no rules with the planner.
//
// QUARN2_CP_SEED=N repeats one seed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <tuple>

#include "backup_letters.h"
#include "dice.h"
#include "quarn2_cp2_server_plan.h"

namespace {

constexpr int kModels = 3000;
constexpr std::int64_t kLimit = 1000;

struct Model {
    GlobalSizeControl control;
    NotComplete not_complete;
};

void MakeInterrupted(Dice& dice, Model& model, const std::string& name) {
    if (!dice.OneIn(3)) return;
    GlobalSizeControl::StorageDesc& desc = model.control.storages.at("");
    for (int count = dice.Number(1, 4); count > 0; --count) {
        const std::string date =
            backup_letters::DateOf(static_cast<std::size_t>(dice.Number(0, 19)));
        if (desc.users.at(name).backups.contains(date)) continue;
        const std::int64_t size = dice.Number(0, 40);
        const Backups::mapped_type backup{size, dice.Number(0, 1), false};
        if (model.not_complete.interrupted[name].try_emplace(date, backup).second) {
            desc.unfinished += size;
        }
    }
}

void MakeUser(Dice& dice, Model& model, const std::string& key, const std::string& name) {
    GlobalSizeControl::StorageDesc& desc = model.control.storages[key];
    Backups& backups = desc.users[name].backups;
    const int records = dice.Number(0, 9);
    for (int i = 0; i < records; ++i) {
        const std::string date =
            backup_letters::DateOf(static_cast<std::size_t>(dice.Number(0, 19)));
        backups[date] = {dice.Number(0, 40), dice.OneIn(9) ? 2 : dice.Number(0, 1), dice.OneIn(8)};
        if (dice.OneIn(9)) model.not_complete.open[name].insert(date);
    }
    for (const auto& [date, backup] : backups) desc.free_size -= backup.size;
    if (key.empty()) MakeInterrupted(dice, model, name);
    model.control.max_count =
        std::max(model.control.max_count, static_cast<std::int32_t>(backups.size()));
}

void MakeModel(Dice& dice, Model& model) {
    model.control.size_limit = kLimit;
    model.control.full_limit = dice.OneIn(2) ? dice.Number(0, 4) : ServerLimits::kNoCount;
    model.control.daily_limit = dice.Number(0, 9);
    const int storages = dice.OneIn(4) ? 2 : 1;
    for (int i = 0; i < storages; ++i) {
        const std::string key = i == 0 ? "" : "n1";
        GlobalSizeControl::StorageDesc& desc = model.control.storages[key];
        desc.free_size = kLimit;
        const int users = dice.Number(0, 4);
        for (int user = 0; user < users; ++user) {
            MakeUser(dice, model, key, key + static_cast<char>('a' + user));
        }
        desc.free_size -= dice.Number(0, 1000);  // backups that cannot be evicted
        desc.reserved = dice.OneIn(2) ? dice.Number(0, 100) : 0;
    }
    // Earlier passes may have made max_count smaller than the counts.
    if (dice.OneIn(3)) model.control.max_count = std::max(0, model.control.max_count - 2);
}

// Executes a plan on a list of records and checks each step.
class Execution {
  public:
    Execution(const Model& model, const EvictionPlan& plan) : model_(model), plan_(plan) {
        for (const auto& [user, backups] : model.not_complete.interrupted) {
            interrupted_["/" + user] = backups;
        }
        for (const auto& [key, desc] : model.control.storages) {
            free_[key] = desc.free_size;
            for (const auto& [name, user] : desc.users) {
                for (const auto& record : user.backups) {
                    if (!IsOpen(name, record.first)) left_[key + "/" + name].emplace_back(record);
                }
            }
        }
    }

    void Run() {
        for (const Victim& victim : plan_.by_count) {
            CheckNeededForCounts(victim);
            Remove(victim);
        }
        for (const Victims& pass : plan_.passes) RunPass(pass);
        for (const Victim& victim : plan_.after_passes) {
            EXPECT_TRUE(victim.is_interrupted);
            Remove(victim);
        }
    }

    // The number of bytes that are free on the storage before the last pass with a victim.
    std::int64_t free_before_last(const std::string& key) const { return before_last_.at(key); }
    std::int64_t interrupted_before_last() const { return interrupted_before_last_; }
    std::int64_t freed_interrupted() const { return freed_interrupted_; }
    std::int64_t free(const std::string& key) const { return free_.at(key); }
    std::size_t Count() const {
        std::size_t count = 0;
        for (const auto& [user, records] : left_) count += records.size();
        return count;
    }

  private:
    using BackupInfo = GlobalSizeControl::StorageDesc::UserDesc::BackupInfo;
    using Records = std::vector<std::pair<std::string, BackupInfo>>;

    bool IsOpen(const std::string& user, const std::string& date) const {
        const auto found = model_.not_complete.open.find(user);
        return found != model_.not_complete.open.end() && found->second.contains(date);
    }

    void RunPass(const Victims& pass) {
        if (!pass.empty()) {
            before_last_ = free_;
            interrupted_before_last_ = freed_interrupted_;
        }
        std::set<std::string> users;
        for (const Victim& victim : pass) {
            EXPECT_TRUE(users.insert(victim.storage + "/" + victim.user).second)
                << "one backup of each user in a pass";
            Remove(victim);
        }
    }

    void CheckNeededForCounts(const Victim& victim) const {
        const Records& records = left_.at(victim.storage + "/" + victim.user);
        const auto count = std::count_if(records.begin(), records.end(), [&](const auto& record) {
            return record.second.type == victim.type;
        });
        const bool is_full = victim.reason == RemovalReason::kCountFull;
        EXPECT_EQ(victim.type, is_full ? 0 : 1);
        EXPECT_GT(count, is_full ? model_.control.full_limit : model_.control.daily_limit);
    }

    // True when a job is making a daily between the dates again, or was interrupted while it did
    // so.
    bool HasOtherDaily(const Victim& victim, const std::string& next) const {
        const auto is_daily_between = [&](const auto& record) {
            return record.second.type != 0 && record.first > victim.date && record.first < next;
        };
        const Backups& all =
            model_.control.storages.at(victim.storage).users.at(victim.user).backups;
        const auto interrupted = interrupted_.find(victim.storage + "/" + victim.user);
        return std::any_of(all.begin(), all.end(),
                           [&](const auto& record) {
                               return IsOpen(victim.user, record.first) && is_daily_between(record);
                           }) ||
               (interrupted != interrupted_.end() &&
                std::any_of(interrupted->second.begin(), interrupted->second.end(),
                            is_daily_between));
    }

    // The user must have a later complete backup. If the victim is a full backup, the next backup
    // must not be a daily.
    void RemoveInterrupted(const Victim& victim) {
        const std::string user = victim.storage + "/" + victim.user;
        const auto is_later = [&](const auto& record) { return record.first > victim.date; };
        const Records& records = left_[user];
        const auto later = std::find_if(records.begin(), records.end(), is_later);
        ASSERT_NE(later, records.end()) << "not the newest backup of a user";
        Backups& interrupted = interrupted_[user];
        ASSERT_EQ(interrupted.erase(victim.date), 1U) << "no backup twice";
        const auto next = interrupted.upper_bound(victim.date);
        const bool is_next = next != interrupted.end() && next->first < later->first;
        const int follower = is_next ? next->second.type : later->second.type;
        EXPECT_TRUE(victim.type != 0 || follower == 0) << "no full backup before its dailies";
        EXPECT_FALSE(victim.type == 0 && HasOtherDaily(victim, later->first));
        freed_interrupted_ += victim.size;
    }

    void Remove(const Victim& victim) {
        if (victim.is_interrupted) return RemoveInterrupted(victim);
        Records& records = left_.at(victim.storage + "/" + victim.user);
        const auto record = std::find_if(records.begin(), records.end(), [&](const auto& each) {
            return each.first == victim.date;
        });
        ASSERT_NE(record, records.end()) << "no open backup, and no backup twice";
        ASSERT_NE(record + 1, records.end()) << "not the newest backup of a user";
        EXPECT_FALSE(record->second.locked);
        EXPECT_TRUE(record->second.type != 0 || (record + 1)->second.type == 0)
            << "no full backup before its dailies";
        EXPECT_FALSE(record->second.type == 0 && HasOtherDaily(victim, (record + 1)->first))
            << "no full backup before a daily that is not complete";
        EXPECT_EQ(victim.size, record->second.size);
        EXPECT_EQ(victim.type, record->second.type);
        free_.at(victim.storage) += victim.size;
        records.erase(record);
    }

    const Model& model_;
    const EvictionPlan& plan_;
    std::map<std::string, Records> left_;
    std::map<std::string, Backups> interrupted_;
    std::int64_t freed_interrupted_ = 0;
    std::map<std::string, std::int64_t> free_;
    std::map<std::string, std::int64_t> before_last_;
    std::int64_t interrupted_before_last_ = 0;
};

bool HasPassVictims(const EvictionPlan& plan) {
    return std::any_of(plan.passes.begin(), plan.passes.end(),
                       [](const Victims& pass) { return !pass.empty(); });
}

void ExpectReason(const EvictionPlan& plan, RemovalReason of_passes) {
    for (const Victims& pass : plan.passes) {
        for (const Victim& victim : pass) EXPECT_EQ(victim.reason, of_passes);
    }
}

void CheckWhyKept(const Model& model, const EvictionPlan& plan, const NotComplete& not_complete) {
    using Key = std::tuple<std::string, std::string, std::string>;
    std::set<Key> seen;
    for (const Victim& victim : plan.AllVictims()) {
        if (victim.is_interrupted) continue;
        seen.emplace(victim.storage, victim.user, victim.date);
    }
    const std::size_t victims = seen.size();
    const std::vector<Kept> kept = WhyKept(model.control.storages, plan, not_complete);
    for (const Kept& each : kept) {
        EXPECT_TRUE(seen.emplace(each.storage, each.user, each.date).second);
    }
    std::size_t records = 0;
    for (const auto& [key, desc] : model.control.storages) {
        for (const auto& [name, user] : desc.users) records += user.backups.size();
    }
    EXPECT_EQ(victims + kept.size(), records) << "each backup is a victim or kept, not both";
}

void CheckRoom(Dice& dice, const Model& model) {
    const std::int64_t size = dice.Number(0, 600);
    const bool is_remote = dice.OneIn(2);
    const auto plan_room = [&] {
        return PlanRoom(model.control, "", size, model.not_complete, is_remote);
    };
    const EvictionPlan plan = plan_room();
    EXPECT_EQ(plan.AllVictims(), plan_room().AllVictims());
    EXPECT_EQ(plan.missing, plan_room().missing);
    EXPECT_TRUE(plan.by_count.empty());
    ExpectReason(plan, RemovalReason::kSizeReserve);
    Execution execution(model, plan);
    execution.Run();
    const GlobalSizeControl::StorageDesc& desc = model.control.storages.at("");
    const auto wanted = [&](std::int64_t freed) {
        return desc.NeededFor(size, is_remote, freed) + desc.reserved;
    };
    EXPECT_EQ(plan.missing, std::max<std::int64_t>(
                                wanted(execution.freed_interrupted()) - execution.free(""), 0));
    if (plan.IsPossible() && HasPassVictims(plan) && plan.after_passes.empty()) {
        EXPECT_LT(execution.free_before_last(""), wanted(execution.interrupted_before_last()))
            << "no pass too many";
    }
    CheckWhyKept(model, plan, model.not_complete);
}

// The model of a starting server contains no open backups.
void CheckStart(Model& model) {
    model.not_complete = {};
    const EvictionPlan plan = PlanStart(model.control);
    EXPECT_EQ(plan.AllVictims(), PlanStart(model.control).AllVictims());
    ExpectReason(plan, RemovalReason::kSizeStart);
    Execution execution(model, plan);
    execution.Run();
    std::int64_t missing = 0;
    bool was_reached = true;
    for (const auto& [key, desc] : model.control.storages) {
        missing = std::max(missing, -execution.free(key));
        if (HasPassVictims(plan) && execution.free_before_last(key) < 0) was_reached = false;
    }
    EXPECT_EQ(plan.missing, missing);
    const bool is_possible = plan.IsPossible() && HasPassVictims(plan);
    EXPECT_FALSE(is_possible && was_reached) << "no pass too many";
    CheckWhyKept(model, plan, {});
}

void CheckDropOne(Dice& dice, const Model& model) {
    const int keep = dice.Number(0, 9);
    const EvictionPlan plan = PlanDropOne(model.control, keep, model.not_complete);
    EXPECT_EQ(plan.passes.size(), keep < model.control.max_count ? 1U : 0U);
    EXPECT_TRUE(plan.IsPossible());
    ExpectReason(plan, RemovalReason::kSizeDropOne);
    Execution(model, plan).Run();
}

void CheckCounts(const Model& model) {
    EvictionPlan plan;
    plan.by_count = PlanCounts(model.control.storages, model.control.full_limit,
                               model.control.daily_limit, model.not_complete);
    Execution execution(model, plan);
    const std::size_t before = execution.Count();
    execution.Run();
    EXPECT_EQ(execution.Count(), before - plan.by_count.size());
    const auto more = [&] {
        GlobalSizeControl rest;
        rest.storages = model.control.storages;
        for (const Victim& victim : plan.by_count) ForgetBackup(rest.storages, victim);
        return PlanCounts(rest.storages, model.control.full_limit, model.control.daily_limit,
                          model.not_complete);
    };
    EXPECT_EQ(more(), Victims()) << "one plan is enough";
    CheckWhyKept(model, plan, model.not_complete);
}

std::vector<unsigned> Seeds() {
    if (const char* given = std::getenv("QUARN2_CP_SEED")) {
        return {static_cast<unsigned>(std::stoul(given))};
    }
    return {1, std::random_device()()};
}

TEST(RandomPlans, KeepTheirPromises) {
    for (const unsigned seed : Seeds()) {
        std::printf("seed %u\n", seed);
        Dice dice(seed);
        for (int i = 0; i < kModels && !testing::Test::HasFailure(); ++i) {
            Model model;
            MakeModel(dice, model);
            CheckRoom(dice, model);
            CheckDropOne(dice, model);
            CheckCounts(model);
            CheckStart(model);
        }
        ASSERT_FALSE(testing::Test::HasFailure()) << "once more: QUARN2_CP_SEED=" << seed;
    }
}

}  // namespace
