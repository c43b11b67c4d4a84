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
    // None.
    UnfinishedBackups() = default;

    // Those that the ledger knows of the storage with this identity; the log names them. A backup
    // whose slices are all stored, and whose info file the storage has, is complete: its last
    // command was interrupted after that, and its entry ends.
    UnfinishedBackups(Ledger ledger, std::string identity, quarn2::Storage& storage);

    // True when the info file, whose "last-slice" begins with this archive, is of a backup that is
    // not complete.
    bool Contains(const std::string& info_path, std::string_view last_slice) const;

    // Notes the size that the info file of such a backup has. If the storage has the info file, the
    // backup was complete before its job was repeated: then the storage may hold its old files
    // beside the new ones.
    void NoteSize(const std::string& info_path, std::string_view last_slice, std::int64_t size,
                  quarn2::Storage& storage);

    // Entries whose slices may be removed when space is needed: those that complete backups do not
    // name, and those of archives older than `date` that no job has touched since the server
    // started. A backup that was complete before its job was repeated is none of them: the storage
    // may still have it.
    std::vector<LedgerEntry> Reclaimable(const std::string& date) const;

    // Removes the entry's slices from the storage, and the entry unless an info file here says that
    // the backup is finished. Throws kro_err::Error.
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
