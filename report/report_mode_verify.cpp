// --verify: whether the storage has the files that the info files name.

#include <signal.h>

#include <map>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <utility>

#include "kro/kro_date.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/str.h"
#include "quarn2/info.h"
#include "quarn2/names.h"
#include "quarn2_cp2_misc_identity.h"
#include "quarn2_cp2_misc_progress.h"
#include "quarn2_cp2_misc_slices.h"
#include "quarn2_cp2_misc_storage.h"
#include "report_content.h"
#include "report_files.h"
#include "report_modes.h"
#include "report_text.h"
#include "report_verification.h"
#include "report_verify.h"

namespace {

constexpr unsigned kMaxSeed = 1000000000;

bool IsComplete(const Backup& backup) {
    return backup.state == State::kComplete || backup.state == State::kFuture ||
           backup.state == State::kCustom;
}

std::string KeyOf(const Backup& backup) { return backup.date + "." + backup.user; }

// True for an error after which no request to the storage can succeed.
bool IsDown(const std::exception& error) {
    const auto* const known = dynamic_cast<const kro_err::Error*>(&error);
    return known != nullptr && known->kind() == kro_err::Kind::kUnavailable;
}

class Verification {
  public:
    Verification(Site& site, quarn2::Storage& storage)
        : site_(site),
          storage_(storage),
          stored_(storage),
          seed_(site.options.seed.value_or(1 + std::random_device()() % kMaxSeed)) {}

    void Run() {
        ReadBackups();
        CompareAll();
        if (site_.options.HasContent()) CheckContents();
        if (site_.options.has_orphans) CheckOrphans();
        Write();
        Keep();
    }

  private:
    void ReadBackups() {
        ScanSite(site_, [this](Backup&& backup) {
            if (IsComplete(backup)) {
                complete_.push_back(std::move(backup));
            } else {
                open_.insert(KeyOf(backup));
            }
        });
    }

    void Find(const Backup& backup, const Problem& problem) {
        ++problems_;
        const std::string& name = problem.name;
        const std::string shown = site_.names.In(name, backup.user);
        // The error message of an archiver can contain names of the user's files, so --anonymous
        // replaces it.
        const bool has_message = problem.kind == "damaged" && site_.options.is_anonymous;
        const std::string detail = has_message ? "is damaged" : problem.detail;
        const std::string reason = site_.names.In(detail, backup.user);
        const std::string of = site_.names.Date(backup.date) + "." + site_.names.User(backup.user);
        if (site_.options.is_json) {
            Output::Json({{"problem", problem.kind},
                          {"user", site_.names.User(backup.user)},
                          {"date", site_.names.Date(backup.date)},
                          {"name", name.empty() ? kro_json::Value() : kro_json::Value(shown)},
                          {"detail", reason}});
        }
        site_.output.Find("backup " + of + ": " + (name.empty() ? "" : "'" + shown + "' ") +
                          reason);
    }

    // --- Names and sizes ---

    // A job that runs may replace or delete a backup between the scan and the listing. So backups
    // with a problem are compared again, with a new listing, and only problems of the second
    // comparison are reported.
    void CompareAll() {
        std::vector<std::size_t> suspects;
        for (std::size_t i = 0; i < complete_.size(); ++i) {
            const Comparison result = CompareOne(complete_[i], true);
            if (!result.is_size_known) ++unsized_;
            if (!result.problems.empty()) suspects.push_back(i);
        }
        if (suspects.empty()) return;
        stored_.Refresh();
        for (const std::size_t i : suspects) {
            const Backup& backup = complete_[i];
            if (!IsStillComplete(backup)) continue;
            const Comparison result = CompareOne(backup, false);
            for (const Problem& problem : result.problems) Find(backup, problem);
            if (!result.problems.empty()) faulty_.insert(i);
        }
    }

    Comparison CompareOne(const Backup& backup, bool is_first) {
        try {
            const quarn2::InfoMap info = quarn2::GetInfo(backup.info_path);
            const std::vector<StoredFile> files = FilesOfBackup(backup, info);
            for (const StoredFile& file : files) named_.insert(file.name);
            if (is_first) files_ += static_cast<std::int64_t>(files.size());
            return Compare(files, SizeOf(info), stored_);
        } catch (const std::exception& error) {
            if (IsDown(error)) throw;
            return {{{"info", "", error.what()}}};
        }
    }

    std::vector<StoredFile> FilesOfBackup(const Backup& backup, const quarn2::InfoMap& info) {
        return FilesToVerify(info, backup.user, backup.date, FindLocalFiles(backup.info_path),
                             stored_);
    }

