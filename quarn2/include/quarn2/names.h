// Parses the names of backup files. Only MkLocalDir, IsEncrypted and CreateAttemptsFile read or
// write files.
//
// A backup is named DATE.USER. Its info file is DATE.USER.info, its index DATE.USER.tgz or
// DATE.USER.1.dar. The names of its archive files begin with F (full) or I (incremental). The
// archive names of a custom backup begin with C, a date and a dot; its info file is
// custom.USER.info.
#pragma once

#include <map>
#include <string>

namespace quarn2 {

// Strips the archive ending from the last component of a path: ".partN" if present, then ".N.dar"
// or an archive extension. "F2026-11-20.web1.tgz.part2" -> "F2026-11-20.web1".
std::string StripSliceNumber(const std::string& path);

// Returns the extension of a backup's archive files. `info` contains the entries of the backup's
// info file. The function parses the value of "last-slice" and ignores a ".partN" at its end.
// Returns ".tgz" for numbered slices (".N.dar"), and when the value is missing or has an unknown
// extension.
std::string GetExtByInfo(const std::map<std::string, std::string>& info);

// GetDate returns the date ("custom" for a custom backup) and GetUserName the user in the name of
// an info, index or archive file.
std::string GetDate(const std::string& name);
std::string GetUserName(const std::string& name);

// Returns true for the name of a backup's info file, index or archive file, with or without
// ".attempts" at the end. `name` must not contain a directory.
bool IsBackupFile(const std::string& name);

// Converts the name of a stored file to its path on the storage: normalised, without a leading
// slash.
std::string GetPath(const std::string& name);

// Returns the name under which a storage keeps a local file (see Storage::GetFileInfo). Throws
// kro_err::Error when storages do not allow the name, or when the name contains a space.
std::string GetStoredName(const std::string& local);

// True for a path that contains the backups of all users. The directory ".../var/backup" and its
// children contain the backups of one user, except for the children "tovarn" and "tovarn.private".
bool IsAdminData(const std::string& directory);

// Returns true for a name that is safe as the name of a local file: one component of at most
// NAME_MAX bytes, not empty, not "." or "..", without control characters.
bool IsSafeName(const std::string& name);

// Creates the local directory for the backups of a user and a date and returns its path. If
// IsAdminData(root) is true, the path is USER/DATE in `root`, otherwise USER/DATE in the parent
// directory of `root`. Throws kro_err::Error when `user` or `date` is not a safe name, and when
// USER or USER/DATE is a symbolic link that another user made.
std::string MkLocalDir(const std::string& root, const std::string& user, const std::string& date);

// Returns true when the backup of the file `path` is encrypted: its directory contains an index
// with the extension ".tgz.aes", or a file ".encrypted_indexes" that lists this index.
bool IsEncrypted(const std::string& path);

// Records that the transfer of a local file was abandoned: appends a line with the time and the
// reason to the file local + ".attempts". A failure to write this file is only logged, because the
// program is already handling the error of the transfer.
void CreateAttemptsFile(const std::string& local, const std::string& reason = "");

}  // namespace quarn2
