#include "quarn2_cp2_ledger.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "kro/kro_date.h"
#include "kro/kro_env.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/kro_new_file.h"
#include "kro/str.h"
#include "quarn2/names.h"
#include "quarn2_cp2_misc_sizes.h"
#include "quarn2_cp2_misc_slices.h"

namespace {

constexpr kro_log::Module kLog("main");
constexpr mode_t kDirectoryMode = 0700;
constexpr mode_t kEntryMode = 0600;
constexpr const char* kParent = "var";
constexpr const char* kDirectory = "var/quarn2_cp.ledger";
constexpr const char* kLockFile = ".lock";
constexpr std::string_view kSliceKey = "slice-";

constexpr std::array<std::pair<SliceState, std::string_view>, 5> kStates = {
    {{SliceState::kUploading, "uploading"},
     {SliceState::kStored, "stored"},
     {SliceState::kAbandoned, "abandoned"},
     {SliceState::kRefused, "refused"},
     {SliceState::kRemoved, "removed"}}};

std::string NameOf(SliceState state) {
    const auto found = std::find_if(kStates.begin(), kStates.end(),
                                    [state](const auto& known) { return known.first == state; });
    return std::string(found->second);
}

std::optional<SliceState> ParseState(std::string_view name) {
    const auto found = std::find_if(kStates.begin(), kStates.end(),
                                    [name](const auto& known) { return known.second == name; });
    if (found == kStates.end()) return std::nullopt;
    return found->first;
}

void ParseSlice(LedgerEntry& entry, std::string value) {
    const std::optional<SliceState> state = ParseState(str::GetWord(value));
    if (!state) return;
    LedgerSlice slice;
    slice.state = *state;
    slice.bytes = std::max<std::int64_t>(str::Int64(str::GetWord(value)), 0);
    const std::string name = str::GetWord(value);
    slice.key_hash = value;
    if (!name.empty()) entry.slices[name] = std::move(slice);
}

// The date in the name of a ledger entry. The name is that of an archive (F, I or C and the date),
// or DATE.USER.
std::string DateIn(const std::string& name) {
    constexpr std::size_t kDateSize = std::string_view("YYYY-MM-DD").size();
    return IsArchive(name) ? name.substr(1, kDateSize) : quarn2::GetDate(name);
}

std::optional<std::string>& OwnStorage() {
    static std::optional<std::string> name;
    return name;
}

// Throws for a name that cannot be the file name of an entry. A leading dot is not allowed, because
// the lock file in the same directory has such a name.
void CheckEntryName(const std::string& name) {
    if (quarn2::IsSafeName(name) && name.front() != '.') return;
    throw kro_err::Error(kro_err::Kind::kFailed,
                         str::Quoted(name) + " is not the name of a backup");
}

LedgerEntry EmptyEntry(const std::string& name) {
    LedgerEntry entry;
    entry.name = name;
    return entry;
}

void LogFailure(const std::string& path, const std::exception& error) {
    KRO_LOG(kLog, 4,
            "Cant write '%s', so an interruption of this backup may not be noticed. What: %s",
            path.c_str(), error.what());
}

// The byte of the lock file for changes of an entry. Two entries whose names have the same hash
// share a byte. Then a change of one waits for a change of the other.
std::int64_t ChangeByte(const std::string& name) {
    return 2 * static_cast<std::int64_t>(std::hash<std::string>()(name) >> 3U);
}

std::int64_t UploadByte(const std::string& name) { return ChangeByte(name) + 1; }

// The recorded size of a slice of a replaced backup whose bytes another slice of its archive
// contains. It is not 0, because slices of size 0 are removed from a completed entry.
constexpr std::int64_t kCountedWithOther = 1;

// Removes a slice from a completed entry. If other slices are counted with this slice, one of them
// gets its size. That size may be larger than the file, because the entry must never count less
// than the storage has.
void EraseSlice(LedgerEntry& entry, const std::string& stored_name) {
    const auto erased = entry.slices.extract(stored_name);
    const std::string archive = quarn2::StripSliceNumber(stored_name);
    for (auto& [name, slice] : entry.slices) {
        if (slice.bytes != kCountedWithOther || quarn2::StripSliceNumber(name) != archive) continue;
        slice.bytes = erased.mapped().bytes;
        return;
    }
}

// True when the job of `entry` is later than that of `other`. A completed entry is earlier than any
// other, because the clock may have been set back since its job, or both jobs may have started in
// the same second.
bool IsLater(const LedgerEntry& entry, const LedgerEntry& other) {
    if (entry.completed.empty() != other.completed.empty()) return entry.completed.empty();
    return entry.started >= other.started;
}

}  // namespace

