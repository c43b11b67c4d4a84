// What a node client records in the ledger about the uploads of its jobs.
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

// The record of one slice from the moment it is put to the end of its upload. Without Stored or
// Refused the destructor records the upload as abandoned.
class SliceRecord {
  public:
    SliceRecord(PutLedger* ledger, std::string entry, std::string name, LedgerSlice slice);
    ~SliceRecord();
    SliceRecord(const SliceRecord&) = delete;
    SliceRecord& operator=(const SliceRecord&) = delete;

    // Waits for an upload of the same backup by another node client, and keeps others waiting from
    // now on. Records the upload again if another one has ended meanwhile.
    void Hold();

    // The slice is complete and durable on the storage.
    void Stored();
    // The server granted no space.
    void Refused();

  private:
    void End(SliceState state);

    PutLedger* ledger_;
    std::string entry_;
    std::string name_;
    LedgerSlice slice_;
    std::optional<LedgerSlice> previous_;  // of an earlier upload under the same name
    bool ended_ = false;
    std::unique_ptr<kro_file::ByteLock> uploads_;
};

class PutLedger {
  public:
    // `identity`: of the storage that the node client uploads to.
    PutLedger(const std::string& storage_name, std::string identity);

    // Records that a slice is about to be uploaded. Throws std::runtime_error when it is encrypted
    // with another key than the earlier slices of its backup. Without an entry, because the disk is
    // full, the upload goes on.
    std::unique_ptr<SliceRecord> Begin(const std::string& name, std::int64_t bytes,
                                       const std::string& key_hash);

    // Throws std::runtime_error, which names the slice, when a slice that the info file names is
    // not complete on the storage, or when an upload of the backup has failed. Asks the storage for
    // the last slice, and for slices that the ledger does not know.
    void CheckComplete(const std::string& info_path, const quarn2::InfoMap& info,
                       quarn2::Storage& storage);

    // The server has acknowledged the backup. Only archive files that its info file does not name
    // stay in the ledger.
    void Complete(const std::string& info_path, const quarn2::InfoMap& info);

  private:
    friend class SliceRecord;

    // Changes one slice's record, after `before` has changed its entry. Returns false when it
    // cannot be written; then it is remembered while this process lives.
    bool Set(const std::string& entry, const std::string& name, const LedgerSlice& slice,
             const Ledger::Change& before = {});
    void BeginUpload(const std::string& entry, const std::string& name, const LedgerSlice& slice);
    void WaitForOthers(const std::vector<std::string>& entries) const;
    std::vector<LedgerEntry> OwnEntries(const std::string& info_path,
                                        const quarn2::InfoMap& info) const;
    void CheckUploads(const std::string& info_path, const quarn2::InfoMap& info);
    void CheckSlice(const std::string& name, const quarn2::InfoMap& info, quarn2::Storage& storage);
    // Makes it an entry of this storage.
    void BelongHere(LedgerEntry& entry) const;
    bool IsCurrent(const LedgerEntry& entry) const { return entry.IsOf(identity_); }

    Ledger ledger_;
    std::string identity_;
    std::mutex mutex_;
    std::map<std::string, SliceState> unwritten_;  // by stored name
};
