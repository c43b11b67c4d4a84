// Parses the names of backup files. Only MkLocalDir, IsEncrypted and CreateAttemptsFile access the
// disk.
//
// A backup is named DATE.USER. Its info file is DATE.USER.info, its index DATE.USER.tgz or
// DATE.USER.1.dar. The names of its archive files begin with F (full) or I (incremental). The
// archive names of a custom backup begin with C, a date and a dot; its info file is
// custom.USER.info.
#pragma once

#include <map>
#include <string>

namespace quarn2 {

// Strips one archive ending from the last component of a path: ".partN" if present, then ".N.dar"
// or an archive extension. "F2026-11-20.web1.tgz.part2" -> "F2026-11-20.web1".
std::string StripSliceNumber(const std::string& path);

// Returns the extension of a backup's archive files: the extension of "last-slice" in its info map,
// without ".partN". Returns ".tgz" for numbered slices and for unknown or missing values.
std::string GetExtByInfo(const std::map<std::string, std::string>& info);

// Return the date ("custom" for a custom backup) and the user from the name of an info, index or
// archive file.
std::string GetDate(const std::string& name);
std::string GetUserName(const std::string& name);

// Returns true for the name of a backup's info file, index or archive file, with or without
// ".attempts" at the end. `name` has no directory.
bool IsBackupFile(const std::string& name);

// Converts a stored name to the path on the storage: normalised, without a leading slash.
std::string GetPath(const std::string& name);

// Returns the name under which a storage keeps a local file (see Storage::GetFileInfo). Throws
// kro_err::Error when a storage does not allow the name, or when it contains a space.
std::string GetStoredName(const std::string& local);

// Returns false for ".../var/backup" and for its children except "tovarn" and "tovarn.private",
// because these directories contain the data of one user. Returns true for every other path.
bool IsAdminData(const std::string& directory);

// Returns true for a name that is safe as the name of a local file: one component of at most
// NAME_MAX bytes, not empty, not "." or "..", without control characters.
bool IsSafeName(const std::string& name);

// Makes the local directory of a user's backups of a date and returns its path: root/USER/DATE, or
// PARENT/USER/DATE in the parent directory of `root` when `root` is not admin data. Throws
// kro_err::Error when `user` or `date` is not a safe name, and when USER or USER/DATE is another
// user's symbolic link.
std::string MkLocalDir(const std::string& root, const std::string& user, const std::string& date);

// Returns true when the directory of `path` contains the ".tgz.aes" index of the backup, or when
// the ".encrypted_indexes" file there lists it.
bool IsEncrypted(const std::string& path);

// Records that the transfer of this local file was abandoned: appends a line with the time and the
// reason to local + ".attempts". Callers are already handling an error, so a failure to write the
// file is only logged.
void CreateAttemptsFile(const std::string& local, const std::string& reason = "");

}  // namespace quarn2
