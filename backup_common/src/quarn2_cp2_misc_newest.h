// Checks whether the local info files belong to a storage. On a wrong storage, evictions and
// --clear would remove the info files of backups that still exist.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "quarn2/storage.h"

enum class NewestOnStorage {
    kTooFewKnown,  // fewer than three finished backups are known here: nothing can be concluded
    kSomeFound,    // the storage has a file of at least one of the newest backups
    kNoneFound,    // the storage has no file of the newest backups
};

struct NewestCheck {
    NewestOnStorage result = NewestOnStorage::kTooFewKnown;
    std::size_t asked = 0;  // the number of backups that were looked for, at most eight
};

// Looks on the storage for the newest finished backups of the info root. For each backup it looks
// for the last slice and then for the info file by name, and stops at the first file found. It asks
// for single names and never lists a large directory. Throws the storage's kro_err::Error when the
// storage does not answer, and kro_err::Error when the info root cannot be listed. Skips info files
// that cannot be read, and backups whose file names are not valid on any storage.
NewestCheck FindNewestOnStorage(quarn2::Storage& storage, const std::string& info_root);

// The stored files by which one backup is recognised: its last slice, then its info file.
using BackupFiles = std::vector<std::string>;

// The files of the newest finished backups of the info root, the newest backup first. Contains at
// most eight backups, and none when fewer than three finished backups are known.
std::vector<BackupFiles> FilesOfNewest(const std::string& info_root);

// True when the storage has the last slice or the info file of the backup. False when the
// file names are not valid on any storage. Throws the storage's kro_err::Error when the storage
// does not answer.
bool HasFilesOf(quarn2::Storage& storage, const std::string& last_slice,
                const std::string& info_path);

// True when the storage has a file or directory of this name. Throws the storage's kro_err::Error
// when the storage does not answer.
bool IsOnStorage(quarn2::Storage& storage, const std::string& name);
