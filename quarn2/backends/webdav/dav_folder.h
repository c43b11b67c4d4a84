// A cache of the directories that a storage object works in.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "backends/webdav/dav_server.h"
#include "kro/kro_clock.h"

namespace quarn2::webdav {

// A recent listing of one directory. It shows the leftovers of uploads, and which names are files.
// Servers remove or replace a directory with all its contents as if it were a file, so the type of
// a name must be checked first.
struct Folder {
    std::vector<std::string> temporaries;
    std::unordered_set<std::string> files;
    kro_date::SteadyClock::time_point listed;
};

// Lists a directory at most once every few seconds. Many small files in a row then cost few
// additional requests, and the leftovers of other processes are still found soon.
class DavFolders {
  public:
    explicit DavFolders(DavServer& server) : server_(server) {}

    // Prepares a directory for the upload of a file: makes the directory and its parents if they
    // are missing, and removes the file's leftovers. Drops the cached names of its files. Throws
    // NoRoomForDirectory.
    void PrepareToWrite(const std::string& directory, const std::string& file);

    // Removes the file's leftovers. Returns true only if the file certainly exists and is a file.
    bool PrepareToRemove(const std::string& directory, const std::string& file);

    // Makes the directory and its parents. Throws NoRoomForDirectory.
    void Make(const std::string& name);

    // Drops the listing of a directory that has changed, or below which something has changed.
    void Forget(const std::string& directory) { known_.erase(directory); }
    void ForgetAll() { known_.clear(); }

  private:
    Folder* Find(const std::string& directory);
    Folder* Load(const std::string& directory);
    Folder& Remember(const std::string& directory, Folder folder);
    bool MakeOne(const std::string& name);
    void RemoveLeftovers(Folder& folder, const std::string& directory, const std::string& file);
    void RemoveLeftover(const std::string& name);

    DavServer& server_;
    std::map<std::string, Folder> known_;
};

// Thrown if a directory cannot be made because the storage is full.
struct NoRoomForDirectory {};

}  // namespace quarn2::webdav
