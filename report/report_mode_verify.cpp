// --verify: whether the storage has the files that the info files name.

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
#include "quarn2_cp2_misc_slices.h"
#include "quarn2_cp2_misc_storage.h"
#include "report_download.h"
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
        : site_(site), storage_(storage), stored_(storage) {}

    void Run() {
        ReadBackups();
        const Options& options = site_.options;
        seed_ = options.seed.value_or(1 + std::random_device()() % kMaxSeed);
        if (options.content_share > 0) {
            chosen_ = Choose(complete_.size(), options.content_share, seed_);
            directory_.emplace();
        }
        for (std::size_t i = 0; i < complete_.size(); ++i) {
            CheckBackup(complete_[i], chosen_.contains(i));
        }
        if (options.has_orphans) CheckOrphans();
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

    void Find(const char* kind, const Backup& backup, const std::string& name,
              const std::string& detail) {
        ++problems_;
        const std::string shown = site_.names.In(name, backup.user);
        const std::string reason = site_.names.In(detail, backup.user);
        const std::string of = site_.names.Date(backup.date) + "." + site_.names.User(backup.user);
        if (site_.options.is_json) {
            Output::Json({{"problem", kind},
                          {"user", site_.names.User(backup.user)},
                          {"date", site_.names.Date(backup.date)},
                          {"name", name.empty() ? kro_json::Value() : kro_json::Value(shown)},
                          {"detail", reason}});
        }
        site_.output.Find("backup " + of + ": " + (name.empty() ? "" : "'" + shown + "' ") +
                          reason);
    }

    void CheckBackup(const Backup& backup, bool with_content) {
        try {
            const quarn2::InfoMap info = quarn2::GetInfo(backup.info_path);
            const std::vector<StoredFile> files =
                FilesOf(info, backup.user, backup.date, FindLocalFiles(backup.info_path));
            bool is_complete = true;
            for (const StoredFile& file : files) is_complete = HasFile(backup, file) && is_complete;
            if (with_content && is_complete) CheckContent(backup, info, files);
        } catch (const std::exception& error) {
            // Another process has deleted the backup since the scan.
            if (!kro_file::Exists(backup.info_path)) return;
            if (IsDown(error)) throw;
            Find("info", backup, "", error.what());
        }
    }

    bool HasFile(const Backup& backup, const StoredFile& file) {
        ++files_;
        named_.insert(file.name);
        if (stored_.Has(file.name)) return true;
        if (kro_file::Exists(backup.info_path)) {
            Find("missing", backup, file.name, "is not on the storage");
        }
        return false;
    }

    void CheckContent(const Backup& backup, const quarn2::InfoMap& info,
                      const std::vector<StoredFile>& files) {
        std::int64_t sum = 0;
        for (const StoredFile& file : files) {
            try {
                sum += directory_->Check(storage_, file.name, info.contains("key_hash"));
            } catch (const kro_err::Error& error) {
                if (IsDown(error)) throw;
                return Find("unreadable", backup, file.name,
                            "cannot be read: " + std::string(error.what()));
            }
        }
        if (sum == backup.size) return;
        Find("size", backup, "",
             "the files have " + str::Str(sum) + " bytes, the info file says " +
                 str::Str(backup.size) + "; --update of a file does not change the info file");
    }

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
            Find("orphan", orphan, name, "is on the storage, and no info file here names it");
        }
    }

    void Write() const {
        const std::string identity = StorageIdentity(TokenByEnv());
        const auto count = [](std::size_t number) { return static_cast<std::int64_t>(number); };
        if (site_.options.is_json) {
            return Output::Json({{"problem", kro_json::Value()},
                                 {"storage", identity},
                                 {"backups", count(complete_.size())},
                                 {"files", files_},
                                 {"content", count(chosen_.size())},
                                 {"seed", static_cast<std::int64_t>(seed_)},
                                 {"orphans", orphans_},
                                 {"problems", problems_}});
        }
        Table table({});
        table.Add({"storage", Escaped(identity)});
        table.Add({"backups", str::Str(complete_.size()) + ", " + str::Str(files_) + " files"});
        if (site_.options.content_share > 0) {
            table.Add({"content",
                       str::Str(chosen_.size()) + " of them downloaded, seed " + str::Str(seed_)});
        }
        if (site_.options.has_orphans) table.Add({"orphans", str::Str(orphans_)});
        table.Add({"problems", str::Str(problems_)});
        Output::Text(table.Text(0));
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
                              .content = static_cast<std::int64_t>(chosen_.size()),
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
    std::set<std::size_t> chosen_;  // the backups whose content is checked
    std::optional<DownloadDirectory> directory_;
    unsigned seed_ = 0;
    std::int64_t files_ = 0;
    std::int64_t orphans_ = 0;
    std::int64_t problems_ = 0;
};

}  // namespace

void RunVerify(Site& site) {
    const std::shared_ptr<quarn2::Storage> storage = GetStorageByEnv(site.options.path);
    ReadServerAndLedger(site);
    try {
        Verification(site, *storage).Run();
    } catch (const kro_err::Error& error) {
        throw std::runtime_error("the storage " + StorageIdentity(TokenByEnv()) +
                                 " cannot be verified: " + error.what());
    }
}
