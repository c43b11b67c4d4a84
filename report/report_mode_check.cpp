// --check: one line and an exit status for a monitoring system.

#include <algorithm>
#include <exception>
#include <utility>

#include "kro/kro_clock.h"
#include "kro/kro_date.h"
#include "report_chain.h"
#include "report_check.h"
#include "report_figures.h"
#include "report_history.h"
#include "report_modes.h"
#include "report_text.h"

namespace {

std::string BackupName(const Site& site, const std::string& user, const std::string& date) {
    return site.names.Date(date) + "." + site.names.User(user);
}

void AddBackups(Site& site, CheckFacts& facts) {
    Census census;
    std::vector<Backup> backups;
    ScanSite(site, [&](Backup&& backup) {
        census.Add(backup);
        backups.push_back(std::move(backup));
    });
    for (const UserBackups& user : GroupByUser(std::move(backups))) {
        for (const Backup& backup : NotRestorable(user)) {
            facts.not_restorable.push_back(BackupName(site, backup.user, backup.date));
        }
    }
    const kro_date::DateTime now = ReferenceTime(site.options);
    for (const Overdue& one : FindOverdue(census.newest(), now, facts.max_age_hours)) {
        facts.overdue.push_back(site.names.User(one.user));
    }
    facts.users = census.users();
    facts.backups = census.full() + census.daily();
}

void AddAccount(const Site& site, CheckFacts& facts) {
    const Space space = SpaceOf(site.account);
    const KnownLimits known = ChooseLimits(site.options, site.server);
    facts.used = space.used;
    facts.unfinished = space.unfinished;
    facts.reserved = site.server.reserved;
    if (known.is_size_known && known.limits.size != ServerLimits::kNoSize) {
        facts.limit = known.limits.size;
    }
}

// Counts the events of the last max_age_hours. A job that still fails writes new ones.
bool IsRecent(const Event& event, int max_age_hours) {
    constexpr std::int64_t kHourMs = 3600000;
    return event.time >= kro_date::SystemNowMs() - max_age_hours * kHourMs;
}

void AddEvents(Site& site, CheckFacts& facts) {
    const EventSummary summary = ReadEventSummary(site);
    for (const auto& [user, event] : summary.refused()) {
        if (IsRecent(event, facts.max_age_hours)) facts.refused.push_back(site.names.User(user));
    }
    for (const auto& [backup, event] : summary.failed_deletions()) {
        if (!IsRecent(event, facts.max_age_hours)) continue;
        facts.failed_deletions.push_back(BackupName(site, backup.first, backup.second));
    }
    facts.depth = DepthForecast(DaysForForecast(summary, ChooseLimits(site.options, site.server)),
                                facts.min_days);
}

CheckFacts ReadFacts(Site& site) {
    CheckFacts facts;
    facts.max_age_hours = site.options.max_age_hours;
    facts.min_days = site.options.min_days;
    try {
        ReadServerAndLedger(site);
        AddBackups(site, facts);
        AddAccount(site, facts);
        AddEvents(site, facts);
    } catch (const std::exception& error) {
        site.output.Find(error.what());
    }
    facts.unreadable = site.output.findings();
    return facts;
}

kro_json::Array TextsJson(const std::vector<std::string>& texts) {
    return {texts.begin(), texts.end()};
}

void WriteJson(const CheckResult& result, const CheckFacts& facts) {
    Output::Json({{"status", NameOf(result.severity)},
                  {"exit_status", static_cast<int>(result.severity)},
                  {"problems", TextsJson(result.problems)},
                  {"overdue", TextsJson(facts.overdue)},
                  {"refused", TextsJson(facts.refused)},
                  {"failed_deletions", TextsJson(facts.failed_deletions)},
                  {"not_restorable", TextsJson(facts.not_restorable)},
                  {"unreadable", TextsJson(facts.unreadable)},
                  {"users", facts.users},
                  {"backups", facts.backups},
                  {"used", facts.used},
                  {"unfinished", facts.unfinished},
                  {"limit", OrNull(facts.limit)},
                  {"reserved", OrNull(facts.reserved)}});
}

}  // namespace

void RunCheck(Site& site) {
    const CheckFacts facts = ReadFacts(site);
    const CheckResult result = Decide(facts);
    site.output.SetStatus(static_cast<int>(result.severity));
    if (site.options.is_json) {
        WriteJson(result, facts);
    } else {
        Output::Text(CheckLine(result, facts) + "\n");
    }
}
