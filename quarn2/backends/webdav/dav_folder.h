// A cache of the directory listings of a WebDAV storage.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "dav_server.h"
#include "kro/kro_clock.h"

namespace quarn2::webdav {

// A cached listing of one directory: the temporary files of interrupted uploads, and the names that
// the listing showed as files. DELETE and MOVE also remove or replace a directory with all its
// contents, so the program must check that a name is a file before it sends such a request.
struct Folder {
    std::vector<std::string> temporaries;
    std::unordered_set<std::string> files;
    kro_date::SteadyClock::time_point listed;
};

// Caches directory listings for a few seconds. Uploads of many small files therefore need few
// additional requests, and temporary files that other processes left are still found soon.
class DavFolders {
  public:
    explicit DavFolders(DavServer& server) : server_(server) {}

    // Prepares a directory for the upload of a file: creates the directory and its parents if they
    // are missing, and removes the temporary files of interrupted uploads of this file. Clears the
    // cached names of the files in the directory. Throws NoRoomForDirectory if the storage is full.
    void PrepareToWrite(const std::string& directory, const std::string& file);

    // Removes the temporary files of interrupted uploads of this file. Returns true only if a
    // listing shows that `file` exists and is a file.
    bool PrepareToRemove(const std::string& directory, const std::string& file);

    // Creates the directory and its parents. Throws NoRoomForDirectory if the storage is full.
    void Make(const std::string& name);

    // Removes the listing of a directory from the cache, after the directory or anything below it
    // has changed.
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

// Thrown if a directory cannot be created because the storage is full.
struct NoRoomForDirectory {};

}  // namespace quarn2::webdav
