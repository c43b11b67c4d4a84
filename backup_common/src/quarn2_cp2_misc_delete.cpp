#include "quarn2_cp2_misc_delete.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kro/kro_date.h"
#include "kro/kro_env.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/str.h"
#include "quarn2/info.h"
#include "quarn2/names.h"
#include "quarn2/token.h"
#include "quarn2_cp2_ledger_deletion.h"
#include "quarn2_cp2_misc.h"
#include "quarn2_cp2_misc_control.h"
#include "quarn2_cp2_misc_encrypted.h"
#include "quarn2_cp2_misc_newest.h"
#include "quarn2_cp2_misc_owner.h"
#include "quarn2_cp2_misc_prefix.h"
#include "quarn2_cp2_misc_removal.h"
#include "quarn2_cp2_misc_slices.h"
#include "quarn2_cp2_misc_storage.h"

namespace {

constexpr kro_log::Module kLog("main");
constexpr std::size_t kFirstSliceEnding = 6;  // ".1.dar"
constexpr std::size_t kCustomHead = 11;  // "C" and a date; companion names have "custom" instead

bool IsFull(quarn2::InfoMap& info) { return info["type"] == "full"; }

// A backup that is being deleted and whose files are at the storage root: the location and the
// names of these files.
struct PlainBackup {
    Removal& storage;
    std::string directory;  // the directory of the info file
    std::string extension;
    std::string last_slice;  // complete value of "last-slice", not only its first word
};

// The number of the last slice; 0 when the name has no valid number.
int CountOf(const std::string& number) {
    try {
        return str::Int(number);
    } catch (const kro_err::Error& error) {
        KRO_LOG(kLog, 4, "Slice without a number. What: %s", error.what());
        return 0;
    }
}

// Removes only the slices that the storage lists. If the info file contains an impossibly high
// slice number, one request for each possible slice would take hours.
void RemoveListed(Removal& storage, const std::string& stem, int count, const std::string& ending) {
    std::vector<std::string> names;
    storage.storage()->List(names, "");
    std::erase_if(names, [&](const std::string& name) {
        if (!str::StartsWith(name, stem) || !str::EndsWith(name, ending)) return true;
        const std::size_t digits = name.size() - std::min(name.size(), stem.size() + ending.size());
        const std::string number = name.substr(stem.size(), digits);
        return !str::HasDigitsOnly(number) || str::Int64(number) > count;
    });
    storage.RemoveFiles(names);
}

// Removes the numbered slices, several at the same time. An interrupted deletion can leave any of
// them. The info file is removed later and contains the name of the last slice until then, so the
// deletion can be repeated.
void RemoveNumbered(Removal& storage, const std::string& stem, int count,
                    const std::string& ending) {
    if (count > kMaxSlices) {
        RemoveListed(storage, stem, count, ending);
        return;
    }
    std::vector<std::string> names;
    names.reserve(static_cast<std::size_t>(std::max(count, 0)));
    for (int i = 0; i < count; ++i) {
        names.push_back(std::string(stem).append(str::Str(count - i)).append(ending));
    }
    storage.RemoveFiles(names);
}

// Removes the archive's slices. Returns the name from which the names of the companion files are
// derived.
std::string RemoveArchiveSlices(const PlainBackup& backup, std::string slice) {
    KRO_LOG(kLog, 6, "Delete '%s'", slice.c_str());
    if (str::EndsWith(slice, backup.extension)) {
        backup.storage.RemoveFile(slice);
        return slice;
    }
    if (str::EndsWith(slice, ".dar")) {
        slice.resize(slice.size() - std::string_view(".dar").size());
        const int count = CountOf(str::RGetWord(slice, "."));
        RemoveNumbered(backup.storage, slice + ".", count, ".dar");
        return slice + ".1.dar";
    }
    const int count = CountOf(str::RGetWord(slice, ".part"));
    RemoveNumbered(backup.storage, slice + ".part", count, "");
    return slice;
}

// The name of the first slice of a further archive, which a key role-X of the info file describes.
// If the value of role-X is the slice name of the main archive, the slices of the further archive
// have X in their names.
std::string InsertRole(const PlainBackup& backup, std::string slice, const std::string& role) {
    const std::size_t place = slice.find(backup.extension);
    if (place != std::string::npos) slice.insert(place, role);
    if (!str::EndsWith(slice, backup.extension)) str::RGetWord(slice, ".part");
    return slice;
}

std::string CompanionName(std::string slice) {
    if (str::StartsWith(slice, "C")) return slice.replace(0, kCustomHead, "custom");
    return slice.erase(0, slice.empty() ? 0 : 1);
}

std::string Stem(const PlainBackup& backup, const std::string& slice) {
    const std::size_t ending =
        str::EndsWith(slice, backup.extension) ? backup.extension.size() : kFirstSliceEnding;
    return slice.substr(0, slice.size() - std::min(ending, slice.size()));
}

void RemoveCompanions(const PlainBackup& backup, const std::string& slice) {
    backup.storage.RemoveFile(CompanionName(slice));
    const std::string stem = Stem(backup, slice);
    kro_file::RemoveFile(kro_file::ConcatPath(backup.directory, stem + ".tgz"));
    DeleteEncryptedIndex(kro_file::ConcatPath(backup.directory, stem + ".tgz.aes"));
    backup.storage.RemoveFile(stem + ".info");
    // The removals on the storage must be durable before the local info file is removed. Stored
    // files may reappear after a crash, and only the local info file refers to them.
    backup.storage.storage()->SyncRemovals("");
    kro_file::RemoveFile(kro_file::ConcatPath(backup.directory, stem + ".info"));
}

void DeletePlainEntry(const PlainBackup& backup, const std::string& key, const std::string& slice) {
    const bool shared_role = key != "last-slice" && slice == backup.last_slice;
    const std::string name =
        shared_role ? InsertRole(backup, slice, key.substr(std::string_view("role-").size()))
                    : RemoveArchiveSlices(backup, slice);
    // The info file can contain any name for a role, and local file names are derived from this
    // name.
    if (name.find('/') != std::string::npos) {
        throw std::runtime_error(str::Quoted(name) + " is not the name of a slice");
    }
    RemoveCompanions(backup, name);
}

// Removes the local files with the backup's name. Removes the info file last, because the deletion
// can be repeated as long as the info file exists.
void RemoveLocalFiles(const std::string& info_path) {
    const std::string directory = kro_file::Path(info_path);
    std::string name = kro_file::Name(info_path);
    str::RGetWord(name, ".info");
    // `name` may be empty. If the ending were empty too, the path would be that of the directory.
    const auto local = [&](const char* ending) {
        return kro_file::ConcatPath(directory, name + ending);
    };
    kro_file::RemoveFile(local(".tgz"));
    DeleteEncryptedIndex(local(".tgz.aes"));
    kro_file::RemoveFile(local(".tgz.aes"));
    kro_file::RemoveFile(local(".1.dar"));
    kro_file::RemoveFile(info_path);
    // Makes the removals durable, because an info file that reappears after a crash would count as
    // a backup.
    kro_file::SyncDir(directory);
}

// The names of the backup's files in a directory of the storage.
BackupNames NamesOf(const std::string& info_path, const quarn2::InfoMap& info,
                    const std::string& directory) {
    const std::string info_name = kro_file::Name(info_path);
    BackupNames names{quarn2::GetUserName(info_name), quarn2::GetDate(info_name), {}};
    for (const auto& [key, value] : info) {
        std::string rest = value;
        const std::string slice = NamesSlice(key) ? str::GetWord(rest) : "";
        if (slice.empty() || kro_file::Path(slice) != directory) continue;
        std::string name = kro_file::Name(slice);
        names.stems.insert(quarn2::StripSliceNumber(name));
        // The value of a key role-X can be the slice name of the main archive. Then the further
        // archive has its own files in the same directory, with X in their names.
        const std::size_t ending = name.find(quarn2::GetExtByInfo(info));
        if (key == "last-slice" || ending == std::string::npos) continue;
        name.insert(ending, key.substr(std::string_view("role-").size()));
        names.stems.insert(quarn2::StripSliceNumber(name));
    }
    return names;
}

// Removes the backup's files from a directory of the storage. Removes the info file last: as long
// as the storage has the info file, a rescan downloads it and the deletion can be repeated.
void RemoveOwnFiles(Removal& storage, const std::string& directory,
                    const std::vector<std::string>& names, const BackupNames& backup) {
    const std::string info_name = backup.date + "." + backup.user + ".info";
    std::vector<std::string> own;
    for (const std::string& name : names) {
        if (name == info_name || !BelongsTo(name, backup)) continue;
        own.push_back(kro_file::ConcatPath(directory, name));
    }
    storage.RemoveFiles(own);
    storage.RemoveFile(kro_file::ConcatPath(directory, info_name));
    storage.storage()->SyncRemovals(directory);
}

// Removes the backup's directory on the storage, or only the backup's files if other backups use
// the same directory. That happens when a job stages the archives of several users in one directory
// that is named like a date.
void RemoveStoredDirectory(Removal& storage, const std::string& directory,
                           const std::string& info_path, const quarn2::InfoMap& info) {
    const BackupNames backup = NamesOf(info_path, info, directory);
    const std::vector<std::string> names = ListOrNothing(*storage.storage(), directory);
    if (OwnsDirectory(directory, names, backup)) {
        storage.RemoveDir(directory);
        return;
    }
    KRO_LOG(
        kLog, 5,
        "Directory '%s' does not belong to '%s' alone: only the files of that backup are removed",
        directory.c_str(), info_path.c_str());
    RemoveOwnFiles(storage, directory, names, backup);
}

bool HoldsOtherBackups(const std::string& directory, const std::string& info_name) {
    const std::vector<std::string> names = kro_file::NamesIn(directory);
    return std::any_of(names.begin(), names.end(), [&info_name](const std::string& name) {
        if (name != info_name && str::EndsWith(name, ".info")) return true;
        return quarn2::IsBackupFile(name) &&
               quarn2::GetUserName(name) != quarn2::GetUserName(info_name);
    });
}

// True when the info file's directory is USER/DATE and has no files of other backups. In all other
// directories, for example the info root, only the backup's own files may be removed.
bool IsOwnDirectory(const std::string& directory, const std::string& info_name) {
    return kro_file::Name(directory) == quarn2::GetDate(info_name) &&
           kro_file::Name(kro_file::Path(directory)) == quarn2::GetUserName(info_name) &&
           !HoldsOtherBackups(directory, info_name);
}

void RemoveLocalDirectory(const std::string& info_path) {
    const auto [directory, info_name] = kro_file::SplitPath(info_path);
    if (!IsOwnDirectory(directory, info_name)) {
        RemoveLocalFiles(info_path);
        return;
    }
    RemoveDirectory(directory, info_name);
    std::string parent = kro_file::Path(directory);
    if (!parent.empty() && !kro_file::Dir(parent, 2).Read()) {
        kro_file::Remove(parent);
        parent = kro_file::Path(parent);
    }
    kro_file::SyncDir(parent);
}

// Removes the stored index of an archive whose extension is not .tgz. An index always has the
// extension .tgz, but RemoveCompanions uses the extension of the archive.
void RemoveStoredIndex(const PlainBackup& backup, const std::string& info_path) {
    if (backup.extension == ".tgz") return;
    std::string name = kro_file::Name(info_path);
    if (str::RGetWord(name, ".info"); !name.empty()) backup.storage.RemoveFile(name + ".tgz");
}

// Removes the info file from the storage root, independent of the names of the slices, so that a
// rescan does not download it again.
void RemoveStoredInfo(Removal& storage, const std::string& info_path) {
    storage.RemoveFile(kro_file::Name(info_path));
    storage.storage()->SyncRemovals("");
}

// Deletes the files of every key in the info file that names slices, then the stored info file and
// the local files.
void DeleteEntries(Removal& storage, const std::string& info_path, const quarn2::InfoMap& info) {
    const auto last_slice = info.find("last-slice");
    const PlainBackup backup{storage, kro_file::Path(info_path), quarn2::GetExtByInfo(info),
                             last_slice == info.end() ? "" : last_slice->second};
    bool plain_form = false;
    bool directory_form = false;
    bool all_deleted = true;
    // The keys are sorted. In reverse order, the further archives (keys "role-...") are deleted
    // before the main archive (key "last-slice").
    for (auto entry = info.rbegin(); entry != info.rend(); ++entry) {
        const auto& [key, value] = *entry;
        if (!NamesSlice(key)) continue;
        std::string rest = value;
        const std::string slice = str::GetWord(rest);
        const std::string remote_directory = kro_file::Path(slice);
        if (slice.empty()) {
            KRO_LOG(kLog, 4, "Last slice in '%s' is empty", info_path.c_str());
            all_deleted = DeleteByPrefix(storage.storage(), info_path) && all_deleted;
        } else if (!remote_directory.empty()) {
            directory_form = true;
            if (key == "last-slice") {
                RemoveStoredDirectory(storage, remote_directory, info_path, info);
            }
        } else {
            plain_form = true;
            DeletePlainEntry(backup, key, slice);
        }
    }
    // Keeps the info file when slices could not be deleted, because another attempt needs the info
    // file.
    if (all_deleted && plain_form) RemoveStoredIndex(backup, info_path);
    if (all_deleted && (plain_form || !directory_form)) RemoveStoredInfo(storage, info_path);
    if (directory_form) {
        RemoveLocalDirectory(info_path);
    } else if (all_deleted) {
        RemoveLocalFiles(info_path);
    }
}

void DeleteBackup(const std::shared_ptr<quarn2::Storage>& storage, const std::string& info_path,
                  const quarn2::InfoMap& info, const DeletionEvents& events) {
    // Throws before any change when the storage does not answer.
    ListOrNothing(*storage, kro_file::Name(info_path));
    const LedgerDeletion ledger(info_path, info);
    Removal removal(storage, info_path, info);
    if (removal.has_begun()) events.Begun();
    try {
        DeleteEntries(removal, info_path, info);
    } catch (const std::exception&) {
        removal.Cancel();
        throw;
    }
    ledger.Finish(*storage);
    removal.Finish();
}

}  // namespace

