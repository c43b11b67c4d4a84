#include "quarn2_cp2_server_unfinished.h"

#include <algorithm>
#include <utility>

#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/str.h"
#include "quarn2/info.h"
#include "quarn2/names.h"
#include "quarn2_cp2_misc_delete.h"
#include "quarn2_cp2_misc_newest.h"
#include "quarn2_cp2_misc_removal.h"
#include "quarn2_cp2_misc_sizes.h"
#include "quarn2_cp2_misc_slices.h"

namespace {

constexpr kro_log::Module kLog("main");
constexpr const char* kFetched = "tmp/quarn2_cp.fetched";

// The info file of the same name on the storage.
quarn2::InfoMap StoredInfo(quarn2::Storage& storage, const std::string& info_path) {
    storage.Download(quarn2::GetStoredName(info_path), kFetched);
    quarn2::InfoMap info = quarn2::GetInfo(kFetched);
    kro_file::RemoveFile(kFetched);
    return info;
}

// Removes the key "node", because it is not uploaded.
quarn2::InfoMap WithoutNode(quarn2::InfoMap info) {
    info.erase("node");
    return info;
}

// True when the storage has the info file of the entry. The content is compared, because the
// storage may have the info file of an earlier backup with the same name. The local file may
// describe another custom backup, because the custom backups of all dates use the same path.
bool IsInfoStored(quarn2::Storage& storage, const LedgerEntry& entry) {
    try {
        const quarn2::InfoMap info = quarn2::GetInfo(entry.info);
        if (IsArchive(entry.name) && ArchiveOf(info) != entry.name) return false;
        return WithoutNode(StoredInfo(storage, entry.info)) == WithoutNode(info);
    } catch (const std::exception& error) {
        KRO_LOG(kLog, 6, "%s", error.what());
        return false;
    }
}

// True when the storage has the info file or does not answer.
bool MayHaveInfo(quarn2::Storage& storage, const std::string& info_path) {
    try {
        return IsOnStorage(storage, quarn2::GetStoredName(info_path));
    } catch (const std::exception& error) {
        KRO_LOG(kLog, 6, "%s", error.what());
        return true;
    }
}

// The slices in the info file on the storage; none when that file cannot be read.
std::vector<std::string> StoredSlices(quarn2::Storage& storage, const std::string& info_path) {
    try {
        return NamedSlices(StoredInfo(storage, info_path));
    } catch (const std::exception& error) {
        KRO_LOG(kLog, 6, "%s", error.what());
        return {};
    }
}

bool IsComplete(quarn2::Storage& storage, const LedgerEntry& entry) {
    const bool are_stored =
        std::all_of(entry.slices.begin(), entry.slices.end(),
                    [](const auto& slice) { return slice.second.state == SliceState::kStored; });
    return are_stored && !entry.info.empty() && kro_file::Exists(entry.info) &&
           IsInfoStored(storage, entry);
}

// True when the job of this entry may have replaced the index or the info file of another archive
// of the same user and day. These files have the same names for each archive.
bool MayHaveReplacedSharedFiles(const LedgerEntry& entry) {
    if (entry.is_unknown || !entry.info.empty()) return true;
    return std::any_of(entry.slices.begin(), entry.slices.end(), [](const auto& slice) {
        return !IsArchive(slice.first) && slice.second.state != SliceState::kRefused;
    });
}

// True for a slice of a backup that the job of this entry replaces: another archive of the same
// day. The entry records 0 bytes for such a slice while that backup is complete, because its info
// file already counts them.
bool IsOfReplacedBackup(const LedgerEntry& entry, const std::string& name,
                        const LedgerSlice& slice) {
    return slice.bytes == 0 && IsArchive(name) &&
           quarn2::StripSliceNumber(kro_file::Name(name)) != entry.name;
}

void LogUnfinished(const LedgerEntry& entry) {
    KRO_LOG(kLog, 4,
            "Backup '%s' is not complete. Begun: %s, bytes on the storage: %lld. Repeat its job, "
            "or delete it",
            entry.name.c_str(), entry.started.c_str(), static_cast<long long>(entry.Bytes()));
}

}  // namespace

UnfinishedBackups::UnfinishedBackups(Ledger ledger, std::string identity, quarn2::Storage& storage)
    : ledger_(std::move(ledger)), identity_(std::move(identity)), has_ledger_(true) {
    for (const LedgerEntry& entry : ledger_.Entries()) {
        if (!IsOurs(entry) || !entry.IsOpen()) continue;
        if (IsComplete(storage, entry)) {
            const auto named = NamedSlices(quarn2::GetInfo(entry.info));
            ledger_.Update(entry.name, [&named](LedgerEntry& ended) { ended.Complete(named); });
            continue;
        }
        LogUnfinished(entry);
        open_.emplace(entry.name, entry);
    }
}

UnfinishedBackups::UnfinishedBackups(Ledger ledger, std::optional<std::string> identity)
    : ledger_(std::move(ledger)), identity_(std::move(identity)), has_ledger_(true) {
    for (LedgerEntry& entry : ledger_.Entries()) {
        if (IsOurs(entry) && entry.IsOpen()) open_.emplace(entry.name, std::move(entry));
    }
}

