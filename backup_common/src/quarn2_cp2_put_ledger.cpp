#include "quarn2_cp2_put_ledger.h"

#include <algorithm>
#include <set>
#include <stdexcept>
#include <utility>

#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/str.h"
#include "quarn2/names.h"
#include "quarn2_cp2_misc_newest.h"
#include "quarn2_cp2_misc_slices.h"
#include "quarn2_cp2_misc_storage.h"

namespace {

constexpr kro_log::Module kLog("main");
constexpr const char* kNotThere = "the storage does not have it";

const char* Reason(SliceState state) {
    switch (state) {
        case SliceState::kUploading:
            return "its upload was interrupted";
        case SliceState::kAbandoned:
            return "its upload was abandoned";
        case SliceState::kRefused:
            return "its upload was refused";
        case SliceState::kRemoved:
            return "it was removed or belongs to an earlier run of the job";
        case SliceState::kStored:
            break;
    }
    return "it is stored";
}

bool IsFailure(SliceState state) {
    return state != SliceState::kStored && state != SliceState::kRemoved;
}

[[noreturn]] void ThrowIncomplete(const std::string& name, const std::string& reason) {
    throw std::runtime_error("the backup is not complete: '" + name + "' is missing: " + reason +
                             ". Put this file again, or repeat the whole job");
}

// Resets the entry for a job that starts again and replaces its earlier slices. A failed upload of
// the earlier run does not count as a failure of the new run.
void BeginAgain(LedgerEntry& entry) {
    entry.started.clear();
    for (auto& [name, slice] : entry.slices) {
        if (IsFailure(slice.state)) slice.state = SliceState::kRemoved;
    }
}

std::int64_t BytesOf(const quarn2::InfoMap& info) {
    const auto size = info.find("size");
    return size == info.end() ? 0 : std::max<std::int64_t>(str::Int64(size->second), 0);
}

// Records each slice of the complete backup that the job replaces as removed. So the job cannot
// complete the backup before it has uploaded all of these slices again. Slices of another archive
// of the same day do not prevent the completion. For example, when a full backup replaces a daily,
// the slices of the daily stay on the storage and in the entry after the job is complete.
void RecordEarlierRun(LedgerEntry& entry, const std::string& name) {
    const std::string info_path =
        quarn2::GetInfoFile(kDefaultInfoRoot, quarn2::GetUserName(name), quarn2::GetDate(name));
    if (!IsArchive(name) || !kro_file::Exists(info_path)) return;
    try {
        const quarn2::InfoMap info = quarn2::GetInfo(info_path);
        const std::string archive = quarn2::StripSliceNumber(LastSliceOf(info));
        if (!IsArchive(archive) || LedgerKey(archive) != LedgerKey(name)) return;
        for (const std::string& slice : NamedSlices(info)) {
            if (quarn2::StripSliceNumber(slice) != archive) continue;
            entry.slices.try_emplace(slice, LedgerSlice{SliceState::kRemoved, 0, ""});
        }
        entry.earlier_bytes = BytesOf(info);
    } catch (const std::exception& error) {
        KRO_LOG(kLog, 6, "%s", error.what());
    }
}

// True when a slice with this key can belong to the same backup as the stored slices: the key is
// the same, the slice replaces a slice of this name, it is the first slice, or no slice is stored
// yet.
bool HasSameKey(const LedgerEntry& entry, const std::string& name, const std::string& key_hash) {
    if (entry.key_hash == key_hash || entry.slices.contains(name) || IsFirstSlice(name))
        return true;
    return std::none_of(entry.slices.begin(), entry.slices.end(), [](const auto& slice) {
        return slice.second.state == SliceState::kStored;
    });
}

}  // namespace

SliceRecord::SliceRecord(PutLedger* ledger, std::string entry, std::string name, LedgerSlice slice)
    : ledger_(ledger), entry_(std::move(entry)), name_(std::move(name)), slice_(std::move(slice)) {
    const LedgerEntry current = ledger_->ledger_.Read(entry_);
    const auto earlier = current.slices.find(name_);
    if (ledger_->IsCurrent(current) && earlier != current.slices.end()) {
        previous_ = earlier->second;
    }
}

SliceRecord::~SliceRecord() {
    if (!ended_) End(SliceState::kAbandoned);
}

void SliceRecord::Hold() {
    uploads_ = ledger_->ledger_.LockUploads(entry_);
    slice_.state = SliceState::kUploading;
    ledger_->BeginUpload(entry_, name_, slice_);
}