bool LedgerEntry::IsOpen() const {
    if (!completed.empty()) return false;
    if (!info.empty() || is_unknown) return true;
    return std::any_of(slices.begin(), slices.end(), [](const auto& slice) {
        return slice.second.state != SliceState::kRefused;
    });
}

std::int64_t LedgerEntry::Bytes() const {
    std::int64_t sum = info_bytes;
    for (const auto& [stored_name, slice] : slices) sum = SumOfSizes(sum, slice.bytes);
    return sum;
}

void LedgerEntry::RecordRemoval() {
    for (auto& [stored_name, slice] : slices) slice.state = SliceState::kRemoved;
}

void LedgerEntry::Complete(const std::vector<std::string>& named) {
    for (const std::string& slice : named) slices.erase(slice);
    std::erase_if(slices, [](const auto& slice) { return !IsArchive(slice.first); });
    for (auto& [stored_name, slice] : slices) {
        const bool is_earlier = slice.state == SliceState::kRemoved && earlier_bytes > 0;
        // The sizes of the single slices of the earlier backup are unknown. The first slice gets
        // the size of the complete earlier backup.
        if (slice.bytes == 0 && is_earlier) {
            slice.bytes = std::exchange(earlier_bytes, kCountedWithOther);
        }
        slice.state = SliceState::kRemoved;
    }
    std::erase_if(slices, [](const auto& slice) { return slice.second.bytes == 0; });
    is_unknown = false;
    earlier_bytes = 0;
    info.clear();
    info_bytes = 0;
    completed = kro_date::DateTime::Now().AsDateTime();
}

void LedgerEntry::DropSharedFiles() {
    std::erase_if(slices, [](const auto& slice) { return !IsArchive(slice.first); });
    info.clear();
    info_bytes = 0;
    is_unknown = false;
}

void LedgerEntry::DropStoredSharedFiles() {
    std::erase_if(slices, [](const auto& slice) {
        return !IsArchive(slice.first) && slice.second.state == SliceState::kStored;
    });
    info.clear();
    info_bytes = 0;
}

void LedgerEntry::DropSlices(const std::vector<std::string>& named, std::int64_t bytes) {
    for (const std::string& lost : named) {
        const auto slice = slices.find(lost);
        if (slice == slices.end()) continue;
        if (!completed.empty()) {
            EraseSlice(*this, lost);
        } else {
            // This entry's job is not complete and still replaces the other backup. So the entry
            // gets the state in which such a job begins: the slices have 0 bytes, and
            // `earlier_bytes` counts them.
            slice->second = {SliceState::kRemoved, 0, ""};
            earlier_bytes = bytes;
        }
    }
}

std::string LedgerEntry::Format() const {
    std::map<std::string, std::string> lines;
    lines["user"] = quarn2::GetUserName(name);
    lines["date"] = DateIn(name);
    lines["storage"] = storage;
    lines["started"] = started;
    if (!key_hash.empty()) lines["key_hash"] = key_hash;
    if (!info.empty()) lines["info"] = info;
    if (info_bytes != 0) lines["info_bytes"] = str::Str(info_bytes);
    if (!completed.empty()) lines["completed"] = completed;
    if (is_unknown) lines["unknown"] = "yes";
    if (earlier_bytes != 0) lines["earlier_bytes"] = str::Str(earlier_bytes);
    int number = 0;
    for (const auto& [stored_name, slice] : slices) {
        std::string line = NameOf(slice.state) + " " + str::Str(slice.bytes) + " " + stored_name;
        lines[std::string(kSliceKey) + str::Str(++number)] = str::Append(line, slice.key_hash, " ");
    }
    return str::Join(lines, "\n");
}

