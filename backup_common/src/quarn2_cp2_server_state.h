// The state file of a running server, tmp/quarn2_cp.state[#STORAGE]: KEY=VALUE lines, readable by
// its user only. The file contains data for which the pid file has no line. A server that crashed
// may leave its state file. IdentityOf ignores such a file because its process id and key differ
// from those in the pid file.
#pragma once

#include <map>
#include <string>

#include "quarn2_cp2_server_start.h"

class StateFile {
  public:
    // `storage`: the value of --storage.
    explicit StateFile(const std::string& storage);

    // Writes pid, key, date and the storage's identity. When the file cannot be written, returns
    // false. Logs the reason of the first failure.
    bool Write(const PidFile& server, const std::string& identity);

    // The lines of the file, which may be those of an earlier server. Throws kro_err::Error when
    // the file is missing, or is not one of this user or root.
    std::map<std::string, std::string> Read() const;

    // The identity of the storage that this server serves; "" when the file is missing, cannot be
    // read or was written by an earlier server.
    std::string IdentityOf(const PidFile& server) const;

    void Remove() const;

    const std::string& path() const noexcept { return path_; }

  private:
    std::string path_;
    bool has_failed_ = false;
};
