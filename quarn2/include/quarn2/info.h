// Backup info files: finding and reading them.
#pragma once

#include <list>
#include <map>
#include <string>

namespace quarn2 {

using InfoMap = std::map<std::string, std::string>;

// Reads an info file: KEY=VALUE lines. Callers write it back with str::Join(map, "\n"). Throws
// kro_err::Error when InfoReader cannot read the file.
InfoMap GetInfo(const std::string& path);

// Returns the path of a user's info file for a date: DATE.USER.info in `directory`, else in
// directory/DATE, else in directory/USER/DATE. Returns the first path that exists, or the first of
// the three when none exists. With an empty `directory` it returns the bare file name.
std::string GetInfoFile(const std::string& directory, const std::string& user,
                        const std::string& date);

// Replaces `list` with the sorted paths of the info files in `directory`, in its DATE and in its
// USER/DATE directories. USER may be a symbolic link to a directory, unless another user made the
// link. With `deep` it searches all directories below `directory`, but follows no links. `user` and
// `date` filter the list when they are not empty. A missing directory gives an empty list.
void GetInfoFiles(std::list<std::string>& list, const std::string& directory, bool deep,
                  const std::string& user, const std::string& date);

// Returns the first word of "last-slice" in the info file of the backup that `path` belongs to.
// When `path` ends with ".info", it is that info file.
std::string GetLastSliceLocalPath(const std::string& path);

}  // namespace quarn2