LedgerEntry LedgerEntry::Parse(const std::string& name, const std::string& text) {
    LedgerEntry entry = EmptyEntry(name);
    try {
        std::map<std::string, std::string> lines = str::Split(text, "\n");
        entry.storage = lines["storage"];
        entry.key_hash = lines["key_hash"];
        entry.started = lines["started"];
        entry.info = lines["info"];
        entry.info_bytes = std::max<std::int64_t>(str::Int64(lines["info_bytes"]), 0);
        entry.completed = lines["completed"];
        entry.is_unknown = text.empty() || lines.contains("unknown");
        entry.earlier_bytes = std::max<std::int64_t>(str::Int64(lines["earlier_bytes"]), 0);
        for (const auto& [key, value] : lines) {
            if (str::StartsWith(key, kSliceKey)) ParseSlice(entry, value);
        }
    } catch (const kro_err::Error& error) {
        KRO_LOG(kLog, 4, "Ledger entry '%s' cannot be used. What: %s", name.c_str(), error.what());
        entry = EmptyEntry(name);
        entry.is_unknown = true;
    }
    return entry;
}

Ledger::Ledger(const std::string& storage) : directory_(str::Append(kDirectory, storage, "#")) {}

std::vector<Ledger> Ledger::All() {
    std::vector<Ledger> ledgers;
    const std::string common = kro_file::Name(kDirectory);
    for (const std::string& name : kro_file::NamesIn(kParent)) {
        if (name != common && !str::StartsWith(name, common + "#")) continue;
        ledgers.push_back(Ledger(FromDirectory(), kro_file::ConcatPath(kParent, name)));
    }
    return ledgers;
}

// Throws when the directory belongs to another user, because entries of that user could cause the
// removal of files.
bool Ledger::HasDirectory() const {
    if (!kro_file::Exists(directory_)) return false;
    kro_file::CheckOurDirectory(directory_);
    return true;
}

std::vector<std::string> Ledger::Names() const {
    std::vector<std::string> names;
    try {
        if (HasDirectory()) names = kro_file::NamesIn(directory_);
    } catch (const kro_err::Error& error) {
        KRO_LOG(kLog, 4, "Cannot read the ledger directory '%s': %s", directory_.c_str(),
                error.what());
    }
    std::erase_if(names, [](const std::string& name) {
        return name == kLockFile || kro_file::IsTemporaryName(name);
    });
    return names;
}

std::vector<LedgerEntry> Ledger::Entries() const {
    std::vector<LedgerEntry> entries;
    for (const std::string& name : Names()) entries.push_back(Read(name));
    return entries;
}

LedgerEntry Ledger::Read(const std::string& name) const {
    const std::string path = kro_file::ConcatPath(directory_, name);
    const std::string text = kro_file::ReadE(path);
    if (!text.empty() || kro_file::Exists(path)) return LedgerEntry::Parse(name, text);
    return EmptyEntry(name);
}

std::string Ledger::LockPath() const { return kro_file::ConcatPath(directory_, kLockFile); }

std::unique_ptr<kro_file::ByteLock> Ledger::LockUploads(const std::string& name) const {
    try {
        if (!HasDirectory()) return nullptr;
        return std::make_unique<kro_file::ByteLock>(LockPath(), UploadByte(name));
    } catch (const kro_err::Error& error) {
        KRO_LOG(kLog, 4, "%s", error.what());
        return nullptr;
    }
}

bool Ledger::IsUploading(const std::string& name) const {
    try {
        return HasDirectory() && kro_file::ByteLock::IsLocked(LockPath(), UploadByte(name));
    } catch (const kro_err::Error& error) {
        KRO_LOG(kLog, 6, "%s", error.what());
        return true;
    }
}

