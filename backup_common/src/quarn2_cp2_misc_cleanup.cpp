#include "quarn2_cp2_misc_cleanup.h"

#include <algorithm>
#include <optional>
#include <set>
#include <stdexcept>
#include <vector>

#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/str.h"
#include "quarn2/info.h"
#include "quarn2/names.h"
#include "quarn2/token.h"
#include "quarn2_cp2_ledger.h"
#include "quarn2_cp2_misc_delete.h"
#include "quarn2_cp2_misc_events.h"
#include "quarn2_cp2_misc_identity.h"
#include "quarn2_cp2_misc_prefix.h"
#include "quarn2_cp2_misc_removal.h"
#include "quarn2_cp2_misc_slices.h"
#include "quarn2_cp2_misc_storage.h"

namespace {

constexpr kro_log::Module kLog("main");
constexpr const char* kWhy = "incomplete backup";
constexpr const char* kCustom = "custom";

struct Line {
    std::string text;
    quarn2::BackupToken token;
    std::string prefix;
};

Line ParseLine(const std::string& text) {
    std::string prefix = text;
    const std::string token = str::badchars::Unescape(str::GetWord(prefix, "\t"), '\\');
    return {text, quarn2::BackupToken(token), prefix};
}

std::string ListPath(const std::string& dir) { return kro_file::ConcatPath(dir, ".cleanup"); }

// Reads the list of incomplete backups. Returns nothing when the list is missing, or when another
// user could have written it, because its lines decide which files are removed.
std::optional<std::string> ReadList(const std::string& path) {
    try {
        return kro_file::ReadOurs(path);
    } catch (const kro_err::Error& error) {
        if (error.kind() != kro_err::Kind::kNotFound) {
            KRO_LOG(kLog, 3, "List of incomplete backups is ignored: %s", error.what());
        }
        return std::nullopt;
    }
}

void WriteList(const std::string& dir, const std::string& lines) {
    const std::string path = ListPath(dir);
    if (!lines.empty()) return kro_file::Write(path, lines);
    if (!kro_file::Exists(path)) return;
    kro_file::RemoveFile(path);
    // Makes the removal of the list durable. A line that reappears after a crash could refer to a
    // backup that a job has made again since.
    kro_file::SyncDir(dir);
}

// Removes the lines for which `takes` returns true, and empty lines. Reads the list again, because
// another process may have changed the list since the caller has read it. Returns true when the
// list still exists.
template <class Takes>
bool RemoveLines(const std::string& dir, const Takes& takes) {
    std::optional<std::string> lines = ReadList(ListPath(dir));
    if (!lines) return kro_file::Exists(ListPath(dir));
    const std::string all = *lines;
    std::string kept;
    while (!lines->empty()) {
        const std::string text = str::GetWord(*lines, "\n");
        if (!text.empty() && !takes(text)) kept += text + "\n";
    }
    if (kept.empty() || kept != all) WriteList(dir, kept);
    return !kept.empty();
}

// The prefix of an archive's files: the archive's name without its type letter.
std::string PrefixOf(const std::string& entry_name) {
    return IsArchive(entry_name) ? entry_name.substr(1) : entry_name;
}

// The prefix may have a slice number, because the list has a line for each slice of an archive.
bool IsPrefixOf(const std::string& prefix, const std::string& backup) {
    return prefix == backup || quarn2::StripSliceNumber(prefix) == backup;
}

// The archives of complete backups whose files have this prefix. When a backup becomes complete,
// its lines are removed from the list, so a line never refers to a complete backup.
std::vector<std::string> CompleteArchives(quarn2::Storage& storage, const std::string& dir,
                                          const std::string& prefix) {
    std::vector<std::string> archives;
    // The system ends a path at a NUL byte, so the path below would refer to another file.
    if (prefix.find('\0') != std::string::npos) return archives;
    const std::string backup = quarn2::StripSliceNumber(prefix);
    for (const std::string& date : {quarn2::GetDate(backup), std::string(kCustom)}) {
        const std::string info_path = quarn2::GetInfoFile(dir, quarn2::GetUserName(backup), date);
        if (!kro_file::Exists(info_path)) continue;
        const quarn2::InfoMap info = quarn2::GetInfo(info_path);
        std::string archive = ArchiveOf(info);
        if (PrefixOf(archive) == backup && IsCompleteOnStorage(storage, info_path, info)) {
            archives.push_back(std::move(archive));
        }
    }
    return archives;
}

// Returns true when the entry may belong to this archive. A deletion on a full disk creates an
// entry that has the name of the backup instead of its archive (see Removal).
bool IsOfArchive(const LedgerEntry& entry, const std::string& archive) {
    if (entry.name == archive) return true;
    return entry.is_unknown && !IsArchive(entry.name) && LedgerKey(archive) == entry.name;
}

// The unfinished backups to which a line of the list refers. All backups of a user and day have the
// same prefix, independent of their type, and one of them may be complete.
class IncompleteBackups {
  public:
    IncompleteBackups(const Ledger& ledger, const Line& line, quarn2::Storage& storage,
                      const std::string& dir)
        : ledger_(ledger), complete_(CompleteArchives(storage, dir, line.prefix)) {
        const std::string identity = StorageIdentity(line.token);
        for (LedgerEntry& entry : ledger.Entries()) {
            if (!entry.completed.empty() || !entry.IsOf(identity)) continue;
            if (IsPrefixOf(line.prefix, PrefixOf(entry.name))) entries_.push_back(std::move(entry));
        }
        std::erase_if(complete_, [this](const std::string& archive) { return IsInWork(archive); });
    }

