#include "base/name_lock.h"

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

// Removes the lock file while the lock is still held. Another process may have opened the file in
// the meantime. That process acquires the lock later and detects that its file is no longer at the
// path.
NameLock::~NameLock() {
    try {
        kro_file::RemoveFile(path_);
    } catch (const std::exception& error) {
        // A lock file that no process has locked does not block later locks, so an error here is
        // only logged.
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
