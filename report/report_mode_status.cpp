// --status: the used space, the numbers of backups, overdue users and the server.

#include <algorithm>
#include <utility>

#include "kro/kro_clock.h"
#include "kro/str.h"
#include "report_event.h"
#include "report_figures.h"
#include "report_history.h"
#include "report_modes.h"
#include "report_text.h"
#include "report_verification.h"

namespace {

// The values that both forms of the output show.
struct Status {
    Census census;
    Space space;
    KnownLimits known;
    std::optional<std::int64_t> free;
    std::vector<Overdue> overdue;
    std::vector<Event> last_events;
    Deletions deletions;  // since the last rotation of the events file
    // When the server begins to evict for the size limit, and when it begins to refuse uploads.
    Forecast evictions;
    Forecast refusals;
    std::optional<VerificationResult> verification;  // the last one
};

void ReadHistory(Site& site, Status& status) {
    const EventSummary summary = ReadEventSummary(site);
    status.last_events = summary.LastEvents();
    if (site.options.is_json) {
        status.deletions = DeletionsSinceRotation(site, summary.deletions());
    }
    // No forecast with --user: the events of one user do not show the growth of the storage.
    if (!site.options.user.empty()) return;
    const std::vector<DaySums> days = DaysForForecast(summary, status.known);
    status.evictions = EvictionForecast(days);
    status.refusals = RefusalForecast(days, status.space.protected_bytes);
}

// The account contains the ledger's bytes of all users. With --user, replaces them with the bytes
// of this user.
void LimitToUser(Space& space, const Site& site) {
    if (site.options.user.empty()) return;
    space.unfinished = 0;
    for (const LedgerEntry& entry : site.entries) space.unfinished += entry.Bytes();
}

void ReadVerification(Site& site, Status& status) {
    try {
        status.verification = LastVerification(site.options.storage);
    } catch (const kro_err::Error& error) {
        site.output.Find(error.what());
    }
}

Status ReadStatus(Site& site) {
    Status status;
    ScanSite(site, [&](Backup&& backup) { status.census.Add(backup); });
    status.space = SpaceOf(site.account);
    LimitToUser(status.space, site);
    status.known = ChooseLimits(site.options, site.server);
    const bool has_limit = status.known.is_size_known && site.options.user.empty();
    status.free =
        FreeSpace(status.space, has_limit ? std::optional(status.known.limits.size) : std::nullopt,
                  site.server.reserved);
    ReadHistory(site, status);
    ReadVerification(site, status);
    status.overdue = FindOverdue(status.census.newest(), ReferenceTime(site.options),
                                 site.options.max_age_hours);
    return status;
}

std::string ReasonOf(const Overdue& overdue, int max_hours) {
    if (overdue.date.empty()) return "there is no complete backup";
    if (!overdue.hours) return "the date of the newest complete backup is invalid";
    return "the newest complete backup is of " + overdue.date + ", " + str::Str(*overdue.hours) +
           " hours old; the limit is " + str::Str(max_hours) + " hours";
}

void FindOverdueUsers(Site& site, const Status& status) {
    for (const Overdue& overdue : status.overdue) {
        std::string text = "user '";
        text += site.names.User(overdue.user);
        text += "' is overdue: ";
        text += ReasonOf(overdue, site.options.max_age_hours);
        site.output.Find(text);
    }
}

const char* NameOf(ServerStatus status) {
    if (status == ServerStatus::kRuns) return "runs";
    return status == ServerStatus::kChanging ? "starting or ending" : "none";
}

std::string SizeOr(std::optional<std::int64_t> size, const char* other) {
    return size ? SizeText(*size) : other;
}

std::string LimitText(const KnownLimits& known) {
    if (!known.is_size_known) return "unknown (no server runs; give --size-limit)";
    if (known.limits.size == ServerLimits::kNoSize) return "no limit";
    return SizeText(known.limits.size) + " (" + known.source + ")";
}

std::string CountLimitText(const KnownLimits& known) {
    if (!known.is_count_known) return "unknown (no server runs; give --count-limit)";
    const std::string full =
        known.limits.full == ServerLimits::kNoCount ? "any number of" : str::Str(known.limits.full);
    return full + " full and " + str::Str(known.limits.daily) + " daily of each user";
}

std::string FreeText(const Site& site, const Status& status) {
    if (!site.options.user.empty()) return "not shown with --user";
    if (!status.known.is_size_known) return "unknown";
    return SizeOr(status.free, "no limit");
}

std::string ServerText(const ServerReport& server) {
    std::string text = NameOf(server.status);
    if (server.status == ServerStatus::kRuns) {
        text +=
            ": process " + server.pid + ", since " + server.since + ", for the date " + server.date;
    }
    return text;
}

std::string DatesText(const Census& census) {
    if (census.oldest_date().empty()) return "none";
    return census.oldest_date() + " to " + census.newest_date();
}

// The number of overdue users and the first names. The findings list all of them.
std::string OverdueText(const Site& site, const std::vector<Overdue>& overdue) {
    constexpr std::size_t kShown = 5;
    std::string names;
    for (std::size_t i = 0; i < std::min(overdue.size(), kShown); ++i) {
        names = str::Append(names, Escaped(site.names.User(overdue[i].user)), ", ");
    }
    if (overdue.size() > kShown) names += ", ...";
    return str::Append(str::Str(overdue.size()), names, ": ");
}

std::string BackupsText(const Census& census) {
    std::string text = str::Str(census.full()) + " full, " + str::Str(census.daily()) + " daily";
    for (const State state : {State::kCustom, State::kFuture, State::kMisnamed, State::kUnfinished,
                              State::kBeingDeleted}) {
        const std::int64_t count = census.Count(state);
        if (count > 0) text += ", " + str::Str(count) + " " + NameOf(state);
    }
    return text;
}

std::string VerificationText(const Status& status) {
    if (!status.verification) return "never";
    const VerificationResult& last = *status.verification;
    return last.time + ": " + str::Str(last.backups) + " backups, " + str::Str(last.content) +
           " of them downloaded, " + str::Str(last.problems) + " problems";
}

void AddHistory(Table& table, const Site& site, const Status& status) {
    table.Add({"evictions begin", ForecastText(status.evictions)});
    table.Add({"refusals begin", ForecastText(status.refusals)});
    const char* title = "last events";
    for (const Event& event : status.last_events) {
        table.Add({title, EventLine(event, site.names)});
        title = "";
    }
}

void WriteText(const Site& site, const Status& status) {
    const ServerReport& server = site.server;
    Table table({});
    table.Add({"server", Escaped(ServerText(server))});
    table.Add({"storage", server.storage.empty() ? "unknown" : Escaped(server.storage)});
    if (!server.stale.empty()) table.Add({"state file", "stale: " + Escaped(server.stale)});
    table.Add({"info root", Escaped(site.names.In(site.options.path, site.options.storage))});
    table.Add({"size limit", LimitText(status.known)});
    table.Add({"count limit", CountLimitText(status.known)});
    table.Add({"used", SizeText(status.space.used)});
    table.Add({"  protected", SizeText(status.space.protected_bytes) + ", the newest chains"});
    table.Add({"  never evicted", SizeText(status.space.kept) + ", custom and other backups"});
    table.Add({"unfinished", SizeText(status.space.unfinished)});
    table.Add({"being deleted", SizeText(status.space.being_deleted)});
    table.Add({"reserved", SizeOr(server.reserved, "unknown")});
    table.Add({"free", FreeText(site, status)});
    table.Add({"users", str::Str(status.census.users())});
    table.Add({"backups", BackupsText(status.census)});
    table.Add({"dates", Escaped(DatesText(status.census))});
    table.Add({"overdue users", OverdueText(site, status.overdue)});
    table.Add({"verified", Escaped(VerificationText(status))});
    AddHistory(table, site, status);
    Output::Text(table.Text(0));
}

kro_json::Object ServerJson(const ServerReport& server) {
    const bool runs = server.status == ServerStatus::kRuns;
    return {
        {"status", NameOf(server.status)},           {"pid", OrNull(runs ? server.pid : "")},
        {"since", OrNull(runs ? server.since : "")}, {"date", OrNull(runs ? server.date : "")},
        {"storage", OrNull(server.storage)},         {"stale_state_file", OrNull(server.stale)}};
}

// A limit as JSON: null when it is unknown, the text "none" when there is no limit.
kro_json::Value LimitJson(bool is_known, std::int64_t limit, std::int64_t none) {
    if (!is_known) return {};
    return limit == none ? kro_json::Value("none") : kro_json::Value(limit);
}

kro_json::Array OverdueJson(const Site& site, const Status& status) {
    kro_json::Array users;
    for (const Overdue& overdue : status.overdue) {
        users.push_back(kro_json::Object{{"user", site.names.User(overdue.user)},
                                         {"date", OrNull(overdue.date)},
                                         {"hours", OrNull(overdue.hours)}});
    }
    return users;
}

kro_json::Object ForecastJson(const Forecast& forecast) {
    return {{"has_data", forecast.has_data},
            {"expected_days", OrNull(forecast.expected)},
            {"earliest_days", OrNull(forecast.earliest)},
            {"latest_days", OrNull(forecast.latest)}};
}

kro_json::Value VerificationJson(const Status& status) {
    if (!status.verification) return {};
    const VerificationResult& last = *status.verification;
    return kro_json::Object{{"time", last.time},       {"storage", last.storage},
                            {"backups", last.backups}, {"files", last.files},
                            {"content", last.content}, {"problems", last.problems}};
}

kro_json::Array EventsJson(const Site& site, const std::vector<Event>& events) {
    kro_json::Array array;
    for (const Event& event : events) array.push_back(EventJson(event, site.names));
    return array;
}

// Contains every reason. Otherwise a counter would first appear with its first deletion, and a
// monitoring system would see no increase.
kro_json::Object DeletionsJson(const Deletions& deletions) {
    kro_json::Object object;
    for (auto reason = static_cast<int>(RemovalReason::kUnknown);
         reason <= static_cast<int>(RemovalReason::kResumed); ++reason) {
        const auto found = deletions.find(static_cast<RemovalReason>(reason));
        const DeletionSums sums = found == deletions.end() ? DeletionSums{} : found->second;
        object.push_back({NameOf(static_cast<RemovalReason>(reason)),
                          kro_json::Object{{"backups", sums.backups}, {"bytes", sums.bytes}}});
    }
    return object;
}

kro_json::Object LimitsJson(const KnownLimits& known) {
    return {
        {"size", LimitJson(known.is_size_known, known.limits.size, ServerLimits::kNoSize)},
        {"full", LimitJson(known.is_count_known, known.limits.full, ServerLimits::kNoCount)},
        {"daily", known.is_count_known ? kro_json::Value(known.limits.daily) : kro_json::Value()}};
}

kro_json::Object BackupsJson(const Census& census) {
    return {{"full", census.full()},
            {"daily", census.daily()},
            {"custom", census.Count(State::kCustom)},
            {"future", census.Count(State::kFuture)},
            {"misnamed", census.Count(State::kMisnamed)},
            {"unfinished", census.Count(State::kUnfinished)},
            {"being_deleted", census.Count(State::kBeingDeleted)}};
}

void WriteJson(const Site& site, const Status& status) {
    Output::Json({{"date", site.date},
                  {"storage_name", OrNull(site.names.User(site.options.storage))},
                  {"info_root", site.names.In(site.options.path, site.options.storage)},
                  {"server", ServerJson(site.server)},
                  {"limits", LimitsJson(status.known)},
                  {"used", status.space.used},
                  {"protected", status.space.protected_bytes},
                  {"never_evicted", status.space.kept},
                  {"unfinished", status.space.unfinished},
                  {"being_deleted", status.space.being_deleted},
                  {"reserved", OrNull(site.server.reserved)},
                  {"free", OrNull(status.free)},
                  {"users", status.census.users()},
                  {"backups", BackupsJson(status.census)},
                  {"oldest", OrNull(status.census.oldest_date())},
                  {"newest", OrNull(status.census.newest_date())},
                  {"max_age_hours", site.options.max_age_hours},
                  {"overdue", OverdueJson(site, status)},
                  {"forecast", kro_json::Object{{"evictions", ForecastJson(status.evictions)},
                                                {"refusals", ForecastJson(status.refusals)}}},
                  {"verification", VerificationJson(status)},
                  {"deletions", DeletionsJson(status.deletions)},
                  {"last_events", EventsJson(site, status.last_events)}});
}

}  // namespace

void RunStatus(Site& site) {
    ReadServerAndLedger(site);
    const Status status = ReadStatus(site);
    FindOverdueUsers(site, status);
    if (site.options.is_json) {
        WriteJson(site, status);
    } else {
        WriteText(site, status);
    }
}
