#include "quarn2_cp2_misc_clear.h"

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kro/kro_env.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/str.h"
#include "quarn2/token.h"
#include "quarn2_cp2_ledger.h"
#include "quarn2_cp2_misc_events.h"
#include "quarn2_cp2_misc_identity.h"
#include "quarn2_cp2_misc_newest.h"
#include "quarn2_cp2_misc_removal.h"
#include "quarn2_cp2_misc_storage.h"

namespace {

constexpr kro_log::Module kLog("main");
constexpr const char* kInfoRoot = kDefaultInfoRoot;
constexpr const char* kClearMark = ".clear";
constexpr const char* kStorageLine = "storage=";

std::string ClearMark(const std::string& info_root) {
    return kro_file::ConcatPath(info_root, kClearMark);
}

// Writes the marker file. As long as this file exists, no server starts with this info root.
void MarkInfoRoot(const std::string& identity) {
    try {
        kro_file::Write(ClearMark(kInfoRoot),
                        std::string("The backups are being removed.\n") + kStorageLine + identity);
    } catch (const kro_file::CopyError& error) {
        // Ignores a full disk, because --clear frees space.
        if (!error.IsFull()) throw;
        KRO_LOG(kLog, 4, "%s", error.what());
    }
}

// Writes the event for the deletion of all backups. The event has no user and no date.
void WriteClear(EventKind kind, const char* detail = "") {
    Event event;
    event.kind = kind;
    event.reason = RemovalReason::kClear;
    event.detail = detail;
    WriteEvent(std::move(event));
}

// The events for the backups in the info roots.
std::vector<Event> KnownBackups() {
    std::vector<Event> events = DeletedEvents(kInfoRoot, RemovalReason::kClear);
    for (Event& event : DeletedEvents(kPrivateInfoRoot, RemovalReason::kClear)) {
        events.push_back(std::move(event));
    }
    return events;
}

// Throws when the marker file of an interrupted --clear names another storage. Only the marker file
// identifies the storage, because the newest backups may already be removed. A marker file that is
// empty or was written by an earlier version names no storage and is accepted.
void CheckIsMarkedStorage(const std::string& mark, const std::string& identity) {
    std::string begun = kro_file::ReadE(mark);
    str::GetWord(begun, kStorageLine);
    if (begun.empty() || begun == identity) return;
    throw std::runtime_error(
        "the interrupted --clear was for storage '" + begun + "', but BACKUP_TOKEN refers to '" +
        identity +
        "'. Nothing was removed. Run --clear with the token of that storage; if both are the same "
        "storage, remove " +
        mark + " first");
}

// Throws when BACKUP_TOKEN seems to belong to another storage than the info root. Otherwise --clear
// would remove the info files of backups that still exist.
void CheckIsOurStorage(quarn2::Storage& storage, const std::string& identity) {
    const std::string mark = ClearMark(kInfoRoot);
    if (kro_file::Exists(mark)) return CheckIsMarkedStorage(mark, identity);
    const NewestCheck check = FindNewestOnStorage(storage, kInfoRoot);
    if (check.result != NewestOnStorage::kNoneFound) return;
    throw std::runtime_error(
        "the storage " + TokenByEnv().Str() + " has none of the " + str::Str(check.asked) +
        " newest backups in " + kInfoRoot +
        "; nothing was removed. Check that the storage is mounted and that the token is correct. "
        "If the storage was emptied on purpose, run --server --rescan and then --clear again");
}

// Removes the ledger entries of this storage. A running job then queries the storage instead of the
// ledger for its slices.
void ForgetUnfinished(const std::string& identity) {
    for (const Ledger& ledger : Ledger::All()) {
        for (const LedgerEntry& entry : ledger.Entries()) {
            if (entry.IsOf(identity)) ledger.End(entry.name);
        }
    }
}

void ClearStorage(quarn2::Storage& storage, bool has_info_root) {
    // An administrator may have moved the info root and left a symbolic link. The check follows
    // such a link, but not a link that belongs to another user.
    const std::string identity = StorageIdentity(TokenByEnv());
    if (!kro_file::IsForeignLink(kInfoRoot)) CheckIsOurStorage(storage, identity);
    // The marker file prevents servers from starting until another --clear has succeeded. So it is
    // written only after the storage has answered a request.
    ListOrNothing(storage, "");
    if (has_info_root) MarkInfoRoot(identity);
    WriteClear(EventKind::kDeletionBegun);
    ForgetUnfinished(identity);
    try {
        storage.Clear();
    } catch (const kro_err::Error& error) {
        // Nothing was removed from a storage that is missing or refuses access, so servers may
        // start again.
        if (HasRemovedNothing(error)) kro_file::RemoveFile(ClearMark(kInfoRoot));
        WriteClear(EventKind::kDeletionFailed, error.what());
        throw;
    }
    // Removes ledger entries again, because uploads may have ended and written entries while the
    // storage was emptied.
    ForgetUnfinished(identity);
}

}  // namespace

void CommandClear() {
    KRO_LOG(kLog, 5, "Clear all storage");
    // A malformed token throws here. Otherwise the info files would be removed while the storage
    // keeps its files.
    const bool has_token = !kro_env::GetEnv("BACKUP_TOKEN").empty();
    const std::shared_ptr<quarn2::Storage> storage = has_token ? GetStorageByEnv() : nullptr;
    // When the info root is a symbolic link, only the link is removed. An info root that the system
    // refuses to examine counts as a directory, so that writing the marker file fails and nothing
    // is removed.
    const kro_file::FileType type = kro_file::TypeOf(kInfoRoot);
    const bool has_info_root =
        type == kro_file::FileType::kDirectory || type == kro_file::FileType::kUnknown;
    // Without a token, only the info root is removed, and the storage keeps its backups.
    std::vector<Event> deleted;
    if (storage) {
        deleted = KnownBackups();
        ClearStorage(*storage, has_info_root);
    }
    if (has_info_root) {
        RemoveDirectory(kInfoRoot, kClearMark);
    } else {
        kro_file::Remove(kInfoRoot);
    }
    kro_file::Remove(kPrivateInfoRoot);
    // Makes the removals durable, because info files that reappear after a crash would count as
    // backups.
    if (kro_file::Exists("var/backup")) kro_file::SyncDir("var/backup");
    for (Event& event : deleted) WriteEvent(std::move(event));
    if (storage) WriteClear(EventKind::kDeleted);
}

void CheckNoBrokenClear(const std::string& info_root) {
    const std::string mark = ClearMark(info_root);
    if (!kro_file::Exists(mark)) return;
    throw std::runtime_error("the last --clear was interrupted (" + mark +
                             " exists), so backups may be partly removed: run --clear again");
}