// Returns the name of the ledger entry that keeps this backup from counting as complete. That is
// the entry of its own archive. Otherwise it is the entry of another archive of the same day, if
// the job of that archive may have replaced the index or the info file, which both archives share.
// Returns "" when there is neither.
std::string UnfinishedBackups::EntryOf(const std::string& info_path,
                                       std::string_view last_slice) const {
    std::string rest(last_slice);
    std::string archive = quarn2::StripSliceNumber(kro_file::Name(str::GetWord(rest)));
    if (open_.contains(archive)) return archive;
    std::string key = LedgerKey(info_path);
    if (open_.contains(key)) return key;
    const auto found = std::find_if(open_.begin(), open_.end(), [&](const auto& entry) {
        return LedgerKey(entry.first) == key &&
               (archive.empty() || MayHaveReplacedSharedFiles(entry.second));
    });
    return found == open_.end() ? "" : found->first;
}

bool UnfinishedBackups::Contains(const std::string& info_path, std::string_view last_slice) const {
    return !open_.empty() && !EntryOf(info_path, last_slice).empty();
}

void UnfinishedBackups::AddInfo(const std::string& info_path, const Info& info,
                                quarn2::Storage* storage) {
    const std::string name = EntryOf(info_path, info.last_slice);
    if (name.empty()) return;
    Noted noted{
        storage == nullptr || MayHaveInfo(*storage, info_path), info.size, info_path, true, {}};
    noted.is_full = name.front() != 'I' || info.type != "incremental";
    if (noted.was_complete) {
        noted.stored = storage != nullptr ? StoredSlices(*storage, info_path)
                                          : std::vector{std::string(info.last_slice)};
    }
    noted_[name] = std::move(noted);
}

bool UnfinishedBackups::WasComplete(const LedgerEntry& entry) const {
    const auto noted = noted_.find(entry.name);
    return noted != noted_.end() && noted->second.was_complete;
}

// True when no job has changed the entry since the server started, and its archive is older than
// `date`. The date alone is not enough, because a job may make a backup of an earlier date.
bool UnfinishedBackups::IsAbandoned(const LedgerEntry& entry, const std::string& date) const {
    const auto at_start = open_.find(entry.name);
    return at_start != open_.end() && at_start->second == entry && IsArchive(entry.name) &&
           entry.name.substr(1, date.size()) < date;
}

std::vector<LedgerEntry> UnfinishedBackups::Reclaimable(const std::string& date) const {
    std::vector<LedgerEntry> found;
    if (!has_ledger_) return found;
    for (LedgerEntry& entry : ledger_.Entries()) {
        if (!IsOurs(entry) || entry.Bytes() == 0) continue;
        const bool is_left_over = !entry.completed.empty();
        if (!is_left_over && (!IsAbandoned(entry, date) || WasComplete(entry))) continue;
        if (!ledger_.IsUploading(entry.name)) found.push_back(std::move(entry));
    }
    std::sort(found.begin(), found.end(),
              [](const LedgerEntry& a, const LedgerEntry& b) { return a.started < b.started; });
    return found;
}

void UnfinishedBackups::RecordRemoval(const LedgerEntry& entry) const {
    ledger_.Update(entry.name, [](LedgerEntry& changed) { changed.RecordRemoval(); });
}

// True when the ledger entry of another archive contains the slice as its own. This happens when
// the job of `entry` has replaced that archive, and the other job is then repeated.
bool UnfinishedBackups::IsOfOtherJob(const LedgerEntry& entry, const std::string& name) const {
    const std::string archive = quarn2::StripSliceNumber(kro_file::Name(name));
    if (!IsArchive(archive) || archive == entry.name) return false;
    const LedgerEntry other = ledger_.Read(archive);
    const auto slice = other.slices.find(name);
    return slice != other.slices.end() && slice->second.state != SliceState::kRemoved;
}

void UnfinishedBackups::RemoveSlices(const LedgerEntry& entry, quarn2::Storage& storage) const {
    std::vector<std::string> names;
    std::set<std::string> directories;
    for (const auto& [name, slice] : entry.slices) {
        directories.insert(kro_file::Path(name));
        if (LedgerKey(name) != LedgerKey(entry.name)) continue;
        if (IsOfReplacedBackup(entry, name, slice) || IsOfOtherJob(entry, name)) continue;
        names.push_back(name);
    }
    RemoveStoredFiles(storage, names);
    for (const std::string& directory : directories) storage.SyncRemovals(directory);
}

void UnfinishedBackups::Remove(const LedgerEntry& entry, quarn2::Storage& storage) const {
    KRO_LOG(kLog, 5, "Remove the slices of incomplete backup '%s' to free %lld bytes",
            entry.name.c_str(), static_cast<long long>(entry.Bytes()));
    DeletionEvents events(entry.name, {.reason = RemovalReason::kIncomplete});
    events.SetSize(entry.Bytes());
    try {
        RecordRemoval(entry);
        events.Begun();
        RemoveSlices(entry, storage);
    } catch (const std::exception& error) {
        events.Failed(error.what());
        throw;
    }
    events.Deleted();
    // If a local info file has "finished" for this backup, the entry stays. Without the entry, the
    // backup would count as complete.
    if (!noted_.contains(entry.name)) return ledger_.End(entry.name);
    ledger_.Update(entry.name, [](LedgerEntry& changed) {
        for (auto& [name, slice] : changed.slices) slice.bytes = 0;
    });
}

