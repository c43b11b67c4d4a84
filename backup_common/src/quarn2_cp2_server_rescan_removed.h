// What a rescan takes out of the info root is kept, because a listing may be wrong: another
// storage's token, a mount that is missing, a server in trouble.
#pragma once

#include <string>
#include <vector>

class RemovedEntries {
  public:
    // `storage_name`: the value of --storage. `directory`: the one that the rescan works on.
    // `continues`: an earlier rescan was interrupted, and the entries that it took are kept too.
    // Nothing is changed yet.
    RemovedEntries(const std::string& storage_name, std::string directory, bool continues);

    // Moves entries of the directory, files and whole directories, to
    // var/quarn2_cp.removed[#STORAGE]/, where each keeps its path below the directory. The first
    // call removes what an earlier rescan has left there. Entries that are missing are skipped.
    // Temporary files are removed for good.
    // std::runtime_error when an entry cannot be moved; that entry is still in its old place then.
    void Take(std::vector<std::string> paths);

    // The place of the entries, relative to the install root.
    const std::string& place() const noexcept { return place_; }

  private:
    void Prepare();
    std::string FindFreeTarget(const std::string& path) const;

    std::string place_;
    std::string directory_;
    bool prepared_;
};
