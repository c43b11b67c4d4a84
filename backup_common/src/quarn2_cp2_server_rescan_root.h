// Decides which directories a rescan may work on. A rescan makes the directory equal to the
// storage's listing, so it removes everything else from it.
#pragma once

#include <string>

// The directory that the rescan makes equal to the storage: `local_root`, or its parent directory
// for a user's info root.
std::string RescanDirectory(const std::string& local_root);

// Throws std::runtime_error when the rescan must not work on this --path. Forbidden are the
// directory of all info roots; a directory that contains the install root; a directory that
// contains the storage or is inside it; an info root of a user other than `storage_name`, the value
// of --storage; and a directory outside of var/backup that contains other files than those of
// backups.
void CheckRescanRoot(const std::string& local_root, const std::string& storage_name);

// The user whose info root is or contains `path`; empty when there is none. `data` is var/backup.
// Either both paths are resolved, or neither is.
std::string UserOfInfoRoot(const std::string& path, const std::string& data);

// True for the program's own files in an info root: marker files, lists, and their temporary files.
bool IsProgramFile(const std::string& name);

// True for "tovarn" and "tovarn.private", the administrator's info roots beside those of users.
bool IsAdminRoot(const std::string& name);

// The first entry below the directory, in the order of names, whose name is neither that of a file
// of a backup nor that of a program file. Returns its path relative to `directory`, empty when
// there is none. Files of backups are expected at the top and in the directories DATE, USER and
// USER/DATE.
std::string FindStrayEntry(const std::string& directory);
