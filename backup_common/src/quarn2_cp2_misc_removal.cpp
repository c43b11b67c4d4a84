#include "quarn2_cp2_misc_removal.h"

#include <algorithm>
#include <list>
#include <optional>
#include <utility>
#include <vector>

#include "kro/kro_date.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/str.h"
#include "quarn2_cp2_ledger.h"
#include "quarn2_cp2_misc_delete.h"
#include "quarn2_cp2_misc_newest.h"
#include "quarn2_cp2_misc_slices.h"

namespace {

constexpr kro_log::Module kLog("main");
constexpr const char* kKey = "deletion";
constexpr const char* kFinished = "finished";
constexpr const char* kWasFinished = "deletion-finished";

// True when the deletion of the backup has begun. If the info file also has "finished", the key
// "deletion" belongs to another program.
bool IsBegun(const quarn2::InfoMap& info) {
    return info.contains(kKey) && !info.contains(kFinished);
}

}  // namespace

bool HasRemovedNothing(const kro_err::Error& error) noexcept {
    return error.kind() == kro_err::Kind::kNotFound || error.kind() == kro_err::Kind::kUnauthorized;
}

Removal::Removal(std::shared_ptr<quarn2::Storage> storage, const std::string& info_path,
                 quarn2::InfoMap info)
    : storage_(std::move(storage)),
      info_path_(info_path),
      info_(std::move(info)),
      marked_(IsBegun(info_)) {
    Mark();
}

void Removal::Mark() {
    // A missing info file is not an error, because another process may have deleted the same
    // backup.
    if (marked_ || !kro_file::Exists(info_path_)) return;
    const std::string old_text = kro_file::Read(info_path_);
    const auto finished = info_.find(kFinished);
    if (finished != info_.end()) info_[kWasFinished] = finished->second;
    info_.erase(kFinished);
    info_[kKey] = kro_date::DateTime::Now().AsDateTime();
    try {
        kro_file::Write(info_path_, str::Join(info_, "\n"));
        old_text_ = old_text;
        marked_ = true;
    } catch (const kro_file::CopyError& error) {
        if (!error.IsFull()) throw;
        KRO_LOG(kLog, 4, "Cant mark '%s' as being deleted. What: %s", info_path_.c_str(),
                error.what());
        has_entry_ = OwnLedger().MakeUnknown(LedgerKey(info_path_)) || has_entry_;
    }
}

void Removal::RemoveFile(const std::string& name) {
    try {
        storage_->RemoveFile(name);
    } catch (const kro_err::Error& error) {
        RecordFailure(error);
        throw;
    }
    RecordRemoved();
}

void Removal::RemoveFiles(const std::vector<std::string>& names) {
    auto name = names.begin();
    if (name == names.end()) return;
    // The first file is removed alone. If that fails, the other files are not touched, and the
    // deletion can be cancelled.
    if (!touched_ || names.size() == 1) RemoveFile(*name++);
    const auto next = [&] { return name == names.end() ? std::nullopt : std::optional(*name++); };
    quarn2::FileError first;
    storage_->RemoveMany(next, [&](const std::string& /*name*/, const quarn2::FileError& error) {
        if (!error) return RecordRemoved();
        RecordFailure(*error);
        if (!first) first = error;
    });
    if (first) throw kro_err::Error(*first);
}

// After any other error than those of HasRemovedNothing, the storage may have removed the file.
void Removal::RecordFailure(const kro_err::Error& error) noexcept {
    touched_ = touched_ || !HasRemovedNothing(error);
}

void Removal::RecordRemoved() {
    if (!touched_) Mark();
    touched_ = true;
}

void Removal::RemoveDir(const std::string& name) {
    // Sets `touched_` before the call, because RemoveDir may fail after it has removed a part of
    // the directory.
    touched_ = true;
    storage_->RemoveDir(name);
}

void Removal::Cancel() const noexcept {
    if (touched_) return;
    try {
        Finish();
        if (!old_text_.empty()) kro_file::Write(info_path_, old_text_);
    } catch (const std::exception& error) {
        KRO_LOG(kLog, 4, "Cant restore '%s'. What: %s", info_path_.c_str(), error.what());
    }
}

void Removal::Finish() const {
    if (has_entry_) OwnLedger().End(LedgerKey(info_path_));
}

void RemoveStoredFiles(quarn2::Storage& storage, const std::vector<std::string>& names) {
    if (names.size() == 1) return storage.RemoveFile(names.front());
    for (const quarn2::FileError& error : storage.RemoveMany(names)) {
        if (error) throw kro_err::Error(*error);
    }
}