    const std::vector<LedgerEntry>& entries() const noexcept { return entries_; }

    // True for a file of the unfinished backups. If the ledger has no entry for them, an older
    // version or another machine has made them. In this case, returns true for every file that does
    // not belong to a complete backup. The caller checks the prefix.
    bool Has(const std::string& name) const {
        const std::string stem = quarn2::StripSliceNumber(name);
        const bool is_archive = IsArchive(stem);
        if (IsOfComplete(stem, is_archive)) return false;
        return entries_.empty() ||
               std::any_of(entries_.begin(), entries_.end(), [&](const LedgerEntry& entry) {
                   // The names of a custom backup's index and info file have no date.
                   return is_archive ? IsOfArchive(entry, stem) : !str::StartsWith(entry.name, "C");
               });
    }

    // Records in the ledger that the slices are removed, so that a running job does not complete a
    // backup without these slices.
    void RecordRemoval() const {
        for (const LedgerEntry& entry : entries_) {
            ledger_.Update(entry.name, [](LedgerEntry& changed) { changed.RecordRemoval(); });
        }
    }

  private:
    bool IsOfComplete(const std::string& stem, bool is_archive) const {
        return std::any_of(complete_.begin(), complete_.end(), [&](const std::string& archive) {
            return is_archive ? archive == stem : !str::StartsWith(archive, "C");
        });
    }

    // True when the ledger has an entry for this archive or for its index. Then a job is making the
    // archive again.
    bool IsInWork(const std::string& archive) const {
        return std::any_of(entries_.begin(), entries_.end(), [&](const LedgerEntry& entry) {
            return entry.name == archive || entry.name == LedgerKey(archive);
        });
    }

