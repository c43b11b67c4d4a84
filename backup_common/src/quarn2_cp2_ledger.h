// The ledger: one entry for each backup that is not complete on the storage. It is the only file
// that formats, parses and changes entries.
//
// An entry is the file var/quarn2_cp.ledger[#STORAGE]/STEM, where STEM is the name of the archive
// without its slice number ("F2026-11-20.web1"). Its lines are KEY=VALUE:
//   user, date   of the backup; the date is the archive's, for a custom backup too
//   storage      the identity of the storage (see StorageIdentity)
//   key_hash     of the key that encrypts the slices; missing without encryption
//   started      when the first slice was put
//   info         the path of the info file while that is being put, "info_bytes" its size
//   earlier_bytes  the size of the complete backup that the job makes again
//   completed    when the backup was completed; then only slices that it does not name are left
//   slice-N      "STATE BYTES NAME [KEY_HASH]": one stored file; BYTES count as used
//   unknown      "yes" if the storage may have other slices: the entry was an empty file before,
//                because its text found no room on the disk, or its text could not be parsed
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kro/kro_byte_lock.h"
#include "quarn2/info.h"

enum class SliceState {
    kUploading,  // being uploaded, or its upload was interrupted
    kStored,     // complete and durable on the storage
    kAbandoned,  // the upload was abandoned after its last attempt
    kRefused,    // not uploaded: the server granted no space, or the key is another one
    kRemoved,    // removed since it was put, or of an earlier run of the job
};

struct LedgerSlice {
    SliceState state = SliceState::kUploading;
    std::int64_t bytes = 0;  // that the storage may hold under this name
    std::string key_hash;

    bool operator==(const LedgerSlice&) const = default;
};

struct LedgerEntry {
    std::string name;
    std::string storage;
    std::string key_hash;
    std::string started;
    std::string info;
    std::int64_t info_bytes = 0;
    std::string completed;
    std::int64_t earlier_bytes = 0;             // of the complete backup that the job makes again
    std::map<std::string, LedgerSlice> slices;  // by stored name
    bool is_unknown = false;                    // the storage may have other slices than these

    // True while the backup must not count as complete. A backup that was complete before is so
    // until its first slice is replaced: refused uploads alone change nothing on the storage.
    bool IsOpen() const;
    // True for an entry of this storage, or of one that is not known.
    bool IsOf(const std::string& identity) const { return storage.empty() || storage == identity; }
    // The bytes of all files that the entry knows.
    std::int64_t Bytes() const;
    // Every file that the entry knows is removed, or will be.
    void RecordRemoval();
    // The backup is complete, with these slices. What is left are archive files on the storage that
    // its info file does not name, because an earlier run of the job made more of them.
    void Complete(const std::vector<std::string>& named);

    std::string Format() const;
    // A text that cannot be parsed gives an open entry of this name without slices.
    static LedgerEntry Parse(const std::string& name, const std::string& text);

    bool operator==(const LedgerEntry&) const = default;
};

class Ledger {
  public:
    // `storage`: the name of a user's own storage, empty for the common one.
    explicit Ledger(const std::string& storage = "");

    // All entries, sorted by name. A ledger that cannot be read has none; the log has the reason.
    std::vector<LedgerEntry> Entries() const;

    // The entry, or an empty one of this name.
    LedgerEntry Read(const std::string& name) const;

    // Reads the entry, applies the change and replaces the file durably. An entry without slices
    // and info file is removed. Returns false, after a line in the log, when that failed.
    using Change = std::function<void(LedgerEntry&)>;
    bool Update(const std::string& name, const Change& change) const;

    // Makes an empty entry, for which a full disk has room, unless there is one of this name: the
    // backup is in progress, and which slices the storage has is not known. Returns whether it has
    // made one.
    bool MakeUnknown(const std::string& name) const;

    // Removes the entry durably. A failure is only logged.
    void End(const std::string& name) const;

    // The entry to which a stored file belongs: of an archive file its own; of another file the
    // latest one of its backup, or one of its own name.
    std::string EntryNameOf(const std::string& stored_name) const;

    // The names of the entries of the backup with this info file: those of its archive, "custom"
    // ones up to the archive's date.
    std::vector<std::string> EntriesOf(const std::string& info_path,
                                       const quarn2::InfoMap& info) const;

    // Held while a slice of the entry is uploaded, so that another node client waits for it. Null
    // when the lock file cannot be made.
    std::unique_ptr<kro_file::ByteLock> LockUploads(const std::string& name) const;

    // True while a node client of this machine uploads a slice of the entry.
    bool IsUploading(const std::string& name) const;

    // The ledgers of all storages of this install root.
    static std::vector<Ledger> All();

    const std::string& directory() const noexcept { return directory_; }

  private:
    struct FromDirectory {};
    Ledger(FromDirectory, std::string directory) : directory_(std::move(directory)) {}
    std::string LockPath() const;
    bool HasDirectory() const;
    std::vector<std::string> Names() const;
    void Replace(const LedgerEntry& entry) const;

    std::string directory_;
};

// The ledger of the storage that this process works for: the one that SetOwnLedger named, or else
// the one that BACKUP_STORAGE names.
Ledger OwnLedger();

// For the roles that learn the storage's name otherwise, before their first thread.
void SetOwnLedger(const std::string& storage);