void SliceRecord::Stored() {
    ended_ = true;
    slice_.state = SliceState::kStored;
    ledger_->Set(entry_, name_, slice_);
    uploads_.reset();
}

// An interrupted upload of this slice may already have replaced a slice of a complete backup. The
// state kRefused would make that backup count as complete again, so the slice is recorded as
// abandoned.
void SliceRecord::Refused() {
    const bool is_untouched = !previous_ || previous_->state == SliceState::kRefused;
    End(is_untouched ? SliceState::kRefused : SliceState::kAbandoned);
}

// Ends the record of an upload that has not stored the file. Keeps the size that was recorded
// before the upload.
void SliceRecord::End(SliceState state) {
    ended_ = true;
    slice_.state = state;
    slice_.bytes = previous_ ? previous_->bytes : 0;
    ledger_->Set(entry_, name_, slice_);
    uploads_.reset();
}

PutLedger::PutLedger(const std::string& storage_name, std::string identity)
    : ledger_(storage_name), identity_(std::move(identity)) {}

void PutLedger::SetStorage(LedgerEntry& entry) const {
    const bool is_current = IsCurrent(entry);
    entry.storage = identity_;
    if (is_current) return;
    // The entry belongs to a backup on another storage. The slices there stay, and this entry
    // starts empty.
    std::string name = std::move(entry.name);
    entry = {};
    entry.name = std::move(name);
    entry.storage = identity_;
}

bool PutLedger::Set(const std::string& entry, const std::string& name, const LedgerSlice& slice,
                    const Ledger::Change& before) {
    const bool written = ledger_.Update(entry, [&](LedgerEntry& changed) {
        SetStorage(changed);
        if (before) before(changed);
        changed.slices[name] = slice;
    });
    const std::lock_guard<std::mutex> guard(mutex_);
    if (written) {
        unwritten_.erase(name);
    } else {
        unwritten_[name] = slice.state;
    }
    return written;
}

// Records the start of an upload. Must be called before the upload changes the storage.
void PutLedger::BeginUpload(const std::string& entry, const std::string& name,
                            const LedgerSlice& slice) {
    // Slices in state kRemoved do not show that this run has uploaded anything, because they may
    // belong to an earlier complete backup.
    const auto is_other = [&name](const auto& each) {
        const SliceState state = each.second.state;
        return each.first != name && state != SliceState::kRefused && state != SliceState::kRemoved;
    };
    const bool written = Set(entry, name, slice, [&](LedgerEntry& changed) {
        const bool is_first = std::none_of(changed.slices.begin(), changed.slices.end(), is_other);
        if (is_first) RecordEarlierRun(changed, name);
    });
    if (!written) ledger_.MakeUnknown(entry);
}

std::unique_ptr<SliceRecord> PutLedger::Begin(const std::string& name, std::int64_t bytes,
                                              const std::string& key_hash) {
    const std::string entry_name = ledger_.EntryNameOf(name);
    const LedgerSlice slice{SliceState::kUploading, bytes, key_hash};
    auto record = std::make_unique<SliceRecord>(this, entry_name, name, slice);
    bool same_key = true;
    const bool written = ledger_.Update(entry_name, [&](LedgerEntry& entry) {
        SetStorage(entry);
        same_key = HasSameKey(entry, name, key_hash);
        if (!same_key) return;
        entry.completed.clear();
        if (IsFirstSlice(name)) BeginAgain(entry);
        entry.key_hash = key_hash;
        entry.slices[name] = slice;
    });
    if (!written) {
        const std::lock_guard<std::mutex> guard(mutex_);
        unwritten_[name] = slice.state;
    }
    if (same_key) return record;
    record->Refused();
    throw std::runtime_error("'" + name +
                             "' would be encrypted with another password than the earlier slices "
                             "of its backup: repeat the whole job");
}

void PutLedger::WaitForOthers(const std::vector<std::string>& entries) const {
    for (const std::string& name : entries) {
        const LedgerEntry entry = ledger_.Read(name);
        const bool is_uploading = std::any_of(
            entry.slices.begin(), entry.slices.end(),
            [](const auto& slice) { return slice.second.state == SliceState::kUploading; });
        if (is_uploading) ledger_.LockUploads(name);
    }
}

