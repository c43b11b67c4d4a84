#include "quarn2_cp2_ledger_deletion.h"

#include <algorithm>
#include <set>

#include "kro/kro_file.h"
#include "quarn2_cp2_misc_removal.h"
#include "quarn2_cp2_misc_slices.h"

namespace {

// Returns no names for an info file that names too many slices. The deletion of such a backup uses
// the listing of the storage instead of slice names, and the ledger has no slices of the backup.
std::vector<std::string> NamedOrNone(const quarn2::InfoMap& info) {
    try {
        return NamedSlices(info);
    } catch (const std::exception&) {
        return {};
    }
}

}  // namespace

LedgerDeletion::LedgerDeletion(const std::string& info_path, const quarn2::InfoMap& info)
    : ledger_(OwnLedger()),
      key_(LedgerKey(info_path)),
      entries_(ledger_.EntriesOf(info_path, info)) {
    if (entries_.empty()) return;
    named_ = NamedOrNone(info);
    for (const std::string& name : entries_) {
        const bool written =
            ledger_.Update(name, [](LedgerEntry& entry) { entry.RecordRemoval(); });
        // If the entry cannot be written, it still records the slices as stored, so it is removed.
        // Without the entry, a job that completes the same backup must query the storage for the
        // slices.
        if (!written) ledger_.End(name);
    }
}

void LedgerDeletion::Finish(quarn2::Storage& storage) const {
    const std::set<std::string> named(named_.begin(), named_.end());
    std::vector<std::string> rest;
    std::set<std::string> directories;
    for (const std::string& entry_name : entries_) {
        for (const auto& [name, slice] : ledger_.Read(entry_name).slices) {
            // Skips a slice with another LedgerKey, because a damaged ledger entry must not cause
            // the removal of another backup's files. Does not skip slices with 0 bytes: they belong
            // to the backup that the job has replaced, and the info file does not name them if the
            // job has replaced that file too.
            if (named.contains(name) || LedgerKey(name) != key_) continue;
            rest.push_back(name);
            directories.insert(kro_file::Path(name));
        }
    }
    RemoveStoredFiles(storage, rest);
    for (const std::string& directory : directories) storage.SyncRemovals(directory);
    for (const std::string& name : entries_) ledger_.End(name);
}