void Delete(std::shared_ptr<quarn2::Storage> storage, const std::string& info_path, bool skip_full,
            const DeletionCause& cause) {
    DeletionEvents events(info_path, cause);
    try {
        quarn2::InfoMap info = quarn2::GetInfo(info_path);
        if (skip_full && IsFull(info)) {
            KRO_LOG(kLog, 5, "Skip full backup %s", info_path.c_str());
            return;
        }
        events.SetInfo(info);
        DeleteBackup(storage, info_path, info, events);
    } catch (const std::exception& error) {
        // When the info file does not exist, another process has deleted the backup.
        if (kro_file::Exists(info_path)) events.Failed(error.what());
        throw;
    }
    // The info file stays when files of the backup could not be removed.
    if (!kro_file::Exists(info_path)) {
        events.Deleted();
    } else {
        events.Failed("files of the backup could not be removed; see the log");
    }
}

namespace {

// Identifies a full backup, to find the backups of the same week that depend on it.
struct Week {
    std::string user_dir;
    std::string user;
    std::string date;
    std::string identity;  // value of "base" in the info files of the dependent backups
};

// The root directory of the local info files. They are in the same subdirectories below it as the
// archives on the storage.
std::string InfoRootOf(const std::string& info_path, const std::string& archive_dir) {
    std::string local_dir = kro_file::Path(info_path);
    return kro_file::GoodPath(str::GetWord(local_dir, archive_dir));
}

Week FindWeek(quarn2::InfoMap& info, const std::string& info_path) {
    const std::string archive_dir = kro_file::Path(info["last-slice"]);
    const std::string root = InfoRootOf(info_path, archive_dir);
    std::string name = kro_file::Name(info_path);
    Week week;
    week.user = quarn2::GetUserName(name);
    week.date = quarn2::GetDate(name);
    str::RGetWord(name, ".info");
    if (name.empty()) throw std::runtime_error("Bad info file name");
    week.identity = kro_file::ConcatPath(archive_dir, "F" + name + quarn2::GetExtByInfo(info));
    week.user_dir = quarn2::IsAdminData(root) ? root : kro_file::ConcatPath(root, week.user);
    return week;
}

// The info files of the backups that depend on a full backup, the newest first. In this order, an
// interrupted deletion leaves only backups that can be restored.
std::vector<std::string> FindDependants(const Week& week) {
    constexpr int kLastWeekday = 6;
    std::vector<std::string> found;
    kro_date::Date day(week.date);
    day.AddDays(kLastWeekday - day.weekday());
    for (; day.AsDate() != week.date; day.AddDays(-1)) {
        const std::string candidate = quarn2::GetInfoFile(week.user_dir, week.user, day.AsDate());
        if (!kro_file::Exists(candidate)) continue;
        if (quarn2::GetInfo(candidate)["base"] == week.identity) found.push_back(candidate);
    }
    return found;
}

// Throws when the storage has neither a file of this backup nor one of the newest backups. On a
// storage that is not mounted, the deletion would find no files and remove only the info file, and
// the backup's files would stay on the storage without being counted.
void CheckIsOurStorage(quarn2::Storage& storage, const quarn2::InfoMap& info,
                       const std::string& info_path) {
    const auto found = info.find("last-slice");
    std::string value = found == info.end() ? std::string() : found->second;
    const std::string last_slice = str::GetWord(value);
    if (HasFilesOf(storage, last_slice, info_path)) return;
    const NewestCheck check =
        FindNewestOnStorage(storage, InfoRootOf(info_path, kro_file::Path(last_slice)));
    if (check.result != NewestOnStorage::kNoneFound) return;
    throw std::runtime_error("the storage has neither the backup of '" + info_path +
                             "' nor one of the " + str::Str(check.asked) +
                             " newest backups of the info root; nothing was removed. Check that "
                             "the storage is mounted and that the token is correct. If the "
                             "storage was emptied on purpose, run --server --rescan");
}

}  // namespace

