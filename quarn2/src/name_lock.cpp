#include "name_lock.h"

#include <unistd.h>

#include <exception>

#include "kro/kro_log.h"
#include "kro/str.h"

namespace quarn2 {

namespace {

constexpr kro_log::Module kLog("storage");
constexpr mode_t kDirectoryMode = 0700;

std::string DirectoryPath() {
    if (geteuid() == 0) return "/run/quarn2_cp";
    const std::string user = str::Str(geteuid());
    const std::string session = "/run/user/" + user;
    return kro_file::Exists(session) ? session + "/quarn2_cp" : "/tmp/quarn2_cp-" + user;
}

}  // namespace

// Removes the file while the lock is still held. A process that has opened the file meanwhile takes
// the lock later and detects that the path no longer names the file.
NameLock::~NameLock() {
    try {
        kro_file::RemoveFile(path_);
    } catch (const std::exception& error) {
        // A leftover lock file that no process holds does no harm.
        KRO_LOG(kLog, 4, "%s", error.what());
    }
}

std::string NameLockDirectory() {
    std::string directory = DirectoryPath();
    kro_file::MkDir(directory, kDirectoryMode);
    kro_file::CheckOurDirectory(directory);
    return directory;
}

std::unique_ptr<NameLock> TryLockName(const std::string& name) {
    std::string path = kro_file::ConcatPath(NameLockDirectory(), name);
    kro_file::Lock lock;
    if (!lock.TryLock(path, true)) return nullptr;
    return std::make_unique<NameLock>(std::move(path), std::move(lock));
}

}  // namespace quarn2
