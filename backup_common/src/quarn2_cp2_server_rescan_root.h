// Decides which directories may be rescanned. A rescan removes files from its directory when the
// storage does not have them, so the directory must contain only files of backups.
#pragma once

#include <string>

// The directory in which a rescan changes files: `local_root`, or the parent directory of
// `local_root` when that is a user's info root.
std::string RescanDirectory(const std::string& local_root);

// Throws std::runtime_error when this --path must not be rescanned. Forbidden are the directory of
// all info roots; a directory that contains the install root; a directory that contains the storage
// or is inside it; an info root of a user other than `storage_name`, the value of --storage; and a
// directory outside of var/backup that contains files that do not belong to backups.
void CheckRescanRoot(const std::string& local_root, const std::string& storage_name);

// The user whose info root is or contains `path`; empty when there is none. `data` is the path of
// var/backup. Symbolic links must be resolved in both paths or in neither.
std::string UserOfInfoRoot(const std::string& path, const std::string& data);

// True for the program's own files in an info root: marker files, lists, and their temporary files.
bool IsProgramFile(const std::string& name);

// True for "tovarn" and "tovarn.private", the administrator's info roots beside those of users.
bool IsAdminRoot(const std::string& name);

// Searches the directory for a file or directory that belongs neither to a backup nor to this
// program. Returns the path of the first one in the order of names, relative to `directory`; empty
// when there is none. Files of backups are expected at the top and in the directories DATE, USER
// and USER/DATE.
std::string FindStrayEntry(const std::string& directory);
