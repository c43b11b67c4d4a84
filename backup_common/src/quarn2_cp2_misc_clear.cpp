#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

#include "kro/kro_env.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/str.h"
#include "quarn2/token.h"
#include "quarn2_cp2_misc.h"
#include "quarn2_cp2_misc_newest.h"
#include "quarn2_cp2_misc_removal.h"

namespace {

constexpr kro_log::Module kLog("main");
constexpr const char* kInfoRoot = kDefaultInfoRoot;
constexpr const char* kClearMark = ".clear";
constexpr const char* kWhy = "incomplete backup";

// A line is the escaped token of the storage, a tab, the prefix.
void RemoveIncomplete(const std::string& dir, std::string line) {
    const std::string token = str::badchars::Unescape(str::GetWord(line, "\t"), '\\');
    const std::string& prefix = line;
    // An empty prefix would match files that belong to no such backup.
    if (prefix.empty()) throw std::runtime_error("a line of .cleanup has no prefix");
    const std::shared_ptr<quarn2::Storage> storage = OpenStorage(quarn2::BackupToken(token), dir);
    DeleteOnStorage(*storage, prefix, kWhy);
    DeleteLocally(dir, prefix, kWhy);
}

// Its lines say what is removed, and where: they must be nobody else's.
std::optional<std::string> ListOfIncomplete(const std::string& path) {
    try {
        return kro_file::ReadOurs(path);
    } catch (const kro_err::Error& error) {
        if (error.type() != "not_found") {
            KRO_LOG(kLog, 3, "List of incomplete backups is left alone: %s", error.what());
        }
        return std::nullopt;
    }
}

std::string ClearMark(const std::string& info_root) {
    return kro_file::ConcatPath(info_root, kClearMark);
}

// From now on no server takes the info files here for backups.
void MarkInfoRoot() {
    try {
        kro_file::Write(ClearMark(kInfoRoot), "The backups are being removed.\n");
    } catch (const kro_file::CopyError& error) {
        // A full disk must not stop what makes room.
        if (!error.IsFull()) throw;
        KRO_LOG(kLog, 4, "%s", error.what());
    }
}

// With another storage's token, --clear would remove the info files of backups that still exist.
void CheckIsOurStorage(quarn2::Storage& storage) {
    // An interrupted --clear may have removed the newest backups already.
    if (kro_file::Exists(ClearMark(kInfoRoot))) return;
    const NewestCheck check = FindNewestOnStorage(storage, kInfoRoot);
    if (check.result != NewestOnStorage::kNoneFound) return;
    throw std::runtime_error(
        "none of the " + str::Str(check.asked) + " newest backups known in " + kInfoRoot +
        " is on " + TokenByEnv().Str() +
        ": is it mounted, is the token right? Nothing was removed. If that storage was emptied on "
        "purpose, run --server --rescan, and --clear again");
}

void ClearStorage(quarn2::Storage& storage, bool has_info_root) {
    // An administrator may have put the info root elsewhere, with a link in its place.
    if (!kro_file::IsForeignLink(kInfoRoot)) CheckIsOurStorage(storage);
    if (has_info_root) MarkInfoRoot();
    try {
        storage.Clear();
    } catch (const kro_err::Error& error) {
        // A storage that is not there, or does not let us in, has lost nothing.
        if (error.type() == "not_found" || error.type() == "unauthorized") {
            kro_file::RemoveFile(ClearMark(kInfoRoot));
        }
        throw;
    }
}

}  // namespace

void CommandClear() {
    KRO_LOG(kLog, 5, "Clear all storage");
    // A malformed token throws: the storage that was meant would keep its files, and their info
    // files would be gone.
    const bool has_token = !kro_env::GetEnv("BACKUP_TOKEN").empty();
    const std::shared_ptr<quarn2::Storage> storage = has_token ? GetStorageByEnv() : nullptr;
    // What a link leads to is not ours.
    const bool has_info_root =
        std::filesystem::is_directory(std::filesystem::symlink_status(kInfoRoot));
    if (storage) ClearStorage(*storage, has_info_root);
    if (has_info_root) {
        RemoveDirectory(kInfoRoot, kClearMark);
    } else {
        kro_file::Remove(kInfoRoot);
    }
    kro_file::Remove(kPrivateInfoRoot);
    // Info files that came back would count as backups.
    if (kro_file::Exists("var/backup")) kro_file::SyncDir("var/backup");
}

void CheckNoBrokenClear(const std::string& info_root) {
    const std::string mark = ClearMark(info_root);
    if (!kro_file::Exists(mark)) return;
    throw std::runtime_error("the last --clear was broken off (" + mark +
                             " is there), so backups may be half removed: run --clear again");
}

void CleanUp(const std::string& dir) {
    KRO_LOG(kLog, 8, "%s", "void CleanUp(const string&)");
    const std::string list = kro_file::ConcatPath(dir, ".cleanup");
    std::string failed;
    std::optional<std::string> lines = ListOfIncomplete(list);
    if (!lines) return;
    while (!lines->empty()) {
        const std::string line = str::GetWord(*lines, "\n");
        if (line.empty()) continue;
        try {
            RemoveIncomplete(dir, line);
        } catch (const std::exception& error) {
            KRO_LOG(kLog, 4,
                    "Failed to remove incomplete backup files. You can get failed list in %s file",
                    list.c_str());
            KRO_LOG(kLog, 6, "%s", error.what());
            failed += line + "\n";
        }
    }
    if (failed.empty()) {
        if (!kro_file::Exists(list)) return;
        kro_file::RemoveFile(list);
        // A line that came back could name a backup that has been made anew by then.
        kro_file::SyncDir(dir);
    } else {
        kro_file::Write(list, failed);
    }
}
