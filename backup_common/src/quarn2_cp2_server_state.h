// The state file of a running server, tmp/quarn2_cp.state[#STORAGE]: KEY=VALUE lines, readable by
// its user only. The file contains data that the pid file does not have. A server that crashed may
// leave its state file. IdentityOf ignores such a file because its process id and key differ from
// those in the pid file.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "kro/kro_clock.h"
#include "quarn2_cp2_server_start.h"

// The sizes in the accounting of the server, in bytes.
struct StateFigures {
    std::optional<std::int64_t> limit;  // std::nullopt without a size limit
    std::int64_t used = 0;
    std::int64_t reserved = 0;
    std::int64_t unfinished = 0;
    std::int32_t max_count = 0;  // see GlobalSizeControl

    bool operator==(const StateFigures&) const = default;
};

class StateFile {
  public:
    // The minimum time between two writes of changed figures.
    static constexpr std::chrono::seconds kPause{1};

    // `storage`: the value of --storage.
    explicit StateFile(const std::string& storage);

    // Writes pid, key, date, the storage's identity and the figures. When the file cannot be
    // written, returns false. Logs the reason of the first failure.
    bool Write(const PidFile& server, const std::string& identity, const StateFigures& figures);

    // Calls Write if the last write has failed, or if the figures have changed since the last write
    // and kPause has passed.
    void Update(const PidFile& server, const std::string& identity, const StateFigures& figures);

    // The lines of the file, which an earlier server may have written. Throws kro_err::Error when
    // the file is missing or belongs neither to this user nor to root.
    std::map<std::string, std::string> Read() const;

    // The identity of the storage that this server serves; "" when the file is missing, cannot be
    // read or was written by an earlier server.
    std::string IdentityOf(const PidFile& server) const;

    void Remove() const;

    const std::string& path() const noexcept { return path_; }

  private:
    void Replace(const std::string& text) const;

    std::string path_;
    bool has_failed_ = false;
    std::optional<StateFigures> written_;  // std::nullopt if the last write failed
    kro_date::SteadyClock::time_point last_write_;
};
