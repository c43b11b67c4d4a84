#include "quarn2_cp2_server_rescan_root.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "kro/kro_date.h"
#include "kro/kro_file.h"
#include "kro/kro_new_file.h"
#include "kro/str.h"
#include "quarn2/names.h"
#include "quarn2/token.h"
#include "quarn2_cp2_misc_encrypted.h"
#include "quarn2_cp2_misc_paths.h"
#include "quarn2_cp2_misc_storage.h"

namespace {

constexpr const char* kData = "var/backup";

enum class Level { kTop, kUser, kDate };

bool IsDateName(const std::string& name) { return name == "custom" || kro_date::IsDate(name); }

// Converts the temporary name ".NAME.part~" to "NAME". Returns any other name unchanged.
std::string WithoutTemporaryForm(const std::string& name) {
    if (!kro_file::IsTemporaryName(name)) return name;
    const std::size_t start = 1;
    const std::size_t extra = kro_file::TemporaryName("").size();
    return name.substr(start, name.size() - extra);
}

bool IsExpectedFile(const std::string& name) {
    return IsProgramFile(name) || quarn2::IsBackupFile(WithoutTemporaryForm(name));
}

std::string FindStray(const std::string& directory, Level level);

// Checks the entry `name` of the directory and, if it is a directory, the entries below it. Returns
// the path of the first stray entry relative to `directory`; empty when there is none.
std::string FindStrayIn(const std::string& directory, const std::string& name, Level level) {
    const std::string path = kro_file::ConcatPath(directory, name);
    if (!kro_file::IsDirectory(path)) return IsExpectedFile(name) ? "" : name;
    if (level == Level::kDate || (level == Level::kUser && !IsDateName(name))) return name;
    const std::string stray = FindStray(path, IsDateName(name) ? Level::kDate : Level::kUser);
    return stray.empty() ? "" : kro_file::ConcatPath(name, stray);
}

std::string FindStray(const std::string& directory, Level level) {
    for (const std::string& name : kro_file::NamesIn(directory)) {
        std::string stray = FindStrayIn(directory, name, level);
        if (!stray.empty()) return stray;
    }
    return {};
}

[[noreturn]] void ThrowCannotRescan(const std::string& local_root, const std::string& reason) {
    throw std::runtime_error("--path '" + local_root + "' cannot be rescanned: " + reason);
}

void CheckIsNoOtherUsers(const std::string& local_root, const std::string& storage_name) {
    const auto check = [&](const std::string& user) {
        if (user.empty() || user == storage_name) return;
        ThrowCannotRescan(local_root, "it belongs to user '" + user + "'; use --storage " + user +
                                          " and the token of that storage");
    };
    check(UserOfInfoRoot(local_root, kData));
    check(UserOfInfoRoot(ResolvePath(local_root), ResolvePath(kData)));
    // Also checks the name of the directory itself, because it may be an info root of another
    // installation.
    if (!quarn2::IsAdminData(local_root)) check(kro_file::Name(local_root));
}

void CheckTouchesNoStorage(const std::string& local_root, const std::filesystem::path& cleaned) {
    const quarn2::BackupToken token = TokenByEnv();
    if (!token.IsLocal()) return;
    const std::filesystem::path storage = StorageDirectory(token);
    if (IsSameOrBelow(cleaned, storage) || IsSameOrBelow(storage, cleaned)) {
        ThrowCannotRescan(local_root,
                          "it overlaps with the storage directory; use a directory that contains "
                          "only info files");
    }
}

// Throws when the directory is outside of var/backup and contains files that do not belong to
// backups. Storages do not have such files, so they could not be restored.
void CheckHoldsNothingElse(const std::string& local_root) {
    const std::filesystem::path data = ResolvePath(kData);
    const bool in_data = str::StartsWith(local_root, std::string(kData) + "/") ||
                         IsSameOrBelow(data, ResolvePath(local_root)) ||
                         IsSameOrBelow(data, std::filesystem::absolute(local_root));
    if (in_data) return;
    const std::string stray = FindStrayEntry(RescanDirectory(local_root));
    if (stray.empty()) return;
    ThrowCannotRescan(local_root,
                      "it contains '" + stray +
                          "', which does not belong to a backup and which the rescan would "
                          "remove; use a directory that contains only info files");
}

}  // namespace

std::string RescanDirectory(const std::string& local_root) {
    return quarn2::IsAdminData(local_root) ? local_root : kro_file::Path(local_root);
}

bool IsProgramFile(const std::string& name) {
    const std::string own = WithoutTemporaryForm(name);
    return own == ".rescan" || str::StartsWith(own, ".rescan#") || own == ".clear" ||
           own == ".cleanup" || own == kEncryptedIndexes;
}

bool IsAdminRoot(const std::string& name) { return name == "tovarn" || name == "tovarn.private"; }

std::string UserOfInfoRoot(const std::string& path, const std::string& data) {
    if (!str::StartsWith(path, data + "/")) return {};
    std::string below = path.substr(data.size() + 1);
    std::string name = str::GetWord(below, "/");
    return IsAdminRoot(name) ? "" : name;
}

std::string FindStrayEntry(const std::string& directory) {
    return FindStray(directory, Level::kTop);
}

void CheckRescanRoot(const std::string& local_root, const std::string& storage_name) {
    // For the directory of all info roots, the rescan would change files in its parent directory
    // var, which contains the server's own files.
    if (local_root == kData || str::EndsWith(local_root, std::string("/") + kData)) {
        ThrowCannotRescan(local_root, "use the info root in it, such as '" +
                                          kro_file::ConcatPath(local_root, "tovarn") + "'");
    }
    const std::filesystem::path cleaned = ResolvePath(RescanDirectory(local_root));
    if (IsSameOrBelow(cleaned, ResolvePath("")) || IsSameOrBelow(cleaned, ResolvePath("var"))) {
        ThrowCannotRescan(local_root,
                          "it contains the install root or its var directory; use a directory that "
                          "contains only info files");
    }
    CheckTouchesNoStorage(local_root, cleaned);
    CheckIsNoOtherUsers(local_root, storage_name);
    CheckHoldsNothingElse(local_root);
}
