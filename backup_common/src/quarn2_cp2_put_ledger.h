// Writes the uploads of a node client into the ledger.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kro/kro_byte_lock.h"
#include "quarn2/info.h"
#include "quarn2/storage.h"
#include "quarn2_cp2_ledger.h"

class PutLedger;

// The ledger record of one slice, from its put command to the end of its upload. Unless Stored or
// Refused was called, the destructor records the upload as abandoned.
class SliceRecord {
  public:
    SliceRecord(PutLedger* ledger, std::string entry, std::string name, LedgerSlice slice);
    ~SliceRecord();
    SliceRecord(const SliceRecord&) = delete;
    SliceRecord& operator=(const SliceRecord&) = delete;

    // Waits until no other node client uploads a slice of the same backup, and then takes the
    // upload lock. Then records the upload again, because another upload may have changed the
    // record.
    void Hold();

    // Records that the slice is complete and durable on the storage.
    void Stored();
    // Records that the slice is not uploaded: the server granted no space, or the slice has another
    // key than the earlier slices of its backup.
    void Refused();

  private:
    void End(SliceState state);

    PutLedger* ledger_;
    std::string entry_;
    std::string name_;
    LedgerSlice slice_;
    std::optional<LedgerSlice> previous_;  // the record of an earlier upload under the same name
    bool ended_ = false;
    std::unique_ptr<kro_file::ByteLock> uploads_;
};

class PutLedger {
  public:
    // `identity`: the identity of the storage that the node client uploads to.
    PutLedger(const std::string& storage_name, std::string identity);

    // Records that a slice is about to be uploaded. Throws std::runtime_error when the slice is
    // encrypted with another key than the earlier slices of its backup. When the ledger entry
    // cannot be written, for example on a full disk, the upload continues without an entry.
    std::unique_ptr<SliceRecord> Begin(const std::string& name, std::int64_t bytes,
                                       const std::string& key_hash);

    // Throws std::runtime_error with the name of the slice when a slice in the info file is not
    // complete on the storage, or when an upload of the backup has failed. First waits for the
    // uploads of other node clients. Queries the storage for the last slice and for slices that are
    // not in the ledger.
    void CheckComplete(const std::string& info_path, const quarn2::InfoMap& info,
                       quarn2::Storage& storage);

    // Records that the backup is complete. Called after the server has acknowledged the completion.
    // The ledger then contains only those archive files of the backup that are not in the info
    // file.
    void Complete(const std::string& info_path, const quarn2::InfoMap& info);

  private:
    friend class SliceRecord;

    // Writes the record of one slice into the ledger entry `entry`. Calls `before`, if set, with
    // the entry first. When the entry cannot be written, keeps the state of the slice in memory
    // until the process ends, and returns false.
    bool Set(const std::string& entry, const std::string& name, const LedgerSlice& slice,
             const Ledger::Change& before = {});
    void BeginUpload(const std::string& entry, const std::string& name, const LedgerSlice& slice);
    void WaitForOthers(const std::vector<std::string>& entries) const;
    std::vector<LedgerEntry> OwnEntries(const std::string& info_path,
                                        const quarn2::InfoMap& info) const;
    void CheckUploads(const std::string& info_path, const quarn2::InfoMap& info);
    void CheckSlice(const std::string& name, const quarn2::InfoMap& info, quarn2::Storage& storage);
    // Sets the storage of the entry to the storage of this node client. First clears the entry if
    // it belonged to another storage.
    void SetStorage(LedgerEntry& entry) const;
    bool IsCurrent(const LedgerEntry& entry) const { return entry.IsOf(identity_); }

    Ledger ledger_;
    std::string identity_;
    std::mutex mutex_;
    std::map<std::string, SliceState> unwritten_;  // by stored name
};
