// Backup info files: finding and reading them.
#pragma once

#include <list>
#include <map>
#include <string>

namespace quarn2 {

using InfoMap = std::map<std::string, std::string>;

// Reads an info file: KEY=VALUE lines. It is written back as str::Join(map, "\n"). A file that
// cannot be read is a kro_err::Error.
InfoMap GetInfo(const std::string& path);

// The path of a user's info file of a date: DATE.USER.info in `directory`, else in directory/DATE,
// else in directory/USER/DATE; the first that exists, else the first. With an empty directory the
// bare name.
std::string GetInfoFile(const std::string& directory, const std::string& user,
                        const std::string& date);

// Fills `list` with the info files in `directory`, in its DATE and in its USER/DATE directories,
// sorted. `deep` descends into every other directory as well. `user` and `date` narrow the list
// when they are not empty. A missing directory has none.
void GetInfoFiles(std::list<std::string>& list, const std::string& directory, bool deep,
                  const std::string& user, const std::string& date);

// The first word of "last-slice" in the info file that `path` belongs to (`path` itself when it
// ends with ".info").
std::string GetLastSliceLocalPath(const std::string& path);

}  // namespace quarn2
