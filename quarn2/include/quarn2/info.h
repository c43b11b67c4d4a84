// Functions that find and read the info files of backups.
#pragma once

#include <list>
#include <map>
#include <string>

namespace quarn2 {

using InfoMap = std::map<std::string, std::string>;

// Reads an info file, which consists of KEY=VALUE lines. str::Join(map, "\n") converts the map back
// to the text of the file. Throws kro_err::Error when InfoReader::Read cannot read the file.
InfoMap GetInfo(const std::string& path);

// Returns the path of a user's info file for a date: DATE.USER.info in `directory`, else in
// directory/DATE, else in directory/USER/DATE. Returns the first of these paths that exists, or the
// first path when none exists. With an empty `directory`, returns the file name without a
// directory.
std::string GetInfoFile(const std::string& directory, const std::string& user,
                        const std::string& date);

// Replaces `list` with the sorted paths of the info files in `directory`, in its DATE and in its
// USER/DATE directories. USER may be a symbolic link to a directory, unless another user made the
// link. With `deep`, searches all directories below `directory`, but follows no links. `user` and
// `date` filter the list when they are not empty. If `directory` is missing, `list` is empty.
void GetInfoFiles(std::list<std::string>& list, const std::string& directory, bool deep,
                  const std::string& user, const std::string& date);

// Returns the first word of the value of "last-slice" in a backup's info file. `path` is the path
// of the info file, which ends with ".info", or of another file of the backup.
std::string GetLastSliceLocalPath(const std::string& path);

}  // namespace quarn2
