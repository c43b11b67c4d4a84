// The ledger: a directory with one entry for each backup that is not complete on the storage. Only
// this unit formats, parses and changes entries.
//
// An entry is the file var/quarn2_cp.ledger[#STORAGE]/STEM, where STEM is the name of the archive
// without its slice number ("F2026-11-20.web1"). Its lines are KEY=VALUE:
//   user         the user of the backup
//   date         the date of the archive, for a custom backup too
//   storage      the identity of the storage (see StorageIdentity)
//   key_hash     the hash of the key that encrypts the slices; missing without encryption
//   started      the time when the job put its first slice
//   info         the path of the info file while the job puts this file
//   info_bytes   the size of that info file
//   earlier_bytes  the size of the complete backup that the job replaces
//   completed    the time when the backup became complete; after that, the entry has only slices
//                that the info file does not name
//   slice-N      one stored file as "STATE BYTES NAME [KEY_HASH]"; BYTES count as used space
//   unknown      "yes" if the storage may have slices that the entry does not list: either the
//                entry was an empty file, because the disk was full, or it could not be parsed
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
    kUploading,  // the slice is being uploaded, or its upload was interrupted
    kStored,     // complete and durable on the storage
    kAbandoned,  // the upload was abandoned after its last attempt
    kRefused,    // not uploaded: no space, or another key than that of the earlier slices
    kRemoved,    // removed after it was stored, or stored only by an earlier run of the job
};

struct LedgerSlice {
    SliceState state = SliceState::kUploading;
    std::int64_t bytes = 0;  // the space that this file may use on the storage
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
    std::int64_t earlier_bytes = 0;             // size of the complete backup that the job replaces
    std::map<std::string, LedgerSlice> slices;  // by stored name
    bool is_unknown = false;  // the storage may have slices that are not in `slices`

    // True while the backup must not count as complete. False when the entry has only refused
    // uploads: they changed nothing on the storage, so a complete backup stays complete until its
    // first slice is replaced.
    bool IsOpen() const;
    // True when the entry belongs to the storage `identity` or does not name its storage.
    bool IsOf(const std::string& identity) const { return storage.empty() || storage == identity; }
    // The sum of the sizes of the entry's slices and info file.
    std::int64_t Bytes() const;
    // Sets the state of every slice to kRemoved. Must be called before the files are removed.
    void RecordRemoval();
    // Records that the backup is complete. `named` are the slices that the info file names. Removes
    // them from the entry. Only archive files of an earlier run of the job stay in the entry, if
    // that run made more slices.
    void Complete(const std::vector<std::string>& named);

    // Records that another archive of the same user and day is complete. Its index and info file
    // have replaced those of this entry, so this entry keeps only its archive's slices.
    void DropSharedFiles();

    // Must be called when an earlier custom backup of the same user is complete. The two backups
    // share the names of the index and of the info file, so the stored ones now belong to the
    // earlier backup. Removes them from this entry, except an index that is being uploaded.
    void DropStoredSharedFiles();

    // Records that the slices `named` belong to another backup of `bytes` bytes, which a later job
    // has completed. This entry has such slices if its job replaced an earlier run of that backup.
    // A completed entry drops the slices, because they are in use again. An open entry keeps them
    // as slices that its job is about to replace.
    void DropSlices(const std::vector<std::string>& named, std::int64_t bytes);

    std::string Format() const;
    // Returns an open entry of this name without slices when the text cannot be parsed.
    static LedgerEntry Parse(const std::string& name, const std::string& text);

    bool operator==(const LedgerEntry&) const = default;
};

class Ledger {
  public:
    // `storage`: the name of a user's own storage, empty for the common storage.
    explicit Ledger(const std::string& storage = "");

    // All entries, sorted by name. When the ledger cannot be read, logs the reason and returns no
    // entries.
    std::vector<LedgerEntry> Entries() const;

    // Reads the entry `name`. Returns an empty entry with that name when the ledger has none.
    LedgerEntry Read(const std::string& name) const;

    // Applies `change` to the entry and writes the entry durably. Removes the entry when the
    // changed entry has neither slices nor an info file. When a step fails, logs the reason and
    // returns false.
    using Change = std::function<void(LedgerEntry&)>;
    bool Update(const std::string& name, const Change& change) const;

    // Creates an empty entry file, unless the entry exists. An empty file can be created even on a
    // full disk. It records that the backup is in progress and that its stored slices are unknown.
    // Returns true when it was created. Failures are logged.
    bool MakeUnknown(const std::string& name) const;

    // Removes the entry durably. A failure is logged and not thrown.
    void End(const std::string& name) const;

    // The name of the entry to which a stored file belongs. For a slice it is the archive's name.
    // For another file it is the name of the latest entry of the same backup that is not completed,
    // or of the latest completed entry, or the LedgerKey of the file when the backup has no entry.
    std::string EntryNameOf(const std::string& stored_name) const;

    // The names of the entries of the backup with this info file. For a custom backup, leaves out
    // the entries of archives that are later than the archive in the info file.
    std::vector<std::string> EntriesOf(const std::string& info_path,
                                       const quarn2::InfoMap& info) const;

    // For a custom backup, the names of the entries that EntriesOf leaves out: those of custom
    // archives with a later date than the archive in the info file.
    std::vector<std::string> LaterEntriesOf(const std::string& info_path,
                                            const quarn2::InfoMap& info) const;

    // Waits for the upload lock of the entry and returns it. A node client holds the lock while it
    // uploads a slice of the entry, so that another node client waits. Returns null when the ledger
    // has no directory or the lock file cannot be locked.
    std::unique_ptr<kro_file::ByteLock> LockUploads(const std::string& name) const;

    // True while a node client of this machine uploads a slice of the entry, and when the lock file
    // cannot be checked.
    bool IsUploading(const std::string& name) const;

    // The ledgers of all storages of this install root.
    static std::vector<Ledger> All();

    const std::string& directory() const noexcept { return directory_; }

  private:
    struct FromDirectory {};
    Ledger(FromDirectory, std::string directory) : directory_(std::move(directory)) {}
    std::string LockPath() const;
    bool HasDirectory() const;
    // Checks the name and makes the directory if it is missing, before an entry is written.
    void Prepare(const std::string& name) const;
    std::vector<std::string> Names() const;
    // The entries with the LedgerKey of the info file. With `later`, only those of custom archives
    // with a later date than the archive in the info file, otherwise only the others.
    std::vector<std::string> Select(const std::string& info_path, const quarn2::InfoMap& info,
                                    bool later) const;
    void Replace(const LedgerEntry& entry) const;

    std::string directory_;
};

// The ledger of the storage that this process works for. Its name is the argument of SetOwnLedger
// or, when SetOwnLedger was not called, the value of BACKUP_STORAGE.
Ledger OwnLedger();

// The name of the storage that this process works for; "" for the common storage.
std::string OwnStorageName();

// Sets the storage of OwnLedger, for processes that do not get the name of the storage from
// BACKUP_STORAGE. Must be called before the first thread starts.
void SetOwnLedger(const std::string& storage);
