// The state file of a running server, tmp/quarn2_cp.state[#STORAGE]: KEY=VALUE lines, readable by
// its user only. It holds data for which the pid file has no line. A dead server may leave its
// file. IdentityOf ignores such a file because its process id and key differ from those in the pid
// file.
#pragma once

#include <string>

#include "quarn2_cp2_server_start.h"

class StateFile {
  public:
    // `storage`: the value of --storage.
    explicit StateFile(const std::string& storage);

    // Writes pid, key, date and the storage's identity. When that fails, returns false, and logs
    // the reason the first time.
    bool Write(const PidFile& server, const std::string& identity);

    // The identity of the storage that this server serves; "" when the file is missing, cannot be
    // read or belongs to another start of the server.
    std::string IdentityOf(const PidFile& server) const;

    void Remove() const;

    const std::string& path() const noexcept { return path_; }

  private:
    std::string path_;
    bool has_failed_ = false;
};
