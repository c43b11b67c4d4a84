// --plan: which backups a server would delete, and why the others stay.

#include <set>
#include <stdexcept>
#include <utility>

#include "kro/str.h"
#include "report_event.h"
#include "report_modes.h"
#include "report_plan.h"
#include "report_text.h"

namespace {

// A backup is identified by its user and date.
using Key = std::pair<std::string, std::string>;

// The plan and the additional data for the output.
struct Plan {
    ServerPlan server;
    std::optional<PlannedUpload> upload;
    bool is_typical = false;  // the size of the upload is that of a usual backup
    KnownLimits known;
    std::set<Key> complete;      // the complete backups with info files
    std::vector<Backup> others;  // the backups that no plan contains
};

[[noreturn]] void ThrowUnknownLimits() {
    throw std::runtime_error(
        "the limits are unknown, because no server runs: give the --size-limit and --count-limit "
        "with which the server will be started");
}

// Plans without count limits when neither an option nor a running server sets them.
void SetLimits(GlobalSizeControl& account, const KnownLimits& known) {
    if (known.is_count_known) return;
    account.full_limit = ServerLimits::kNoCount;
    account.daily_limit = ServerLimits::kNoCount;
}

PlannedUpload UploadOf(const Site& site, bool& is_typical) {
    const Options& options = site.options;
    PlannedUpload upload{options.bytes.value_or(0), options.for_user, options.is_for_full};
    is_typical = !options.bytes;
    if (!is_typical) return upload;
    const auto& users = site.account.storages.at("").users;
    const auto user = users.find(options.for_user);
    const auto size =
        user == users.end() ? std::nullopt : TypicalSize(user->second.backups, upload.is_full);
    if (!size) {
        throw std::runtime_error("user '" + site.names.User(options.for_user) + "' has no " +
                                 (upload.is_full ? "full" : "daily") +
                                 " backup from which the size could be taken: give --bytes");
    }
    upload.bytes = *size;
    return upload;
}

Plan ReadPlan(Site& site) {
    Plan plan;
    plan.known = ChooseLimits(site.options, site.server);
    if (!plan.known.is_size_known && !plan.known.is_count_known) ThrowUnknownLimits();
    ScanSite(site, [&](Backup&& backup) {
        if (backup.state == State::kComplete) {
            plan.complete.emplace(backup.user, backup.date);
        } else if (backup.state != State::kBeingDeleted && backup.state != State::kLeftover) {
            plan.others.push_back(std::move(backup));
        }
    });
    SetLimits(site.account, plan.known);
    if (site.options.bytes || !site.options.for_user.empty()) {
        plan.upload = UploadOf(site, plan.is_typical);
    }
    plan.server = PlanServer(site.account, plan.upload);
    return plan;
}

// False for a record of size 0, which stands for a day without a backup, and for the backup that
// the planned upload creates.
bool IsShown(const Plan& plan, const Kept& kept) {
    return plan.complete.contains({kept.user, kept.date});
}

bool IsShown(const Plan& plan, const Victim& victim) {
    const bool is_record = !victim.is_interrupted && victim.reason != RemovalReason::kResumed &&
                           victim.reason != RemovalReason::kIncomplete;
    return !is_record || plan.complete.contains({victim.user, victim.date});
}

const char* TypeText(std::int32_t type) { return type == 0 ? "full" : "daily"; }

const char* WhyNeverEvicted(State state) {
    switch (state) {
        case State::kFuture:
            return "its date is in the future";
        case State::kCustom:
            return "custom backups are never evicted";
        case State::kMisnamed:
            return "its info file is not named DATE.USER.info";
        default:
            return "it is not complete";
    }
}

std::string MissingText(const PlanStep& step) {
    const std::string begin = SizeText(step.missing) + " are missing (" + str::Str(step.missing) +
                              " bytes) even after all possible evictions, so ";
    return begin + (step.kind == PlanStep::Kind::kStart
                        ? "the server does not start and evicts nothing"
                        : "the upload is refused and nothing is evicted for it");
}

void FindImpossible(Site& site, const Plan& plan) {
    for (const PlanStep& step : plan.server.steps) {
        if (!step.IsPossible()) site.output.Find(MissingText(step));
    }
}

std::string UploadText(const Site& site, const Plan& plan) {
    const PlannedUpload& upload = *plan.upload;
    if (upload.user.empty()) return "an upload of " + SizeText(upload.bytes);
    return std::string("a ") + (upload.is_full ? "full" : "daily") + " backup of " +
           Escaped(site.names.User(upload.user)) + ", " + SizeText(upload.bytes) +
           (plan.is_typical ? " (the median of its backups)" : "");
}

std::string TitleOf(const Site& site, const Plan& plan, const PlanStep& step) {
    switch (step.kind) {
        case PlanStep::Kind::kStart:
            return "at the start of a server";
        case PlanStep::Kind::kUpload:
            return "for " + UploadText(site, plan);
        case PlanStep::Kind::kEnd:
            break;
    }
    return "at the end of the server";
}

constexpr std::size_t kIndent = 2;

void WriteStep(const Site& site, const Plan& plan, const PlanStep& step) {
    constexpr std::size_t kNumberColumn = 0;
    constexpr std::size_t kSizeColumn = 4;
    Table table({kNumberColumn, kSizeColumn});
    int number = 0;
    for (const Victim& victim : step.victims) {
        if (!IsShown(plan, victim)) continue;
        table.Add({str::Str(++number), Escaped(site.names.User(victim.user)),
                   Escaped(site.names.Date(victim.date)), TypeText(victim.type),
                   SizeText(victim.size), TextOf(victim.reason)});
    }
    Output::Text(TitleOf(site, plan, step) + "\n" + table.Text(kIndent));
    if (number == 0 && step.IsPossible()) Output::Text("  nothing is deleted\n");
    if (!step.IsPossible()) Output::Text("  impossible: " + MissingText(step) + "\n");
}

void WriteKept(const Site& site, const Plan& plan) {
    constexpr std::size_t kSizeColumn = 3;
    Table table({kSizeColumn});
    for (const Kept& kept : plan.server.kept) {
        if (!IsShown(plan, kept)) continue;
        table.Add({Escaped(site.names.User(kept.user)), Escaped(site.names.Date(kept.date)),
                   TypeText(kept.type), SizeText(kept.size), TextOf(kept.reason)});
    }
    for (const Backup& backup : plan.others) {
        table.Add({Escaped(site.names.User(backup.user)), Escaped(site.names.Date(backup.date)),
                   backup.is_full ? "full" : "daily", SizeText(backup.size),
                   WhyNeverEvicted(backup.state)});
    }
    Output::Text("kept\n" + table.Text(kIndent));
}

std::string LimitsText(const KnownLimits& known) {
    std::string size = "unknown, so no backup is evicted for it";
    if (known.is_size_known) {
        size = known.limits.size == ServerLimits::kNoSize ? "none" : SizeText(known.limits.size);
    }
    std::string count = "unknown, so no backup is evicted for it";
    if (known.is_count_known) {
        count = (known.limits.full == ServerLimits::kNoCount ? "any number of"
                                                             : str::Str(known.limits.full)) +
                " full and " + str::Str(known.limits.daily) + " daily of each user";
    }
    return "size limit   " + size + "\ncount limit  " + count + "\n";
}

void WriteText(const Site& site, const Plan& plan) {
    Output::Text(LimitsText(plan.known));
    for (const PlanStep& step : plan.server.steps) WriteStep(site, plan, step);
    WriteKept(site, plan);
}

const char* NameOf(PlanStep::Kind kind) {
    if (kind == PlanStep::Kind::kStart) return "start";
    return kind == PlanStep::Kind::kUpload ? "upload" : "end";
}

kro_json::Object BackupJson(const Site& site, const char* step, const char* action,
                            const std::string& user, const std::string& date) {
    return {{"step", step},
            {"action", action},
            {"user", site.names.User(user)},
            {"date", site.names.Date(date)}};
}

void WriteBackupJson(kro_json::Object object, const char* type, std::int64_t size,
                     const char* reason) {
    object.push_back({"type", type});
    object.push_back({"size", size});
    object.push_back({"reason", reason});
    Output::Json(std::move(object));
}

void WriteStepJson(const Site& site, const Plan& plan, const PlanStep& step) {
    const bool is_upload = step.kind == PlanStep::Kind::kUpload;
    Output::Json({{"step", NameOf(step.kind)},
                  {"action", step.IsPossible() ? "possible" : "impossible"},
                  {"bytes", is_upload ? kro_json::Value(plan.upload->bytes) : kro_json::Value()},
                  {"missing", step.missing}});
    for (const Victim& victim : step.victims) {
        if (!IsShown(plan, victim)) continue;
        WriteBackupJson(BackupJson(site, NameOf(step.kind), "delete", victim.user, victim.date),
                        TypeText(victim.type), victim.size, NameOf(victim.reason));
    }
}

void WriteJson(const Site& site, const Plan& plan) {
    for (const PlanStep& step : plan.server.steps) WriteStepJson(site, plan, step);
    const char* const end = NameOf(PlanStep::Kind::kEnd);
    for (const Kept& kept : plan.server.kept) {
        if (!IsShown(plan, kept)) continue;
        WriteBackupJson(BackupJson(site, end, "keep", kept.user, kept.date), TypeText(kept.type),
                        kept.size, TextOf(kept.reason));
    }
    for (const Backup& backup : plan.others) {
        WriteBackupJson(BackupJson(site, end, "keep", backup.user, backup.date),
                        backup.is_full ? "full" : "daily", backup.size,
                        WhyNeverEvicted(backup.state));
    }
}

}  // namespace

void RunPlan(Site& site) {
    ReadServerAndLedger(site);
    const Plan plan = ReadPlan(site);
    FindImpossible(site, plan);
    if (site.options.is_json) {
        WriteJson(site, plan);
    } else {
        WriteText(site, plan);
    }
}
