// The question whether a storage is the one that the local info files belong to. Pointed at another
// storage, a server would evict what it cannot see, and --clear would remove the info files of
// backups that still exist.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "quarn2/storage.h"

enum class NewestOnStorage {
    kTooFewKnown,  // fewer than three finished backups are known here: nothing can be concluded
    kSomeFound,    // the storage has a file of at least one of the newest backups
    kNoneFound,    // the storage has none of them
};

struct NewestCheck {
    NewestOnStorage result = NewestOnStorage::kTooFewKnown;
    std::size_t asked = 0;  // the number of backups that were looked for, at most eight
};

// Looks on the storage for the newest finished backups of the info root. Asks by name for the last
// slice and then for the info file of each, and stops at the first file found; it never lists a
// directory of many files. Throws the storage's kro_err::Error when the storage cannot be asked,
// and kro_err::Error when the info root cannot be listed. Info files that cannot be read, or whose
// names no storage can have, are skipped.
NewestCheck FindNewestOnStorage(quarn2::Storage& storage, const std::string& info_root);

// The stored files by which one backup is recognised: its last slice, then its info file.
using BackupFiles = std::vector<std::string>;

// The files of the newest finished backups of the info root, the newest backup first: at most
// eight, and none when fewer than three are known.
std::vector<BackupFiles> FilesOfNewest(const std::string& info_root);

// True when the storage has an entry of this name. Throws when the storage cannot be asked.
bool IsOnStorage(quarn2::Storage& storage, const std::string& name);
