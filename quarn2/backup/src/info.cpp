#include "quarn2/info.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <string_view>
#include <vector>

#include "backup/info_places.h"
#include "base/directory.h"
#include "base/sort_paths.h"
#include "base/stored_name.h"
#include "kro/kro_date.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_new_file.h"
#include "kro/str.h"
#include "quarn2/info_reader.h"
#include "quarn2/names.h"

namespace quarn2 {

namespace {

constexpr std::string_view kInfo = ".info";

class Finder {
  public:
    Finder(bool deep, const std::string& user, const std::string& date)
        : deep_(deep), user_(user), date_(date) {}

    // Searches `directory` for info files. `depth` is the number of levels of user directories that
    // are searched below `directory`.
    void Search(const std::string& directory, int depth) {
        Below below;
        ReadDirectory(directory, below);
        for (const std::string& name : below.directories) {
            const std::string path = kro_file::ConcatPath(directory, name);
            if (deep_) {
                Search(path, 0);
                continue;
            }
            // Search a directory that is named like a date also as the directory of a user, because
            // a user can be named like a date, or "custom".
            if (IsDateName(name)) ReadDirectory(path);
            if (depth > 0) SearchUser(path);
        }
        if (!deep_ && depth > 0) SearchLinkedUsers(directory, below.links);
    }

    std::vector<std::string>& found() { return found_; }

  private:
    struct Below {
        std::vector<std::string> directories;
        std::vector<std::string> links;  // symbolic links to directories
    };

    // Follows a symbolic link only if root or the user of this process made it. An administrator
    // can keep a user's directory on another disk with such a link. A link of another user could
    // point to forged info files.
    void SearchLinkedUsers(const std::string& directory, const std::vector<std::string>& links) {
        for (const std::string& name : links) {
            const std::string path = kro_file::ConcatPath(directory, name);
            if (!kro_file::IsForeignLink(path)) SearchUser(path);
        }
    }

    static bool IsDateName(const std::string& name) {
        return name == "custom" || kro_date::IsDate(name);
    }

    // Searches only the date directories of a user's directory. Ignores info files directly in the
    // user's directory, because backups do not store info files there.
    void SearchUser(const std::string& directory) {
        std::vector<std::string> below;
        Walk(directory, [&below](std::string_view name, unsigned char type) {
            if (type == DT_DIR) below.emplace_back(name);
        });
        for (const std::string& name : below) {
            if (IsDateName(name)) ReadDirectory(kro_file::ConcatPath(directory, name));
        }
    }

    void ReadDirectory(const std::string& directory) {
        Below ignored;
        ReadDirectory(directory, ignored);
    }

    // Reads `directory`. Adds the info files that match the user and date filters to found_, and
    // the subdirectories and the links to directories to `below`.
    void ReadDirectory(const std::string& directory, Below& below) {
        Walk(directory, [&](std::string_view name, unsigned char type) {
            if (type == DT_DIR) {
                below.directories.emplace_back(name);
            } else if (type == DT_LNK) {
                below.links.emplace_back(name);
            } else if (type == DT_REG && IsWanted(name)) {
                found_.push_back(kro_file::ConcatPath(directory, std::string(name)));
            }
        });
    }

    bool IsWanted(std::string_view name) const {
        if (!str::EndsWith(name, kInfo) || kro_file::IsTemporaryName(name)) return false;
        if (user_.empty() && date_.empty()) return true;
        const std::string text(name);
        return (user_.empty() || GetUserName(text) == user_) &&
               (date_.empty() || GetDate(text) == date_);
    }

    template <class Visit>
    static void Walk(const std::string& directory, const Visit& visit) {
        const Directory opened = OpenDirectory(directory);
        if (opened == nullptr) {
            if (errno == ENOENT) return;
            throw kro_err::FromErrno("Failed to list " + Quoted(directory));
        }
        while (const dirent* const entry = NextEntry(opened.get())) {
            const std::string_view name = static_cast<const char*>(entry->d_name);
            visit(name, TypeOf(dirfd(opened.get()), *entry));
        }
        if (errno != 0) throw kro_err::FromErrno("Failed to list " + Quoted(directory));
    }

    // Returns the type of a directory entry. Calls fstatat only when readdir reports no type or a
    // symbolic link. For a link to a file, returns the type of that file; DT_LNK means a link to a
    // directory.
    static unsigned char TypeOf(int directory, const dirent& entry) {
        if (entry.d_type != DT_UNKNOWN && entry.d_type != DT_LNK) return entry.d_type;
        struct stat status = {};
        const char* const name = static_cast<const char*>(entry.d_name);
        if (fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return DT_UNKNOWN;
        if (S_ISDIR(status.st_mode)) return DT_DIR;
        if (S_ISLNK(status.st_mode)) {
            if (fstatat(directory, name, &status, 0) != 0) return DT_UNKNOWN;
            if (S_ISDIR(status.st_mode)) return DT_LNK;
        }
        return S_ISREG(status.st_mode) ? DT_REG : DT_UNKNOWN;
    }

    bool deep_;
    const std::string& user_;
    const std::string& date_;
    std::vector<std::string> found_;
};

}  // namespace

InfoMap GetInfo(const std::string& path) {
    InfoReader reader;
    reader.Read(path);
    InfoMap info;
    for (const auto& [key, value] : reader.entries()) {
        // The program writes the keys of an info file in sorted order, so the end of the map is the
        // right insertion hint for nearly every key.
        info.insert_or_assign(info.end(), std::string(key), value);
    }
    return info;
}

std::vector<std::string> InfoPlaces(const std::string& directory, const std::string& user,
                                    const std::string& date) {
    const std::string name = date + "." + user + std::string(kInfo);
    if (directory.empty()) return {name};
    std::vector<std::string> places = {kro_file::ConcatPath(directory, name)};
    // A path with the date or the user ".." would be outside of `directory`, so omit it. Such a
    // user can occur: for the file name "x....info", GetUserName returns "..".
    constexpr std::string_view kAbove = "..";
    if (date == kAbove) return places;
    const std::string dated = kro_file::ConcatPath(date, name);
    places.push_back(kro_file::ConcatPath(directory, dated));
    if (user == kAbove) return places;
    places.push_back(kro_file::ConcatPath(directory, kro_file::ConcatPath(user, dated)));
    return places;
}

std::string GetInfoFile(const std::string& directory, const std::string& user,
                        const std::string& date) {
    const std::vector<std::string> places = InfoPlaces(directory, user, date);
    const auto found = std::find_if(places.begin(), places.end(), kro_file::Exists);
    return found == places.end() ? places.front() : *found;
}

void GetInfoFiles(std::list<std::string>& list, const std::string& directory, bool deep,
                  const std::string& user, const std::string& date) {
    Finder finder(deep, user, date);
    finder.Search(directory.empty() ? "." : directory, 1);
    list = SortedPaths(std::move(finder.found()));
}

std::string GetLastSliceLocalPath(const std::string& path) {
    const bool is_info = str::EndsWith(path, kInfo);
    InfoMap info = GetInfo(
        is_info ? path : GetInfoFile(kro_file::Path(path), GetUserName(path), GetDate(path)));
    return str::GetWord(info["last-slice"]);
}

}  // namespace quarn2