// Only an interrupted backup can be evicted, so this function returns false for a custom backup. It
// also returns false if the slices are not known or the info file on the storage could not be read,
// because some slices would then stay on the storage unnoticed.
bool UnfinishedBackups::IsInterrupted(const LedgerEntry& entry, const std::string& date) const {
    const auto noted = noted_.find(entry.name);
    return noted != noted_.end() && noted->second.was_complete && !noted->second.stored.empty() &&
           !entry.is_unknown && entry.IsOpen() && !str::StartsWith(entry.name, "C") &&
           IsAbandoned(entry, date) && !ledger_.IsUploading(entry.name);
}

std::vector<InterruptedBackup> UnfinishedBackups::Interrupted(const std::string& date) const {
    std::vector<InterruptedBackup> found;
    if (!has_ledger_ || noted_.empty()) return found;
    std::map<std::string, int> jobs;  // open entries by LedgerKey
    for (const LedgerEntry& entry : ledger_.Entries()) {
        if (!IsOurs(entry) || !entry.IsOpen()) continue;
        ++jobs[LedgerKey(entry.name)];
        if (!IsInterrupted(entry, date)) continue;
        const Noted& noted = noted_.at(entry.name);
        const std::string name = kro_file::Name(noted.info_path);
        found.push_back(
            {quarn2::GetUserName(name), quarn2::GetDate(name), BytesOf(entry), noted.is_full});
    }
    // Excludes days with two open entries: the other job may still be running.
    std::erase_if(found, [&jobs](const InterruptedBackup& backup) {
        return jobs[backup.date + "." + backup.user] != 1;
    });
    return found;
}

// Removes the slices of the interrupted job and those of the complete backup.
void UnfinishedBackups::RemoveFiles(const std::string& entry_name, const Noted& noted,
                                    quarn2::Storage& storage) const {
    const LedgerEntry entry = ledger_.Read(entry_name);
    RecordRemoval(entry);
    RemoveSlices(entry, storage);
    std::vector<std::string> slices;
    std::set<std::string> directories;
    for (const std::string& slice : noted.stored) {
        if (LedgerKey(slice) != LedgerKey(entry_name)) continue;
        slices.push_back(slice);
        directories.insert(kro_file::Path(slice));
    }
    RemoveStoredFiles(storage, slices);
    for (const std::string& directory : directories) storage.SyncRemovals(directory);
    // Removes the info file here, because Delete cannot: it finds the directory on the storage from
    // a slice in the local info file, and the interrupted job may have written an info file without
    // a slice.
    storage.RemoveFile(quarn2::GetStoredName(noted.info_path));
}

// The info file on the storage and the local one are removed last. Until then, the backup still
// counts as interrupted.
void UnfinishedBackups::RemoveInterrupted(const std::string& user, const std::string& date,
                                          std::shared_ptr<quarn2::Storage> storage,
                                          const DeletionCause& cause) const {
    const std::string key = date + "." + user;
    const auto noted = std::find_if(noted_.begin(), noted_.end(), [&key](const auto& candidate) {
        return LedgerKey(candidate.first) == key;
    });
    if (noted == noted_.end()) return;
    try {
        RemoveFiles(noted->first, noted->second, *storage);
    } catch (const std::exception& error) {
        DeletionEvents(noted->second.info_path, cause).Failed(error.what());
        throw;
    }
    Delete(std::move(storage), noted->second.info_path, false, cause);
}

std::set<std::string> UnfinishedBackups::OpenKeys() const {
    std::set<std::string> keys;
    if (!has_ledger_) return keys;
    for (const LedgerEntry& entry : ledger_.Entries()) {
        if (IsOurs(entry) && entry.IsOpen()) keys.insert(LedgerKey(entry.name));
    }
    return keys;
}

// The space of the entry's backup on the storage. This is an upper bound, because replaced slices
// count twice.
std::int64_t UnfinishedBackups::BytesOf(const LedgerEntry& entry) const {
    const auto noted = noted_.find(entry.name);
    if (noted == noted_.end() || !entry.IsOpen()) return entry.Bytes();
    if (noted->second.was_complete) return SumOfSizes(entry.Bytes(), noted->second.size);
    // The entry has no bytes when the server has removed the backup's slices to free space.
    if (entry.Bytes() == 0) return 0;
    return std::max(entry.Bytes(), noted->second.size);
}

std::int64_t UnfinishedBackups::Bytes() const {
    std::int64_t sum = 0;
    if (!has_ledger_) return sum;
    for (const LedgerEntry& entry : ledger_.Entries()) {
        if (!IsOurs(entry)) continue;
        sum = SumOfSizes(sum, BytesOf(entry));
    }
    return sum;
}
