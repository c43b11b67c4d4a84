// Fuzz target: the eviction. The target compares the program with a simple implementation of the
// same rules, simple_rules.h. It checks that, from the same records, both evict the same backups in
// the same order, and that the remaining backups can be restored.
//
// Input: it creates users with records, and then selects the operations on them.
#include <algorithm>
#include <map>
#include <vector>

#include "fuzz.h"
#include "quarn2_cp2_server_plan.h"
#include "simple_rules.h"

namespace {

using fuzz::Require;
using simple_rules::Eviction;
using simple_rules::Record;
using simple_rules::Rules;
using simple_rules::User;

constexpr std::size_t kMaxUsers = 4;
constexpr std::size_t kMaxRecords = 24;

// One storage in both implementations.
class World {
  public:
    explicit World(fuzz::Input& input) : storage_(control_.AddStorage(nullptr)) {
        control_.size_limit = rules_.size_limit = 1000;
        storage_.free_size = rules_.free = 1000;
        const std::size_t users = input.Byte() % (kMaxUsers + 1);
        for (std::size_t i = 0; i < users; ++i) MakeUser("u" + std::to_string(i), input);
        for (const User& user : rules_.users) {
            const int count = static_cast<int>(user.records.size());
            rules_.max_count = std::max(rules_.max_count, count);
        }
        control_.max_count = rules_.max_count;
        RememberBases();
    }

    void Step(fuzz::Input& input) {
        evicted_.clear();
        rules_.evictions.clear();
        switch (input.Byte() % 3) {
            case 0:
                return DropOldest(static_cast<int>(input.Byte() % (kMaxRecords + 2)) - 1);
            case 1:
                return DropByCount(static_cast<int>(input.Byte() % 8),
                                   static_cast<int>(input.Byte() % 32));
            default:
                return MakeRoom(static_cast<std::int64_t>(input.Number()));
        }
    }

    void Compare() const {
        Require(evicted_ == rules_.evictions, "the same backups are evicted in the same order");
        Require(storage_.free_size == rules_.free, "the free space is the same");
        Require(control_.max_count == rules_.max_count,
                "the number of remaining passes is the same");
        Require(Survivors() == rules_.users.size(), "the same users remain");
        for (const User& user : rules_.users) CompareUser(user, storage_.users.at(user.name));
    }

  private:
    using UserDesc = GlobalSizeControl::StorageDesc::UserDesc;

    void MakeUser(const std::string& name, fuzz::Input& input) {
        std::string date = "2026-01-01";
        User user{name, {}};
        const std::size_t records = input.Byte() % (kMaxRecords + 1);
        UserDesc& desc = storage_.users[name];
        for (std::size_t i = 0; i < records; ++i) {
            const unsigned bits = input.Byte();
            for (unsigned gap = bits >> 6U; gap > 0; --gap) date = simple_rules::NextDay(date);
            date = simple_rules::NextDay(date);
            const Record record{date, static_cast<std::int64_t>(bits >> 2U & 7U), (bits & 1U) != 0,
                                (bits & 34U) == 34U};
            user.records.push_back(record);
            desc.backups[date] = {record.size, record.full ? 0 : 1, record.locked};
            storage_.free_size -= record.size;
            rules_.free -= record.size;
        }
        rules_.users.push_back(std::move(user));
    }

    // Records the base of each daily backup: the newest full backup before it.
    void RememberBases() {
        for (const User& user : rules_.users) {
            std::string base;
            for (const Record& record : user.records) {
                if (record.full) base = record.date;
                if (!record.full && !base.empty()) bases_[user.name][record.date] = base;
            }
            if (!user.records.empty()) newest_[user.name] = user.records.back().date;
        }
    }

    void Evict(const Victims& victims) {
        for (const Victim& victim : victims) {
            evicted_.push_back({victim.user, victim.date, victim.size});
            ForgetBackup(control_.storages, victim);
        }
    }

    bool ProductDropsOldest(int keep) {
        if (keep < 0) return false;
        if (keep >= control_.max_count) return true;
        Evict(PlanPass(control_.storages, keep, RemovalReason::kSizeDropOne, {}));
        --control_.max_count;
        return true;
    }

    void DropOldest(int keep) {
        Require(ProductDropsOldest(keep) == rules_.DropOldest(keep),
                "both implementations fail, or neither does");
    }

    void MakeRoom(std::int64_t wanted) {
        const EvictionPlan plan = PlanRoom(control_, "", wanted, {});
        Require(plan.IsPossible() == rules_.MakeRoom(wanted),
                "both implementations find enough space, or neither does");
        for (const Victims& pass : plan.passes) {
            if (!plan.IsPossible() && !pass.empty()) return;
            Evict(pass);
            --control_.max_count;
        }
    }

    void DropByCount(int full, int daily) {
        rules_.full_limit = full;
        rules_.daily_limit = daily;
        rules_.DropByCount();
        Evict(PlanCounts(control_.storages, full, daily, {}));
    }

    std::size_t Survivors() const { return storage_.users.size(); }

    void CompareUser(const User& user, const UserDesc& desc) const {
        Require(desc.backups.size() == user.records.size(),
                "the number of remaining records is the same");
        for (const Record& record : user.records) {
            const auto kept = desc.backups.find(record.date);
            Require(kept != desc.backups.end(), "the same records remain");
            Require(kept->second.size == record.size && (kept->second.type == 0) == record.full,
                    "the remaining records are unchanged");
        }
        CheckRestorable(user.name, desc);
    }

    // Checks against the initial records only, and uses neither implementation.
    void CheckRestorable(const std::string& name, const UserDesc& desc) const {
        const auto newest = newest_.find(name);
        if (newest == newest_.end()) return;
        Require(desc.backups.contains(newest->second), "the newest backup is not evicted");
        const auto bases = bases_.find(name);
        if (bases == bases_.end()) return;
        for (const auto& [date, backup] : desc.backups) {
            const auto base = bases->second.find(date);
            Require(base == bases->second.end() || desc.backups.contains(base->second),
                    "a full backup is not evicted before the dailies that depend on it");
        }
    }

    GlobalSizeControl control_;
    GlobalSizeControl::StorageDesc& storage_;
    Rules rules_;
    std::vector<Eviction> evicted_;
    std::map<std::string, std::map<std::string, std::string>> bases_;
    std::map<std::string, std::string> newest_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    World world(input);
    while (!input.empty()) {
        world.Step(input);
        world.Compare();
    }
    return 0;
}