    const Ledger& ledger_;
    std::vector<std::string> complete_;
    std::vector<LedgerEntry> entries_;
};

void RemoveKnownSlices(quarn2::Storage& storage, const LedgerEntry& entry,
                       const IncompleteBackups& unfinished) {
    std::vector<std::string> names;
    std::set<std::string> directories;
    for (const auto& [name, slice] : entry.slices) {
        if (LedgerKey(name) != LedgerKey(entry.name) || !unfinished.Has(name)) continue;
        names.push_back(name);
        directories.insert(kro_file::Path(name));
    }
    RemoveStoredFiles(storage, names);
    for (const std::string& directory : directories) storage.SyncRemovals(directory);
}

// Deletes the info file of this archive that an earlier run of the job left. The deletion by prefix
// does not find an info file that has another prefix or is in a DATE or USER/DATE directory.
// Without the ledger entry, this info file would count as a complete backup.
void RemoveInfoFile(const std::shared_ptr<quarn2::Storage>& storage, const std::string& dir,
                    const LedgerEntry& entry) {
    const std::string info_path =
        quarn2::GetInfoFile(dir, quarn2::GetUserName(entry.name), quarn2::GetDate(entry.name));
    if (!kro_file::Exists(info_path)) return;
    if (IsOfArchive(entry, ArchiveOf(quarn2::GetInfo(info_path)))) {
        Delete(storage, info_path, false, {.reason = RemovalReason::kIncomplete, .is_part = true});
    }
}

// Removes the unfinished backups to which the line refers. Returns the names of their ledger
// entries. The caller must first remove the line and then the entries, because a line without
// entries refers to every file with the prefix.
std::vector<std::string> RemoveIncomplete(const std::string& dir, const Line& line) {
    // An empty prefix could match files of complete backups.
    if (line.prefix.empty()) throw std::runtime_error("a line of .cleanup has no prefix");
    const std::shared_ptr<quarn2::Storage> storage = OpenStorage(line.token, dir);
    const Ledger ledger = OwnLedger();
    const IncompleteBackups unfinished(ledger, line, *storage, dir);
    unfinished.RecordRemoval();
    const auto takes = [&](const std::string& name) {
        return GetPrefix(name) == line.prefix && unfinished.Has(name);
    };
    DeleteOnStorageIf(*storage, takes, kWhy);
    for (const LedgerEntry& entry : unfinished.entries()) {
        RemoveKnownSlices(*storage, entry, unfinished);
        RemoveInfoFile(storage, dir, entry);
    }
    DeleteLocallyIf(dir, takes, kWhy);
    std::vector<std::string> names;
    for (const LedgerEntry& entry : unfinished.entries()) names.push_back(entry.name);
    return names;
}

// Adds the prefixes of the archives that the custom backup may consist of.
void AddCustomPrefixes(std::set<std::string>& prefixes, const std::string& dir,
                       const std::string& user) {
    prefixes.insert(GetPrefix("custom." + user + ".info"));
    const std::string info_path = quarn2::GetInfoFile(dir, user, kCustom);
    if (kro_file::Exists(info_path)) {
        const std::string archive = ArchiveOf(quarn2::GetInfo(info_path));
        if (!archive.empty()) prefixes.insert(PrefixOf(archive));
    }
    for (const LedgerEntry& entry : OwnLedger().Entries()) {
        const bool is_of_user = LedgerKey(entry.name) == std::string(kCustom) + "." + user;
        if (is_of_user && !entry.info.empty()) prefixes.insert(PrefixOf(entry.name));
    }
}

}  // namespace

void ForgetIncomplete(const std::string& dir, const std::string& user, const std::string& date) {
    if (!kro_file::Exists(ListPath(dir))) return;
    try {
        std::set<std::string> prefixes = {date + "." + user};
        if (date == kCustom) AddCustomPrefixes(prefixes, dir, user);
        const std::string identity = StorageIdentity(TokenByEnv());
        RemoveLines(dir, [&](const std::string& text) {
            const Line line = ParseLine(text);
            const bool is_of_backup = std::any_of(
                prefixes.begin(), prefixes.end(),
                [&line](const std::string& known) { return IsPrefixOf(line.prefix, known); });
            return line.token && is_of_backup && StorageIdentity(line.token) == identity;
        });
    } catch (const std::exception& error) {
        KRO_LOG(kLog, 4, "Cant remove '%s.%s' from the list of incomplete backups. What: %s",
                date.c_str(), user.c_str(), error.what());
    }
}

void CleanUp(const std::string& dir) {
    KRO_LOG(kLog, 8, "%s", "void CleanUp(const string&)");
    std::multiset<std::string> done;
    std::vector<std::string> ended;
    std::optional<std::string> lines = ReadList(ListPath(dir));
    if (!lines) return;
    while (!lines->empty()) {
        const std::string text = str::GetWord(*lines, "\n");
        if (text.empty()) continue;
        std::string prefix = text;
        str::GetWord(prefix, "\t");
        const DeletionEvents events(quarn2::StripSliceNumber(prefix),
                                    {.reason = RemovalReason::kIncomplete});
        try {
            for (std::string& name : RemoveIncomplete(dir, ParseLine(text))) {
                ended.push_back(std::move(name));
            }
            events.Deleted();
            done.insert(text);
        } catch (const std::exception& error) {
            events.Failed(error.what());
            KRO_LOG(kLog, 4,
                    "Failed to remove incomplete backup files. You can get failed list in %s file",
                    ListPath(dir).c_str());
            KRO_LOG(kLog, 6, "%s", error.what());
        }
    }
    const bool is_any_left = RemoveLines(dir, [&done](const std::string& text) {
        const auto found = done.find(text);
        if (found == done.end()) return false;
        done.erase(found);
        return true;
    });
    // The ledger entries stay until no line is left in the list, because a line contains only a
    // prefix, and the entries show which of the backups with this prefix it means.
    if (is_any_left) return;
    for (const std::string& name : ended) OwnLedger().End(name);
}