void DeleteWithDepends(std::shared_ptr<quarn2::Storage> storage, const std::string& info_path,
                       bool force) {
    quarn2::InfoMap info = quarn2::GetInfo(info_path);
    const bool is_full = IsFull(info);
    std::vector<std::string> dependants;
    if (is_full) dependants = FindDependants(FindWeek(info, info_path));
    if (!force && !dependants.empty()) {
        throw std::runtime_error("Failed to delete backup. Depended backup '" + dependants.front() +
                                 "' still exists");
    }
    CheckIsOurStorage(*storage, info, info_path);
    for (const std::string& dependant : dependants) {
        Delete(storage, dependant, false, {.reason = RemovalReason::kDependant});
    }
    Delete(storage, info_path, !is_full);
}

void CommandDelete(kro_args::ResultPtr result) {
    const std::string path = GetArgPath(result->Args(0));
    KRO_LOG(kLog, 5, "Delete %s", path.c_str());
    if (!kro_file::Exists(path)) return;
    const std::string token = kro_env::GetEnv("BACKUP_TOKEN");
    if (token.empty()) {
        const auto word =
            result->Has("force") ? ControlCommand::Word::kDeleteAll : ControlCommand::Word::kDelete;
        SendCommand(FormatControlCommand({word, path}));
    } else {
        // A malformed token throws here. --delete must not fall back to the running server, which
        // may serve a different storage.
        DeleteWithDepends(GetStorageByEnv(), path, result->Has("force"));
    }
}
