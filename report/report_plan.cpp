#include "report_plan.h"

#include <algorithm>

#include "kro/kro_file.h"
#include "quarn2/names.h"
#include "report_backup.h"

namespace {

using StorageDesc = GlobalSizeControl::StorageDesc;

constexpr const char* kCommon = "";  // the key of the storage that all nodes share
constexpr std::int32_t kFull = 0;
constexpr std::int32_t kDaily = 1;

void Apply(GlobalSizeControl& account, const Victims& victims) {
    for (const Victim& victim : victims) {
        StorageDesc& desc = account.storages.at(victim.storage);
        if (victim.is_interrupted) {
            desc.unfinished = LessSize(desc.unfinished, victim.size);
        } else {
            ForgetBackup(account.storages, victim);
        }
    }
}

// Changes the account as the execution of the plan does, and adds the victims to the step.
void Execute(GlobalSizeControl& account, const EvictionPlan& plan, PlanStep& step) {
    Apply(account, plan.by_count);
    for (const Victims& pass : plan.passes) {
        Apply(account, pass);
        --account.max_count;
    }
    Apply(account, plan.after_passes);
    const Victims all = plan.AllVictims();
    step.victims.insert(step.victims.end(), all.begin(), all.end());
}

// A starting server first finishes interrupted deletions. It cancels a deletion that has not
// removed a file yet. The plan contains this deletion nevertheless, because only a request to the
// storage could show that no file is removed.
Victims InterruptedDeletions(GlobalSizeControl& account) {
    Victims victims;
    for (auto& [key, desc] : account.storages) {
        for (const auto& [path, size] : desc.half_deleted) {
            const std::string name = kro_file::Name(path);
            victims.push_back({key, quarn2::GetUserName(name), quarn2::GetDate(name),
                               std::max<std::int64_t>(size, 0), kDaily, RemovalReason::kResumed});
        }
        desc.half_deleted.clear();
    }
    return victims;
}

PlanStep PlanTheStart(GlobalSizeControl& account) {
    PlanStep step;
    step.kind = PlanStep::Kind::kStart;
    step.victims = InterruptedDeletions(account);
    const EvictionPlan plan = PlanStart(account);
    step.missing = plan.missing;
    if (step.IsPossible()) Execute(account, plan, step);
    return step;
}

// Slices that belong to no complete backup are removed before any backup is evicted.
void Reclaim(GlobalSizeControl& account, std::int64_t bytes, PlanStep& step) {
    StorageDesc& desc = account.storages.at(kCommon);
    const auto has_room = [&] {
        return desc.NeededFor(bytes, false) <= LessSize(desc.free_size, desc.reserved);
    };
    if (desc.unfinished == 0 || has_room()) return;
    for (const LedgerEntry& entry : account.unfinished.Reclaimable(account.date)) {
        const Backup backup = FromEntry(entry);
        const std::int64_t size = account.unfinished.BytesOf(entry);
        step.victims.push_back({kCommon, backup.user, backup.date, size,
                                backup.is_full ? kFull : kDaily, RemovalReason::kIncomplete});
        desc.unfinished = LessSize(desc.unfinished, size);
        if (has_room()) return;
    }
}

// The server refuses an upload that would not fit even after the deletion of all removable backups.
std::int64_t MissingFor(const StorageDesc& desc, const EvictionPlan& plan, std::int64_t bytes) {
    if (desc.NeededFor(bytes, false) != bytes) return plan.missing;
    return std::max(plan.missing, LessSize(bytes, LessSize(desc.limit, desc.reserved)));
}

// Counts the completed backup as the server does.
void Complete(GlobalSizeControl& account, const PlannedUpload& upload) {
    StorageDesc& desc = account.storages.at(kCommon);
    auto& backup = desc.users[upload.user].backups[account.date];
    backup.size = upload.bytes;
    backup.type = upload.is_full ? kFull : kDaily;
    desc.free_size = LessSize(desc.free_size, upload.bytes);
}

PlanStep PlanTheUpload(GlobalSizeControl& account, const PlannedUpload& upload,
                       NotComplete not_complete) {
    PlanStep step;
    step.kind = PlanStep::Kind::kUpload;
    if (!upload.user.empty()) not_complete.open[upload.user].insert(account.date);
    Reclaim(account, upload.bytes, step);
    const EvictionPlan plan = PlanRoom(account, kCommon, upload.bytes, not_complete);
    step.missing =
        std::max<std::int64_t>(MissingFor(account.storages.at(kCommon), plan, upload.bytes), 0);
    if (!step.IsPossible()) return step;
    Execute(account, plan, step);
    if (!upload.user.empty()) Complete(account, upload);
    return step;
}

PlanStep PlanTheEnd(GlobalSizeControl& account, const NotComplete& not_complete) {
    PlanStep step;
    step.kind = PlanStep::Kind::kEnd;
    EvictionPlan plan;
    plan.by_count =
        PlanCounts(account.storages, account.full_limit, account.daily_limit, not_complete);
    Execute(account, plan, step);
    return step;
}

}  // namespace

ServerPlan PlanServer(GlobalSizeControl& account, const std::optional<PlannedUpload>& upload) {
    ServerPlan plan;
    NotComplete not_complete = FindNotComplete(account);
    plan.steps.push_back(PlanTheStart(account));
    if (plan.steps.back().IsPossible() && upload) {
        plan.steps.push_back(PlanTheUpload(account, *upload, not_complete));
        not_complete.open[upload->user].erase(account.date);
        not_complete.interrupted[upload->user].erase(account.date);
    }
    if (plan.steps.back().IsPossible()) plan.steps.push_back(PlanTheEnd(account, not_complete));
    plan.kept = WhyKept(account.storages, {}, not_complete);
    return plan;
}

std::optional<std::int64_t> TypicalSize(const Backups& backups, bool is_full) {
    std::vector<std::int64_t> sizes;
    for (const auto& [date, backup] : backups) {
        const bool is_of_type = backup.type == (is_full ? kFull : kDaily);
        if (is_of_type && backup.size > 0) sizes.push_back(backup.size);
    }
    if (sizes.empty()) return std::nullopt;
    const auto middle = sizes.begin() + static_cast<std::ptrdiff_t>(sizes.size() / 2);
    std::nth_element(sizes.begin(), middle, sizes.end());
    return *middle;
}