    // False when a process has deleted the backup since the scan, or is deleting or replacing it.
    bool IsStillComplete(const Backup& backup) const {
        if (!kro_file::Exists(backup.info_path)) return false;
        for (const LedgerEntry& entry : Ledger(site_.options.storage).Entries()) {
            if (entry.IsOpen() && LedgerKey(entry.name) == KeyOf(backup)) return false;
        }
        try {
            return quarn2::GetInfo(backup.info_path).contains("finished");
        } catch (const kro_err::Error&) {
            return kro_file::Exists(backup.info_path);
        }
    }

    // --- Content ---

    void CheckContents() {
        const std::vector<std::size_t> chosen = ChooseBackups();
        std::int64_t all_files = 0;
        for (const std::size_t i : chosen) all_files += CountFiles(complete_[i]);
        ProgressLine progress(all_files);
        storage_.SetObserver(&progress);
        ContentCheck check(storage_, {.file_done = [&progress] { progress.FileDone(); }});
        try {
            for (const std::size_t i : chosen) CheckContent(check, i);
        } catch (...) {
            storage_.SetObserver(nullptr);
            throw;
        }
        storage_.SetObserver(nullptr);
        content_ = static_cast<std::int64_t>(chosen.size());
        tested_ = check.tested();
        untested_ = check.untested();
        for (const Tester* const tester : check.missing()) FindMissing(*tester);
    }

    std::vector<std::size_t> ChooseBackups() {
        const Options& options = site_.options;
        std::set<std::size_t> chosen;
        if (options.content_days > 0) {
            for (std::size_t i = 0; i < complete_.size(); ++i) {
                const bool is_due =
                    IsChosenOn(site_.date, KeyOf(complete_[i]), options.content_days);
                if (is_due) chosen.insert(i);
            }
        } else {
            chosen = Choose(complete_.size(), options.content_share, seed_);
        }
        // Does not download a backup that is known to be faulty without its content, because a file
        // is missing or has another size.
        for (const std::size_t i : faulty_) chosen.erase(i);
        return {chosen.begin(), chosen.end()};
    }

    std::int64_t CountFiles(const Backup& backup) {
        try {
            const quarn2::InfoMap info = quarn2::GetInfo(backup.info_path);
            return static_cast<std::int64_t>(FilesOfBackup(backup, info).size());
        } catch (const std::exception& error) {
            if (IsDown(error)) throw;
            return 0;
        }
    }

    void CheckContent(ContentCheck& check, std::size_t index) {
        const Backup& backup = complete_[index];
        try {
            const quarn2::InfoMap info = quarn2::GetInfo(backup.info_path);
            ContentCheck::Result result =
                check.Check(FilesOfBackup(backup, info), info.contains("key_hash"));
            if (auto size = CompareSize(result.bytes, SizeOf(info))) {
                result.problems.push_back(*size);
            }
            if (result.problems.empty() || !IsStillComplete(backup)) return;
            for (const Problem& problem : result.problems) Find(backup, problem);
        } catch (const std::exception& error) {
            if (IsDown(error)) throw;
            if (IsStillComplete(backup)) Find(backup, {"info", "", error.what()});
        }
    }

    void FindMissing(const Tester& tester) {
        ++problems_;
        const std::string program = tester.command.front();
        const std::string detail = "archives '" + std::string(tester.ending) +
                                   "' were downloaded but not tested, because the program '" +
                                   program + "' is missing; install the package " +
                                   std::string(tester.package);
        if (site_.options.is_json) {
            Output::Json({{"problem", "program"},
                          {"user", kro_json::Value()},
                          {"date", kro_json::Value()},
                          {"name", program},
                          {"detail", detail}});
        }
        site_.output.Find(detail);
    }

    // --- Orphans ---

    // A file of a backup in progress is not an orphan. Reads the ledger and the info files again,
    // because the job may have begun after the first scan.
    bool IsInWork(const std::string& name) const {
        const std::string key = LedgerKey(name);
        if (open_.contains(key)) return true;
        for (const LedgerEntry& entry : Ledger(site_.options.storage).Entries()) {
            if (LedgerKey(entry.name) == key || entry.slices.contains(name)) return true;
        }
        const std::string info_path = quarn2::GetInfoFile(
            site_.options.path, quarn2::GetUserName(name), quarn2::GetDate(name));
        return !known_.contains(key) && kro_file::Exists(info_path);
    }

