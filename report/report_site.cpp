#include "report_site.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <utility>

#include "kro/kro_date.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "quarn2/names.h"
#include "quarn2_cp2_misc_slices.h"

namespace {

// Returns the fault of a file for a finding. `reason` may contain the path and so the user's name.
// The path is replaced by the name that the report shows.
std::string FaultText(const Site& site, const std::string& path, const std::string& user,
                      std::string reason) {
    const std::string shown = site.names.Path(path);
    const std::size_t found = reason.find(path);
    if (found != reason.npos) reason.replace(found, path.size(), shown);
    return "'" + shown + "': " + site.names.In(reason, user);
}

class Collector : public ScanObserver {
  public:
    Collector(Site& site, const TakeBackup& take) : site_(site), take_(take) {}

    void Take(const std::string& path, const quarn2::InfoReader& info, ScanResult result) override {
        Backup backup = FromInfo(path, info, result);
        // Skips an unfinished backup that the ledger contains too, because the ledger contains more
        // information about it.
        if (backup.state == State::kUnfinished && IsInLedger(backup)) return;
        take_(std::move(backup));
    }

    void Fail(const std::string& path, const std::string& reason) override {
        const std::string user = quarn2::GetUserName(kro_file::Name(path));
        site_.output.Find("info file " + FaultText(site_, path, user, reason) +
                          "; a server does not start with this file: correct it, or move it away "
                          "and run --rescan");
    }

  private:
    bool IsInLedger(const Backup& backup) const {
        return std::any_of(
            site_.entries.begin(), site_.entries.end(), [&backup](const LedgerEntry& entry) {
                const Backup other = FromEntry(entry);
                return entry.IsOpen() && other.user == backup.user && other.date == backup.date;
            });
    }

    Site& site_;
    const TakeBackup& take_;
};

void CheckInfoRoot(const Site& site) {
    const Options& options = site.options;
    if (kro_file::Exists(options.path)) return;
    throw kro_err::Error(kro_err::Kind::kNotFound,
                         "info root '" + site.names.In(options.path, options.storage) +
                             "' does not exist: is --path right?");
}

// Reports a ledger entry whose text is not valid. The server reads such a text as an entry of an
// unfinished backup.
void CheckEntry(Site& site, const Ledger& ledger, const LedgerEntry& entry) {
    const std::string path = kro_file::ConcatPath(ledger.directory(), entry.name);
    const std::string user = FromEntry(entry).user;
    std::string reason;
    try {
        if (!IsBroken(entry, kro_file::Read(path))) return;
        reason =
            "the file does not contain a valid entry; the backup counts as unfinished. Repeat its "
            "job, or delete the backup";
    } catch (const kro_err::Error& error) {
        // A backup may have become complete since the directory was listed.
        if (error.kind() == kro_err::Kind::kNotFound) return;
        reason = error.what();
    }
    site.output.Find("ledger entry " + FaultText(site, path, user, reason));
}

void ReadLedger(Site& site) {
    const Ledger ledger(site.options.storage);
    try {
        if (kro_file::Exists(ledger.directory())) kro_file::CheckOurDirectory(ledger.directory());
    } catch (const kro_err::Error& error) {
        site.output.Find("the ledger cannot be used, so unfinished backups are not shown: " +
                         std::string(error.what()));
        return;
    }
    for (LedgerEntry& entry : ledger.Entries()) {
        const bool is_of_storage = site.server.storage.empty() || entry.IsOf(site.server.storage);
        const bool is_of_user =
            site.options.user.empty() || FromEntry(entry).user == site.options.user;
        if (!is_of_storage || !is_of_user) continue;
        CheckEntry(site, ledger, entry);
        site.entries.push_back(std::move(entry));
    }
}

}  // namespace

Site::Site(const Options& chosen)
    : options(chosen),
      names(chosen.is_anonymous, chosen.is_anonymous ? HashKey() : ""),
      date(chosen.date.empty() ? kro_date::Date::Today().AsDate() : chosen.date) {}

void ReadServerAndLedger(Site& site) {
    const ServerFacts facts = ReadServerFacts(site.options.storage);
    site.server = Conclude(facts);
    if (!facts.state_fault.empty()) site.output.Find("state file: " + facts.state_fault);
    ReadLedger(site);
}

void ScanSite(Site& site, const TakeBackup& take) {
    CheckInfoRoot(site);
    const KnownLimits known = ChooseLimits(site.options, site.server);
    GlobalSizeControl& account = site.account;
    account.path = site.options.path;
    account.size_limit = known.limits.size;
    account.full_limit = known.limits.full;
    account.daily_limit = known.limits.daily;
    account.date = site.date;
    account.AddStorage(nullptr);
    account.unfinished = UnfinishedBackups(
        Ledger(site.options.storage),
        site.server.storage.empty() ? std::nullopt : std::optional(site.server.storage));
    Collector collector(site, take);
    account.Scan(site.date, &collector, site.options.user);
    for (const LedgerEntry& entry : site.entries) take(FromEntry(entry));
}

KnownLimits ChooseLimits(const Options& options, const ServerReport& server) {
    KnownLimits known;
    const bool has_option = !options.size_limit.empty();
    const std::string& size = has_option ? options.size_limit : server.size_limit;
    const std::string& count =
        options.count_limit.empty() ? server.count_limit : options.count_limit;
    known.is_size_known = !size.empty();
    known.is_count_known = !count.empty();
    known.source = has_option ? "options" : known.is_size_known ? "server" : "";
    known.limits = ServerLimits::Parse(count, size);
    return known;
}

kro_date::DateTime ReferenceTime(const Options& options) {
    if (options.date.empty()) return kro_date::DateTime::Now();
    return kro_date::DateTime(options.date + " 00:00:00");
}

LocalFiles FindLocalFiles(const std::string& info_path) {
    constexpr std::string_view kInfo = ".info";
    LocalFiles local;
    local.info_name = quarn2::GetStoredName(info_path);
    const std::string stem = info_path.substr(0, info_path.size() - kInfo.size());
    for (const char* ending : kIndexEndings) {
        const std::string index = stem + ending;
        if (!kro_file::Exists(index)) continue;
        local.index_name = quarn2::GetStoredName(index);
        local.index_size = kro_file::Size(index);
        break;
    }
    return local;
}

bool IsBroken(const LedgerEntry& entry, const std::string& text) {
    return !text.empty() && entry.slices.empty() && entry.info.empty();
}