void Ledger::Replace(const LedgerEntry& entry) const {
    const std::string path = kro_file::ConcatPath(directory_, entry.name);
    if (!entry.slices.empty() || !entry.info.empty()) {
        kro_file::Write(path, entry.Format(), kEntryMode);
    } else if (kro_file::Exists(path)) {
        kro_file::RemoveFile(path);
        kro_file::SyncDir(directory_);
    }
}

void Ledger::Prepare(const std::string& name) const {
    CheckEntryName(name);
    if (!HasDirectory()) kro_file::MkDirSynced(directory_, kDirectoryMode);
}

bool Ledger::Update(const std::string& name, const Change& change) const {
    try {
        Prepare(name);
        const kro_file::ByteLock lock(LockPath(), ChangeByte(name));
        LedgerEntry entry = Read(name);
        const LedgerEntry before = entry;
        change(entry);
        if (entry == before) return true;
        if (entry.started.empty()) entry.started = kro_date::DateTime::Now().AsDateTime();
        Replace(entry);
        return true;
    } catch (const kro_err::Error& error) {
        LogFailure(kro_file::ConcatPath(directory_, name), error);
        return false;
    }
}

bool Ledger::MakeUnknown(const std::string& name) const {
    const std::string path = kro_file::ConcatPath(directory_, name);
    try {
        Prepare(name);
        const kro_file::ByteLock lock(LockPath(), ChangeByte(name));
        if (kro_file::Exists(path)) return false;
        kro_file::Write(path, "", kEntryMode);
        return true;
    } catch (const kro_err::Error& error) {
        LogFailure(path, error);
        return false;
    }
}

void Ledger::End(const std::string& name) const {
    try {
        if (!HasDirectory()) return;
        const kro_file::ByteLock lock(LockPath(), ChangeByte(name));
        Replace(EmptyEntry(name));
    } catch (const kro_err::Error& error) {
        KRO_LOG(kLog, 4, "Cant remove ledger entry '%s'. What: %s", name.c_str(), error.what());
    }
}

std::string Ledger::EntryNameOf(const std::string& stored_name) const {
    std::string stem = quarn2::StripSliceNumber(kro_file::Name(stored_name));
    if (IsArchive(stem)) return stem;
    const std::string key = LedgerKey(stored_name);
    LedgerEntry latest;
    for (const std::string& name : Names()) {
        if (!IsArchive(name) || LedgerKey(name) != key) continue;
        LedgerEntry entry = Read(name);
        if (latest.name.empty() || IsLater(entry, latest)) latest = std::move(entry);
    }
    return latest.name.empty() ? key : latest.name;
}

std::vector<std::string> Ledger::Select(const std::string& info_path, const quarn2::InfoMap& info,
                                        bool later) const {
    const std::string key = LedgerKey(info_path);
    const std::string archive = ArchiveOf(info);
    std::vector<std::string> found;
    for (const std::string& name : Names()) {
        if (LedgerKey(name) != key) continue;
        // An archive of a later date belongs to another custom backup, which a job may be making
        // now.
        const bool is_later_custom =
            str::StartsWith(name, "C") && !archive.empty() && name > archive;
        if (is_later_custom == later) found.push_back(name);
    }
    return found;
}

std::vector<std::string> Ledger::EntriesOf(const std::string& info_path,
                                           const quarn2::InfoMap& info) const {
    return Select(info_path, info, false);
}

std::vector<std::string> Ledger::LaterEntriesOf(const std::string& info_path,
                                                const quarn2::InfoMap& info) const {
    return Select(info_path, info, true);
}

std::string OwnStorageName() {
    return OwnStorage() ? *OwnStorage() : kro_env::GetEnv("BACKUP_STORAGE");
}

Ledger OwnLedger() { return Ledger(OwnStorageName()); }

void SetOwnLedger(const std::string& storage) { OwnStorage() = storage; }
