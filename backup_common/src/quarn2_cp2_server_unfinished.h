// The backups that the account must not count as complete, and the space that they use.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "quarn2/storage.h"
#include "quarn2_cp2_ledger.h"

class UnfinishedBackups {
  public:
    // No unfinished backups, and no ledger.
    UnfinishedBackups() = default;

    // The open entries of the ledger for the storage with this identity. Logs each of them. If all
    // slices of an entry are stored and the storage has its info file, the backup is complete: only
    // its last command was interrupted. Its entry is completed instead.
    UnfinishedBackups(Ledger ledger, std::string identity, quarn2::Storage& storage);

    // True when the info file belongs to a backup that is not complete. `last_slice`: the value of
    // "last-slice" in the info file.
    bool Contains(const std::string& info_path, std::string_view last_slice) const;

    // Keeps the size that the info file of an unfinished backup names. If the storage has the info
    // file, the backup was complete before its job was repeated. The storage may then hold its old
    // files beside the new ones.
    void NoteSize(const std::string& info_path, std::string_view last_slice, std::int64_t size,
                  quarn2::Storage& storage);

    // The entries whose slices may be removed when space is needed, oldest first. These are entries
    // of complete backups, whose slices no info file names, and entries of archives older than
    // `date` that no job has changed since the server started. Excludes a backup that was complete
    // before its job was repeated, because the storage may still have it, and entries whose slices
    // a node client uploads now.
    std::vector<LedgerEntry> Reclaimable(const std::string& date) const;

    // Removes the entry's slices from the storage. Then removes the entry, unless a local info file
    // has "finished" for this backup. Throws kro_err::Error.
    void Remove(const LedgerEntry& entry, quarn2::Storage& storage) const;

    // The names DATE.USER of the backups whose entries are open now. Reads the ledger.
    std::set<std::string> OpenKeys() const;

    // The bytes on the storage that belong to no complete backup. Reads the ledger, which changes
    // with every upload.
    std::int64_t Bytes() const;

  private:
    bool IsForsaken(const LedgerEntry& entry, const std::string& date) const;
    bool WasComplete(const LedgerEntry& entry) const;
    std::int64_t BytesOf(const LedgerEntry& entry) const;
    std::string EntryOf(const std::string& info_path, std::string_view last_slice) const;

    Ledger ledger_;
    std::string identity_;
    std::map<std::string, LedgerEntry> open_;  // as they were when the server started
    struct Noted {
        bool was_complete = false;
        std::int64_t size = 0;
    };
    std::map<std::string, Noted> noted_;  // by entry
    bool has_ledger_ = false;
};
