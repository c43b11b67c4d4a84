// Makes the entries of directories durable, where the server can.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "backends/sftp/session.h"

namespace quarn2::sftp {

// A directory can be opened like a file and synced on servers that are Unix systems; where it
// cannot, there is nothing to be done, and nothing is said. In steps, so that each can go out
// together with other requests.
class DirSync {
  public:
    explicit DirSync(Session& session) noexcept : session_(session) {}
    // Closes what is open.
    ~DirSync();
    DirSync(const DirSync&) = delete;
    DirSync& operator=(const DirSync&) = delete;

    // Sends the requests to open the directories.
    void Open(const std::vector<std::string>& paths);
    // Waits for those; to be called before Sync.
    void TakeHandles();
    // Sends the requests to sync what has been done so far.
    void Sync();
    // Waits for them.
    void Finish();

  private:
    void Close();

    Session& session_;
    std::vector<std::uint32_t> asked_;
    std::vector<std::string> handles_;
};

}  // namespace quarn2::sftp