void RemoveDirectory(const std::string& directory, const std::string& last) {
    std::vector<std::string> names = kro_file::NamesIn(directory);
    std::erase(names, last);
    for (const std::string& name : names) kro_file::Remove(kro_file::ConcatPath(directory, name));
    if (!names.empty()) kro_file::SyncDir(directory);
    kro_file::Remove(directory);
}

bool IsBeingDeleted(const quarn2::InfoReader& info) {
    return info.Find(kKey).has_value() && !info.Find(kFinished).has_value();
}

namespace {

// The stored names of the backup's index files that exist locally.
std::vector<std::string> LocalIndexes(const std::string& info_path, const std::string& directory) {
    std::string stem = kro_file::Name(info_path);
    str::RGetWord(stem, ".info");
    std::vector<std::string> names;
    for (const char* const ending : {".tgz", ".tgz.aes", ".1.dar"}) {
        const std::string name = stem + ending;
        if (!kro_file::Exists(kro_file::ConcatPath(kro_file::Path(info_path), name))) continue;
        names.push_back(kro_file::ConcatPath(directory, name));
    }
    return names;
}

// Returns true if a "role-..." key has the same value as "last-slice". Such a role has its own
// files on the storage, but the info file does not contain their names.
bool HasSharedRole(const quarn2::InfoMap& info) {
    const auto last = info.find("last-slice");
    return std::any_of(info.begin(), info.end(), [&](const auto& entry) {
        return entry.first != "last-slice" && NamesSlice(entry.first) &&
               (last == info.end() || entry.second == last->second);
    });
}

bool AreOnStorage(quarn2::Storage& storage, const std::vector<std::string>& names) {
    return std::all_of(names.begin(), names.end(),
                       [&storage](const std::string& name) { return IsOnStorage(storage, name); });
}

bool HasSlicesAndInfo(quarn2::Storage& storage, const std::string& info_path,
                      const quarn2::InfoMap& info) {
    std::vector<std::string> names = NamedSlices(info);
    if (names.empty()) return false;
    const std::string directory = kro_file::Path(LastSliceOf(info));
    names.push_back(kro_file::ConcatPath(directory, kro_file::Name(info_path)));
    return AreOnStorage(storage, names);
}

// When a backup has its own directory, a deletion removes the files of this directory in any order.
// So the storage must also have the backup's index. Only the local copy shows the name of the
// index.
bool HasEveryFile(quarn2::Storage& storage, const std::string& info_path,
                  const quarn2::InfoMap& info) {
    const std::string directory = kro_file::Path(LastSliceOf(info));
    const std::vector<std::string> indexes = LocalIndexes(info_path, directory);
    const bool is_index_unknown = !directory.empty() && indexes.empty();
    return !is_index_unknown && !HasSharedRole(info) && AreOnStorage(storage, indexes) &&
           HasSlicesAndInfo(storage, info_path, info);
}

}  // namespace

bool IsCompleteOnStorage(quarn2::Storage& storage, const std::string& info_path,
                         const quarn2::InfoMap& info) {
    return info.contains(kFinished) && HasSlicesAndInfo(storage, info_path, info);
}

bool CancelDeletion(quarn2::Storage& storage, const std::string& info_path) {
    quarn2::InfoMap info = quarn2::GetInfo(info_path);
    const auto finished = info.find(kWasFinished);
    // The deletion of an unfinished backup is not cancelled.
    if (!IsBegun(info) || finished == info.end()) return false;
    if (!HasEveryFile(storage, info_path, info)) return false;
    info[kFinished] = finished->second;
    info.erase(kWasFinished);
    info.erase(kKey);
    kro_file::Write(info_path, str::Join(info, "\n"));
    KRO_LOG(kLog, 4,
            "The interrupted deletion of '%s' had removed nothing and was cancelled. Repeat it if "
            "it is still needed",
            info_path.c_str());
    return true;
}

void FinishDeletions(const std::shared_ptr<quarn2::Storage>& storage,
                     const std::string& directory) {
    std::list<std::string> paths;
    quarn2::GetInfoFiles(paths, directory, false, "", "");
    quarn2::InfoReader info;
    for (const std::string& path : paths) {
        try {
            info.Read(path);
        } catch (const kro_err::Error&) {
            continue;  // a later use of the file reports the error
        }
        if (!IsBeingDeleted(info)) continue;
        KRO_LOG(kLog, 5, "Finish the deletion of '%s'", path.c_str());
        Delete(storage, path, false, {.reason = RemovalReason::kResumed});
    }
}
