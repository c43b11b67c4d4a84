// The ledger: one entry for each backup that is not complete on the storage. Only this unit
// formats, parses and changes entries.
//
// An entry is the file var/quarn2_cp.ledger[#STORAGE]/STEM, where STEM is the name of the archive
// without its slice number ("F2026-11-20.web1"). Its lines are KEY=VALUE:
//   user, date   of the backup; the date is the archive's, for a custom backup too
//   storage      the identity of the storage (see StorageIdentity)
//   key_hash     of the key that encrypts the slices; missing without encryption
//   started      the time when the job put its first slice
//   info         the path of the info file while its put is in progress, "info_bytes" its size
//   earlier_bytes  the size of the complete backup that the job replaces
//   completed    the time when the backup became complete; after that, the entry has only slices
//                that its info file does not name
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
    kRefused,    // not uploaded: the server granted no space, or the key differs
    kRemoved,    // removed after its put, or left by an earlier run of the job
};

struct LedgerSlice {
    SliceState state = SliceState::kUploading;
    std::int64_t bytes = 0;  // the size that the storage may hold under this name
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
    std::int64_t earlier_bytes = 0;             // of the complete backup that the job replaces
    std::map<std::string, LedgerSlice> slices;  // by stored name
    bool is_unknown = false;                    // the storage may have other slices than these

    // True while the backup must not count as complete. Refused uploads alone change nothing on the
    // storage, so a backup that was complete stays complete until its first slice is replaced.
    bool IsOpen() const;
    // True for an entry of this storage or of an unknown storage.
    bool IsOf(const std::string& identity) const { return storage.empty() || storage == identity; }
    // The sum of the sizes of its slices and its info file.
    std::int64_t Bytes() const;
    // Sets the state of every slice to kRemoved. Call it before the files are removed.
    void RecordRemoval();
    // Records that the backup is complete with the slices `named`. Keeps only archive files that
    // its info file does not name: an earlier run of the job made more slices.
    void Complete(const std::vector<std::string>& named);

    // Records that another archive of the same user and day is complete. Its index and info file
    // have replaced those of this entry, so this entry keeps only its archive's slices.
    void LoseSharedFiles();

    std::string Format() const;
    // Returns an open entry of this name without slices when the text cannot be parsed.
    static LedgerEntry Parse(const std::string& name, const std::string& text);

    bool operator==(const LedgerEntry&) const = default;
};

class Ledger {
  public:
    // `storage`: the name of a user's own storage, empty for the common one.
    explicit Ledger(const std::string& storage = "");

    // All entries, sorted by name. When the ledger cannot be read, logs the reason and returns
    // none.
    std::vector<LedgerEntry> Entries() const;

    // The entry, or an empty one of this name.
    LedgerEntry Read(const std::string& name) const;

    // Reads the entry, applies the change and replaces the file durably. Removes an entry without
    // slices and info file. When that fails, logs the reason and returns false.
    using Change = std::function<void(LedgerEntry&)>;
    bool Update(const std::string& name, const Change& change) const;

    // Creates an empty entry unless one of this name exists. A full disk has room for an empty
    // file. The entry shows that the backup is in progress and that its stored slices are unknown.
    // Returns true when it has created the entry. Failures are logged.
    bool MakeUnknown(const std::string& name) const;

    // Removes the entry durably. A failure is only logged.
    void End(const std::string& name) const;

    // The name of the entry to which a stored file belongs. For a slice it is the archive's name.
    // For another file it is the latest entry of its backup, or LedgerKey of the file when there is
    // none.
    std::string EntryNameOf(const std::string& stored_name) const;

    // The names of the entries of the backup with this info file. For a custom backup, archives
    // that are later than the info file's are left out.
    std::vector<std::string> EntriesOf(const std::string& info_path,
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
    std::vector<std::string> Names() const;
    void Replace(const LedgerEntry& entry) const;

    std::string directory_;
};

// The ledger of the storage that this process works for. SetOwnLedger sets the storage's name;
// otherwise BACKUP_STORAGE names it.
Ledger OwnLedger();

// Sets the storage of OwnLedger, for roles that do not get its name from BACKUP_STORAGE. Call it
// before the first thread starts.
void SetOwnLedger(const std::string& storage);
