// Makes the entries of directories durable if the server supports it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "backends/sftp/session.h"

namespace quarn2::sftp {

// Servers that are Unix systems can open a directory like a file and sync it. Failures are ignored,
// because other servers have no way to sync a directory. The work is split into steps, so that the
// requests of each step can be sent together with other requests.
class DirSync {
  public:
    explicit DirSync(Session& session) noexcept : session_(session) {}
    // Closes the open directories.
    ~DirSync();
    DirSync(const DirSync&) = delete;
    DirSync& operator=(const DirSync&) = delete;

    // Sends the requests to open the directories.
    void Open(const std::vector<std::string>& paths);
    // Waits for the replies to Open(). Must be called before Sync().
    void TakeHandles();
    // Sends the requests that sync all changes made so far.
    void Sync();
    // Waits for the replies to Sync().
    void Finish();

  private:
    void Close();

    Session& session_;
    std::vector<std::uint32_t> asked_;
    std::vector<std::string> handles_;
};

}  // namespace quarn2::sftp
