#include "quarn2_cp2_server_rescan_removed.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/kro_new_file.h"
#include "kro/str.h"
#include "quarn2_cp2_misc_events.h"

namespace fs = std::filesystem;

namespace {

constexpr kro_log::Module kLog("main");
constexpr mode_t kDirectoryMode = 0700;

bool Exists(const std::string& path) { return fs::exists(fs::symlink_status(path)); }

// Renames a file or directory. Returns false when the target is on another file system.
bool Rename(const std::string& path, const std::string& target) {
    if (std::rename(path.c_str(), target.c_str()) == 0) return true;
    if (errno == EXDEV) return false;
    throw kro_err::FromErrno("Failed to move '" + path + "' to '" + target + "'");
}

void Copy(const std::string& path, const std::string& target) {
    std::error_code error;
    fs::copy(path, target, fs::copy_options::recursive | fs::copy_options::copy_symlinks, error);
    if (!error) return;
    throw std::runtime_error("Failed to copy '" + path + "' to '" + target +
                             "': " + error.message());
}

// Creates the directory if it is missing. Returns false when a file that was moved earlier has this
// path.
bool MakeDirectory(const std::string& path) {
    if (!path.empty() && kro_file::TypeOf(path) != kro_file::FileType::kDirectory) {
        if (Exists(path) || !MakeDirectory(kro_file::Path(path))) return false;
        kro_file::MkDirSynced(path, kDirectoryMode);
    }
    return true;
}

// Writes the events for the backups whose info files were moved to the target.
void WriteMoved(const std::string& target) {
    for (Event& event : DeletedEvents(target, RemovalReason::kRescan)) WriteEvent(std::move(event));
}

}  // namespace

RemovedEntries::RemovedEntries(const std::string& storage_name, std::string directory,
                               bool continues)
    : place_(str::Append("var/quarn2_cp.removed", storage_name, "#")),
      directory_(std::move(directory)),
      prepared_(continues) {}

void RemovedEntries::Prepare() {
    if (!std::exchange(prepared_, true)) kro_file::Remove(place_);
    kro_file::MkDirSynced(place_, kDirectoryMode);
    kro_file::CheckOurDirectory(place_);
}

// Returns an unused path in the directory of removed entries. An interrupted rescan and the next
// one may move two entries with the same path.
std::string RemovedEntries::FindFreeTarget(const std::string& path) const {
    const std::string below = path.substr(directory_.empty() ? 0 : directory_.size() + 1);
    for (int number = 1;; ++number) {
        const std::string top =
            number == 1 ? place_ : kro_file::ConcatPath(place_, ".again" + str::Str(number));
        std::string target = kro_file::ConcatPath(top, below);
        if (!Exists(target) && MakeDirectory(kro_file::Path(target))) return target;
    }
}

void RemovedEntries::Take(std::vector<std::string> paths) {
    // Temporary files of interrupted writes are useless, so they are deleted.
    const auto leftovers = std::partition(paths.begin(), paths.end(), [](const std::string& path) {
        return !kro_file::IsTemporaryName(kro_file::Name(path));
    });
    std::for_each(leftovers, paths.end(), kro_file::Remove);
    paths.erase(leftovers, paths.end());
    if (paths.empty()) return;
    Prepare();
    std::vector<std::string> copied;
    std::vector<std::string> moved_later;
    for (const std::string& path : paths) {
        if (!Exists(path)) continue;
        const std::string target = FindFreeTarget(path);
        KRO_LOG(kLog, 6, "Move '%s' to '%s': the storage does not have it", path.c_str(),
                target.c_str());
        // Reads the events' data at the target, because the rename has already moved the info
        // files.
        if (Rename(path, target)) {
            WriteMoved(target);
            continue;
        }
        Copy(path, target);
        moved_later.push_back(target);
        copied.push_back(path);
    }
    if (copied.empty()) return;
    kro_file::SyncFileSystem(place_);
    for (const std::string& path : copied) kro_file::Remove(path);
    for (const std::string& target : moved_later) WriteMoved(target);
}