// The ledger entries that belong to the archive of this info file. Entries of another archive of
// the same backup are left out, because an earlier job of another backup type made that archive.
std::vector<LedgerEntry> PutLedger::OwnEntries(const std::string& info_path,
                                               const quarn2::InfoMap& info) const {
    const std::string archive = ArchiveOf(info);
    std::vector<LedgerEntry> own;
    LedgerEntry latest;
    for (const std::string& name : ledger_.EntriesOf(info_path, info)) {
        LedgerEntry entry = ledger_.Read(name);
        if (!IsCurrent(entry)) continue;
        if (!IsArchive(name) || name == archive) {
            own.push_back(std::move(entry));
        } else if (entry.started >= latest.started) {
            latest = std::move(entry);
        }
    }
    if (archive.empty() && !latest.name.empty()) own.push_back(std::move(latest));
    return own;
}

// Throws for a failed upload even if the info file does not name the file. The file may be an
// index, or the slice that the info file would have named next.
void PutLedger::CheckUploads(const std::string& info_path, const quarn2::InfoMap& info) {
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        for (const auto& [name, state] : unwritten_) {
            if (LedgerKey(name) == LedgerKey(info_path) && IsFailure(state)) {
                ThrowIncomplete(name, Reason(state));
            }
        }
    }
    for (const LedgerEntry& entry : OwnEntries(info_path, info)) {
        for (const auto& [name, slice] : entry.slices) {
            if (IsFailure(slice.state)) ThrowIncomplete(name, Reason(slice.state));
        }
    }
}

void PutLedger::CheckSlice(const std::string& name, const quarn2::InfoMap& info,
                           quarn2::Storage& storage) {
    const LedgerEntry entry = ledger_.Read(ledger_.EntryNameOf(name));
    const auto known = entry.slices.find(name);
    const bool is_known = IsCurrent(entry) && known != entry.slices.end();
    // Always queries the storage for the last slice, because another program may have changed it.
    if ((!is_known || name == LastSliceOf(info)) && !IsOnStorage(storage, name)) {
        ThrowIncomplete(name, kNotThere);
    }
    if (!is_known) return;
    const LedgerSlice& slice = known->second;
    if (slice.state != SliceState::kStored) ThrowIncomplete(name, Reason(slice.state));
    const auto key_hash = info.find("key_hash");
    if (key_hash != info.end() && slice.key_hash != key_hash->second) {
        ThrowIncomplete(name, "it is encrypted with another password than the last slice");
    }
}

void PutLedger::CheckComplete(const std::string& info_path, const quarn2::InfoMap& info,
                              quarn2::Storage& storage) {
    WaitForOthers(ledger_.EntriesOf(info_path, info));
    CheckUploads(info_path, info);
    for (const std::string& name : NamedSlices(info)) CheckSlice(name, info, storage);
}

void PutLedger::Complete(const std::string& info_path, const quarn2::InfoMap& info) {
    const std::vector<std::string> named = NamedSlices(info);
    std::set<std::string> of_roles;
    for (const std::string& name : named) of_roles.insert(ledger_.EntryNameOf(name));
    const std::vector<std::string> entries = ledger_.EntriesOf(info_path, info);
    std::set<std::string> others(entries.begin(), entries.end());
    for (const LedgerEntry& own : OwnEntries(info_path, info)) {
        of_roles.erase(own.name);
        others.erase(own.name);
        ledger_.Update(own.name, [&named](LedgerEntry& entry) { entry.Complete(named); });
    }
    for (const std::string& name : of_roles) {
        others.erase(name);
        ledger_.Update(name, [&named](LedgerEntry& entry) {
            for (const std::string& slice : named) entry.slices.erase(slice);
        });
    }
    const std::int64_t bytes = BytesOf(info);
    for (const std::string& name : others) {
        ledger_.Update(name, [&](LedgerEntry& entry) {
            if (!IsCurrent(entry)) return;
            entry.DropSharedFiles();
            entry.DropSlices(named, bytes);
        });
    }
    // An entry of a later custom backup can contain the index of this backup (see EntryNameOf), and
    // the info file that both backups share. As long as it does, this backup does not count as
    // complete, so these records are removed.
    for (const std::string& name : ledger_.LaterEntriesOf(info_path, info)) {
        const bool is_uploading = ledger_.IsUploading(name);
        ledger_.Update(name, [&](LedgerEntry& entry) {
            if (!IsCurrent(entry)) return;
            entry.DropStoredSharedFiles();
            entry.DropSlices(named, bytes);
            // The job of an entry that could not be written may have uploaded an index before this
            // backup replaced it. The next upload of that job is recorded again.
            if (!is_uploading) entry.is_unknown = false;
        });
    }
}
