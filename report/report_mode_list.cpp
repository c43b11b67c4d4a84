// --list: every backup, by user and chain.

#include <utility>

#include "kro/str.h"
#include "quarn2_cp2_misc_slices.h"
#include "report_chain.h"
#include "report_modes.h"
#include "report_text.h"

namespace {

std::vector<Backup> ReadBackups(Site& site) {
    std::vector<Backup> backups;
    ScanSite(site, [&](Backup&& backup) { backups.push_back(std::move(backup)); });
    return backups;
}

const char* TypeOf(const Backup& backup) {
    if (backup.date == "custom") return "custom";
    return backup.is_full ? "full" : "daily";
}

std::string AgeText(const Backup& backup, const std::string& reference) {
    const auto days = AgeInDays(backup, reference);
    return days ? str::Str(*days) : "-";
}

std::string OrDash(const std::string& text) { return text.empty() ? "-" : Escaped(text); }

std::string StateText(const Backup& backup) {
    if (backup.is_marked_deleted) return std::string(NameOf(backup.state)) + ", marked as deleted";
    return NameOf(backup.state);
}

// `type`: the type of the backup, with blanks before it that show its place in the chain.
std::vector<std::string> RowOf(const Site& site, const Backup& backup, const std::string& type) {
    return {Escaped(site.names.Date(backup.date)),
            type,
            SizeText(backup.size),
            AgeText(backup, site.date),
            OrDash(backup.finished.empty() ? backup.created : backup.finished),
            OrDash(backup.node),
            StateText(backup)};
}

void AddChain(Table& table, const Site& site, const Chain& chain) {
    if (!chain.has_full) {
        table.Add({"dailies without a full backup, which cannot be restored:"});
    }
    for (const Backup& backup : chain.backups) {
        table.Add(RowOf(site, backup, backup.is_full ? "full" : "  daily"));
    }
}

std::string UserText(const Site& site, const UserBackups& group) {
    constexpr std::size_t kSizeColumn = 2;
    constexpr std::size_t kAgeColumn = 3;
    constexpr std::size_t kIndent = 2;
    Table table({kSizeColumn, kAgeColumn});
    table.Add({"date", "type", "size", "days", "finished", "node", "state"});
    for (const Chain& chain : group.chains) AddChain(table, site, chain);
    for (const Backup& backup : group.others) table.Add(RowOf(site, backup, TypeOf(backup)));
    const std::string user = group.user.empty() ? "(no user)" : site.names.User(group.user);
    return Escaped(user) + "\n" + table.Text(kIndent);
}

// The info file can contain the name of any archive. The report shows only the file name of an
// archive that does not belong to the backup, because its directory can have the name of a user.
std::string ArchiveText(const Site& site, const Backup& backup) {
    const bool is_own = !backup.user.empty() &&
                        LedgerKey(backup.archive + ".info") == backup.date + "." + backup.user;
    return is_own ? site.names.In(backup.archive, backup.user) : site.names.Path(backup.archive);
}

kro_json::Object JsonOf(const Site& site, const Backup& backup, const std::string& chain) {
    const auto days = AgeInDays(backup, site.date);
    return {{"user", site.names.User(backup.user)},
            {"date", site.names.Date(backup.date)},
            {"type", TypeOf(backup)},
            {"state", NameOf(backup.state)},
            {"marked_deleted", backup.is_marked_deleted},
            {"chain", OrNull(chain)},
            {"size", backup.size},
            {"age_days", days ? kro_json::Value(*days) : kro_json::Value()},
            {"created", OrNull(backup.created)},
            {"finished", OrNull(backup.finished)},
            {"node", OrNull(backup.node)},
            {"archive", OrNull(ArchiveText(site, backup))},
            {"info", OrNull(site.names.Path(backup.info_path))}};
}

void WriteJson(const Site& site, const UserBackups& group) {
    for (const Chain& chain : group.chains) {
        const std::string full = chain.has_full ? chain.backups.front().date : "";
        for (const Backup& backup : chain.backups) Output::Json(JsonOf(site, backup, full));
    }
    for (const Backup& backup : group.others) Output::Json(JsonOf(site, backup, ""));
}

}  // namespace

void RunList(Site& site) {
    ReadServerAndLedger(site);
    const std::vector<UserBackups> groups = GroupByUser(ReadBackups(site));
    if (groups.empty() && !site.options.is_json) Output::Text("no backups are known here\n");
    for (const UserBackups& group : groups) {
        if (site.options.is_json) {
            WriteJson(site, group);
        } else {
            Output::Text(UserText(site, group));
        }
    }
}