    void CheckOrphans() {
        for (const Backup& backup : complete_) known_.insert(KeyOf(backup));
        const std::string& user = site_.options.user;
        for (const std::string& name : stored_.Others(named_)) {
            Backup orphan;
            orphan.user = quarn2::GetUserName(kro_file::Name(name));
            orphan.date = quarn2::GetDate(kro_file::Name(name));
            if (!user.empty() && orphan.user != user) continue;
            if (IsInWork(name)) continue;
            ++orphans_;
            Find(orphan, {"orphan", name, "is on the storage, and no info file here names it"});
        }
    }

    // --- The result ---

    void Write() const {
        if (site_.options.is_json) return WriteJson();
        const Options& options = site_.options;
        Table table({});
        table.Add({"storage", Escaped(StorageIdentity(TokenByEnv()))});
        table.Add({"backups", str::Str(complete_.size()) + ", " + str::Str(files_) + " files"});
        if (unsized_ > 0) {
            table.Add({"sizes", "not compared for " + str::Str(unsized_) +
                                    ", because the storage's listing has no sizes"});
        }
        if (options.HasContent()) {
            table.Add({"content", str::Str(content_) + " of them downloaded, " + ChoiceText()});
            table.Add({"archives",
                       str::Str(tested_) + " tested, " + str::Str(untested_) + " only downloaded"});
        }
        if (options.has_orphans) table.Add({"orphans", str::Str(orphans_)});
        table.Add({"problems", str::Str(problems_)});
        Output::Text(table.Text(0));
    }

    // How the downloaded backups were chosen.
    std::string ChoiceText() const {
        const int days = site_.options.content_days;
        if (days == 0) return "seed " + str::Str(seed_);
        return "day " + str::Str(DayInRotation(site_.date, days) + 1) + " of " + str::Str(days);
    }

    void WriteJson() const {
        const auto count = [](std::size_t number) { return static_cast<std::int64_t>(number); };
        const bool is_random = site_.options.content_days == 0;
        Output::Json({{"problem", kro_json::Value()},
                      {"storage", StorageIdentity(TokenByEnv())},
                      {"backups", count(complete_.size())},
                      {"files", files_},
                      {"unsized", unsized_},
                      {"content", content_},
                      {"tested", tested_},
                      {"untested", untested_},
                      {"seed", is_random ? kro_json::Value(static_cast<std::int64_t>(seed_))
                                         : kro_json::Value()},
                      {"orphans", orphans_},
                      {"problems", problems_}});
    }

    // Does not store the result for a single user, because it does not cover the complete storage.
    void Keep() {
        const Options& options = site_.options;
        if (!options.user.empty()) return;
        try {
            KeepVerification(options.storage,
                             {.time = kro_date::DateTime::Now().AsDateTime(),
                              .storage = StorageIdentity(TokenByEnv()),
                              .backups = static_cast<std::int64_t>(complete_.size()),
                              .files = files_,
                              .content = content_,
                              .problems = problems_});
        } catch (const kro_err::Error& error) {
            site_.output.Find("the result of the verification cannot be kept: " +
                              std::string(error.what()));
        }
    }

    Site& site_;
    quarn2::Storage& storage_;
    StoredFiles stored_;
    std::vector<Backup> complete_;
    std::set<std::string> open_;    // the names DATE.USER of backups that are not complete
    std::set<std::string> known_;   // the names DATE.USER of complete backups
    std::set<std::string> named_;   // the stored files of complete backups
    std::set<std::size_t> faulty_;  // the backups with a problem other than damaged content
    unsigned seed_;
    std::int64_t files_ = 0;
    std::int64_t unsized_ = 0;   // the backups whose sizes could not be compared
    std::int64_t content_ = 0;   // the backups whose content was checked
    std::int64_t tested_ = 0;    // the archives that a program has tested
    std::int64_t untested_ = 0;  // the archives that were only downloaded
    std::int64_t orphans_ = 0;
    std::int64_t problems_ = 0;
};

}  // namespace

void RunVerify(Site& site) {
    const std::shared_ptr<quarn2::Storage> storage = GetStorageByEnv(site.options.path);
    ReadServerAndLedger(site);
    // A program that tests an archive may end before it has read its input. Without SIGPIPE, the
    // write fails with EPIPE.
    signal(SIGPIPE, SIG_IGN);
    try {
        Verification(site, *storage).Run();
    } catch (const kro_err::Error& error) {
        throw std::runtime_error("the storage " + StorageIdentity(TokenByEnv()) +
                                 " cannot be verified: " + error.what());
    }
}
