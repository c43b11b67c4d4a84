// What the names of a backup's files say. Pure text, but for MkLocalDir, IsEncrypted and
// CreateAttemptsFile.
//
// A backup is named DATE.USER. Its info file is DATE.USER.info, its index DATE.USER.tgz or
// DATE.USER.1.dar; its archive files begin with F (full) or I (incremental). A custom backup's
// archive begins with C, a date and a dot; its info file is custom.USER.info.
#pragma once

#include <map>
#include <string>

namespace quarn2 {

// Takes one archive ending off the last component of a path: ".partN" if there, then ".N.dar" or an
// archive extension. "F2026-11-20.web1.tgz.part2" -> "F2026-11-20.web1".
std::string StripSliceNumber(const std::string& path);

// The extension of a backup's archive files by its info map: what "last-slice" ends with (without
// ".partN"), ".tgz" for numbered slices and for everything unknown.
std::string GetExtByInfo(const std::map<std::string, std::string>& info);

// Date ("custom" for a custom backup) and user in an info, index or archive file's name.
std::string GetDate(const std::string& name);
std::string GetUserName(const std::string& name);

// True for the name of a backup's info file, index or archive file, and for one of these followed
// by ".attempts". `name` has no directory.
bool IsBackupFile(const std::string& name);

// The storage path of a stored name: normalised, no leading slash.
std::string GetPath(const std::string& name);

// The stored name of a local file, as Storage::GetFileInfo tells it. A kro_err::Error when it has a
// blank or control character.
std::string GetStoredName(const std::string& local);

// False for ".../var/backup" itself and for its children other than "tovarn" and "tovarn.private":
// those hold a user's data. True anywhere else.
bool IsAdminData(const std::string& directory);

// True for a name that may become a local file's name: one component, no "..", no control
// character.
bool IsSafeName(const std::string& name);

// Makes and returns the local directory of a user's backups of a date: root/USER/DATE, or beside
// root when root is not admin data.
std::string MkLocalDir(const std::string& root, const std::string& user, const std::string& date);

// The backup's ".tgz.aes" index lies in the path's directory or is in its ".encrypted_indexes"
// list.
bool IsEncrypted(const std::string& path);

// Marks that carrying this local file was given up: adds a line to local + ".attempts". Called
// while the reason is on its way out, so that a file that cannot be written is only logged.
void CreateAttemptsFile(const std::string& local, const std::string& reason = "");

}  // namespace quarn2
