// The backups that the server must not count as complete, and the space that they use.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "quarn2/storage.h"
#include "quarn2_cp2_ledger.h"
#include "quarn2_cp2_misc_events.h"

// A backup with the info file DATE.USER.info. The backup was complete before its job was repeated,
// and the repeated job was interrupted.
struct InterruptedBackup {
    std::string user;
    std::string date;
    std::int64_t bytes = 0;  // its part of UnfinishedBackups::Bytes()
    bool is_full = true;  // false only when the info file and the ledger agree that it is a daily
};

class UnfinishedBackups {
  public:
    // Creates an object without unfinished backups and without a ledger.
    UnfinishedBackups() = default;

    // Reads the open ledger entries for the storage with this identity and logs each of them. If
    // all slices of an entry are stored and the storage has its info file, the backup is complete,
    // and only its last command was interrupted. The constructor then marks the entry as completed.
    UnfinishedBackups(Ledger ledger, std::string identity, quarn2::Storage& storage);

    // Reads the open ledger entries for quarn2_report and does not query the storage. A backup
    // whose last command was interrupted is therefore reported as unfinished. Without an identity,
    // reads the entries of all storages.
    UnfinishedBackups(Ledger ledger, std::optional<std::string> identity);

    // True when the info file belongs to a backup that is not complete. `last_slice`: the value of
    // "last-slice" in the info file.
    bool Contains(const std::string& info_path, std::string_view last_slice) const;

    // The keys of a local info file that AddInfo needs.
    struct Info {
        std::string_view last_slice;
        std::string_view type;
        std::int64_t size = 0;
    };
    // Keeps the data of the info file of an unfinished backup. If the storage has the info file,
    // the backup was complete before its job was repeated. The storage may then have the backup's
    // old files as well as the new ones. Without a storage (null), assumes that the storage has the
    // same info file as this machine.
    void AddInfo(const std::string& info_path, const Info& info, quarn2::Storage* storage);

    // The entries whose slices the server may remove when it needs space, oldest first. An entry of
    // a complete backup is included if it has slices that no info file contains. An entry of an
    // incomplete backup is included if it is older than `date` and no job has changed it since the
    // server started. Excludes backups that were complete before their jobs were repeated, because
    // the storage may still have them. Excludes entries whose slices a node client uploads now.
    std::vector<LedgerEntry> Reclaimable(const std::string& date) const;

    // Removes the entry's slices from the storage. Then removes the entry, unless a local info file
    // has "finished" for this backup. Throws the storage's kro_err::Error when a slice cannot be
    // removed.
    void Remove(const LedgerEntry& entry, quarn2::Storage& storage) const;

    // The interrupted backups that were complete before, that are older than `date` and that no job
    // has changed since the server started. Excludes backups whose slices a node client uploads now
    // and backups whose slices are not all known. Reads the ledger.
    std::vector<InterruptedBackup> Interrupted(const std::string& date) const;

    // Removes an interrupted backup: the slices of the interrupted job, the slices of the complete
    // backup, its info files and its ledger entries. If that fails, the entries stay open and the
    // removal can be repeated. Writes the events of the deletion with this cause.
    void RemoveInterrupted(const std::string& user, const std::string& date,
                           std::shared_ptr<quarn2::Storage> storage,
                           const DeletionCause& cause = {}) const;

    // The names DATE.USER of the backups whose entries are open now. Reads the ledger.
    std::set<std::string> OpenKeys() const;

    // The part of Bytes() that belongs to the entry.
    std::int64_t BytesOf(const LedgerEntry& entry) const;

    // The bytes on the storage that belong to no complete backup. Reads the ledger in each call,
    // because every upload changes it.
    std::int64_t Bytes() const;

  private:
    bool IsOurs(const LedgerEntry& entry) const { return !identity_ || entry.IsOf(*identity_); }
    bool IsAbandoned(const LedgerEntry& entry, const std::string& date) const;
    bool WasComplete(const LedgerEntry& entry) const;
    bool IsInterrupted(const LedgerEntry& entry, const std::string& date) const;
    void RecordRemoval(const LedgerEntry& entry) const;
    bool IsOfOtherJob(const LedgerEntry& entry, const std::string& name) const;
    void RemoveSlices(const LedgerEntry& entry, quarn2::Storage& storage) const;
    std::string EntryOf(const std::string& info_path, std::string_view last_slice) const;

    Ledger ledger_;
    std::optional<std::string> identity_;
    std::map<std::string, LedgerEntry> open_;  // open entries at the start of the server, by name
    struct Noted {
        bool was_complete = false;
        std::int64_t size = 0;
        std::string info_path;
        bool is_full = true;
        // The slices in the info file on the storage; empty when that file could not be read.
        std::vector<std::string> stored;
    };
    void RemoveFiles(const std::string& entry_name, const Noted& noted,
                     quarn2::Storage& storage) const;

    std::map<std::string, Noted> noted_;  // what AddInfo has stored, by the name of the entry
    bool has_ledger_ = false;
};
