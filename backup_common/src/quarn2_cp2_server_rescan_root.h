// Which directories a rescan may work on. It makes the directory equal to the storage's listing, so
// everything else in it is taken away.
#pragma once

#include <string>

// The directory that the rescan makes equal to the storage: `local_root`, or the one above for a
// user's info root.
std::string RescanDirectory(const std::string& local_root);

// Throws std::runtime_error when the rescan must not work on this --path: the directory of all info
// roots; one with the install root or the storage in it; an info root of another user than
// `storage_name`, the value of --storage; a directory outside of var/backup that holds anything but
// backups' files.
void CheckRescanRoot(const std::string& local_root, const std::string& storage_name);

// The user whose info root `path` is, or is below; empty when there is none. `data` is var/backup.
// Both are resolved, or both are as given.
std::string UserOfInfoRoot(const std::string& path, const std::string& data);

// True for the program's own files in an info root: marker files, lists, and temporary files of
// these and of backups.
bool IsProgramFile(const std::string& name);

// True for "tovarn" and "tovarn.private", the administrator's info roots beside those of users.
bool IsAdminRoot(const std::string& name);

// The first entry below the directory, in the order of names, that belongs neither to a backup, by
// its name, nor to the program; its path relative to `directory`, empty when there is none. Files
// of backups are expected at the top and in the directories DATE, USER and USER/DATE.
std::string FindStrayEntry(const std::string& directory);
