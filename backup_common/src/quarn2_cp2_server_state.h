// The state file of a running server, tmp/quarn2_cp.state[#STORAGE]: KEY=VALUE lines, for its user
// only. It holds what a pid file has no place for. A file of a dead server may be left; it is
// recognised by the process id and the key of that start.
#pragma once

#include <string>

#include "quarn2_cp2_server_start.h"

class StateFile {
  public:
    // `storage`: the storage's name, of --storage.
    explicit StateFile(const std::string& storage);

    // Writes pid, key, date and the storage's identity. Returns false, and logs the reason at the
    // first time, when that fails.
    bool Write(const PidFile& server, const std::string& identity);

    // The identity of the storage that this server serves; "" when the file is missing, cannot be
    // read or is another start's.
    std::string IdentityOf(const PidFile& server) const;

    void Remove() const;

    const std::string& path() const noexcept { return path_; }

  private:
    std::string path_;
    bool has_failed_ = false;
};
