// Keeps the files and directories that a rescan removes from the info root. The listing of the
// storage may be wrong, for example because the token belongs to another storage, a mount is
// missing, or a remote server is faulty.
#pragma once

#include <string>
#include <vector>

class RemovedEntries {
  public:
    // `storage_name`: the value of --storage. `directory`: the directory of the rescan.
    // `continues`: an earlier rescan was interrupted, so the entries that it removed are kept too.
    // The constructor changes nothing on disk.
    RemovedEntries(const std::string& storage_name, std::string directory, bool continues);

    // Moves files and directories with their content from the directory of the rescan to
    // var/quarn2_cp.removed[#STORAGE]/, where they keep their relative paths. Unless `continues` is
    // true, the first call deletes the entries that earlier rescans moved there. Skips missing
    // entries. Deletes temporary files. Throws std::runtime_error when an entry cannot be moved;
    // that entry is then still at its old path.
    void Take(std::vector<std::string> paths);

    // The directory of the removed entries, relative to the install root.
    const std::string& place() const noexcept { return place_; }

  private:
    void Prepare();
    std::string FindFreeTarget(const std::string& path) const;

    std::string place_;
    std::string directory_;
    bool prepared_;
};
