// What a storage object remembers of the directories that it works in.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "backends/webdav/dav_server.h"

namespace quarn2::webdav {

// One directory as it was listed a short while ago. The listing is what tells of leftovers, and of
// directories in a file's place, which servers would remove or replace with all that is in them.
struct Folder {
    std::vector<std::string> temporaries;
    std::unordered_set<std::string> files;
    std::chrono::steady_clock::time_point listed;
};

// Lists a directory at most once every few seconds, so that many small files in a row cost hardly
// more than their own requests, and what others leave behind is still found soon.
class DavFolders {
  public:
    explicit DavFolders(DavServer& server) : server_(server) {}

    // The directory, made with those above it where it is missing, for a file to be written into.
    // The file's leftovers are removed. What was known of its files is forgotten.
    void PrepareToWrite(const std::string& directory, const std::string& file);

    // Removes the file's leftovers and tells whether it is certainly there, and a file.
    bool PrepareToRemove(const std::string& directory, const std::string& file);

    // Makes the directory and those above it.
    void Make(const std::string& name);

    // The directory or something below it is not as it was.
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

// Thrown where a storage without room keeps a directory from being made.
struct NoRoomForDirectory {};

}  // namespace quarn2::webdav
