// Info files that lie here before the storage has them: the last file of a backup is being put, or
// that was broken off. Until it has come to its end the backup is not whole, whatever the info file
// says.
#pragma once

#include <map>
#include <string>

#include "quarn2/storage.h"

// The note of one such info file, durable; it stays if the put is broken off.
class UnstoredInfo {
  public:
    // Makes the place of the notes. Throws when it is not for this user alone.
    static void Prepare();

    explicit UnstoredInfo(const std::string& info_path);
    // The storage has it.
    void Remove() const;

  private:
    std::string path_;
};

// What earlier puts of a storage have left.
class UnstoredInfos {
  public:
    UnstoredInfos() = default;
    // Forgets those that the storage has meanwhile, and those whose info file is gone. `name`: the
    // storage's, of --storage.
    UnstoredInfos(quarn2::Storage& storage, const std::string& name);

    bool Contains(const std::string& info_path) const;

  private:
    std::map<std::string, std::string> paths_;  // by the info file's own name
};
