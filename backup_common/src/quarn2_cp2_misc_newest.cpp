#include "quarn2_cp2_misc_newest.h"

#include <limits.h>

#include <algorithm>
#include <iterator>
#include <list>
#include <optional>
#include <string_view>
#include <utility>

#include "kro/kro_err.h"
#include "kro/kro_log.h"
#include "kro/kro_new_file.h"
#include "kro/str.h"
#include "quarn2/info.h"
#include "quarn2/info_reader.h"
#include "quarn2/names.h"
#include "quarn2_cp2_misc_storage.h"

namespace {

constexpr kro_log::Module kLog("main");
constexpr std::size_t kMinKnown = 3;
constexpr std::size_t kMaxAsked = 8;

struct FinishedBackup {
    std::string finished;
    BackupFiles files;
};

bool IsStorableComponent(const std::string& name) {
    return quarn2::IsSafeName(name) && !kro_file::IsTemporaryName(name) &&
           kro_file::TemporaryName(name).size() <= NAME_MAX;
}

// False for a name that a storage would refuse. Other programs also write info files, which may
// have such names. The refusal would look like a failure of the storage.
bool IsStorable(std::string name) {
    if (name.empty()) return false;
    while (!name.empty()) {
        if (name.front() == '/' || name.back() == '/') return false;
        if (!IsStorableComponent(str::GetWord(name, "/"))) return false;
    }
    return true;
}

// The name of the info file on the storage; empty when no storage can have it.
std::string StoredInfoName(const std::string& info_path) {
    try {
        return quarn2::GetStoredName(info_path);
    } catch (const kro_err::Error&) {
        return {};
    }
}

BackupFiles StoredFiles(const std::string& last_slice, const std::string& info_path) {
    BackupFiles names = {last_slice, StoredInfoName(info_path)};
    std::erase_if(names, [](const std::string& name) { return !IsStorable(name); });
    return names;
}

// Returns nothing when the file is not the info file of a finished backup, when no storage can have
// a file of that backup, or when the file was removed after the directory was read.
std::optional<FinishedBackup> ReadFinished(quarn2::InfoReader& reader, const std::string& path) {
    try {
        reader.Read(path);
    } catch (const kro_err::Error& error) {
        KRO_LOG(kLog, 7, "Skip info file. What: %s", error.what());
        return std::nullopt;
    }
    const std::optional<std::string_view> finished = reader.Find("finished");
    if (!finished) return std::nullopt;
    std::string last_slice(reader.Find("last-slice").value_or(std::string_view()));
    BackupFiles files = StoredFiles(str::GetWord(last_slice), path);
    if (files.empty()) return std::nullopt;
    return FinishedBackup{std::string(*finished), std::move(files)};
}

std::vector<FinishedBackup> FindFinished(const std::string& info_root) {
    std::list<std::string> paths;
    quarn2::GetInfoFiles(paths, info_root, false, "", "");
    std::vector<FinishedBackup> backups;
    quarn2::InfoReader reader;
    for (const std::string& path : paths) {
        std::optional<FinishedBackup> backup = ReadFinished(reader, path);
        if (backup) backups.push_back(std::move(*backup));
    }
    return backups;
}

}  // namespace

std::vector<BackupFiles> FilesOfNewest(const std::string& info_root) {
    std::vector<FinishedBackup> backups = FindFinished(info_root);
    if (backups.size() < kMinKnown) return {};
    // The text order of these times is their chronological order.
    std::stable_sort(
        backups.begin(), backups.end(),
        [](const FinishedBackup& a, const FinishedBackup& b) { return a.finished > b.finished; });
    backups.resize(std::min(backups.size(), kMaxAsked));
    std::vector<BackupFiles> files;
    std::transform(backups.begin(), backups.end(), std::back_inserter(files),
                   [](FinishedBackup& backup) { return std::move(backup.files); });
    return files;
}

bool IsOnStorage(quarn2::Storage& storage, const std::string& name) {
    return !ListOrNothing(storage, name).empty();
}

bool HasFilesOf(quarn2::Storage& storage, const std::string& last_slice,
                const std::string& info_path) {
    const BackupFiles names = StoredFiles(last_slice, info_path);
    return std::any_of(names.begin(), names.end(),
                       [&storage](const std::string& name) { return IsOnStorage(storage, name); });
}

NewestCheck FindNewestOnStorage(quarn2::Storage& storage, const std::string& info_root) {
    const std::vector<BackupFiles> newest = FilesOfNewest(info_root);
    if (newest.empty()) return {};
    for (const BackupFiles& names : newest) {
        for (const std::string& name : names) {
            if (IsOnStorage(storage, name)) return {NewestOnStorage::kSomeFound, newest.size()};
        }
    }
    return {NewestOnStorage::kNoneFound, newest.size()};
}
