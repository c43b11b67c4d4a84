// Syncs directories if the server supports it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "session.h"

namespace quarn2::sftp {

// Syncs directories on the server, so that new and renamed files survive a power failure. Servers
// on Unix systems can open and sync a directory like a file. Errors are ignored, because other
// servers cannot sync directories. Each step has its own function, so that the requests of a step
// can be sent together with other requests.
class DirSync {
  public:
    explicit DirSync(Session& session) noexcept : session_(session) {}
    // Closes the directories that are still open on the server.
    ~DirSync();
    DirSync(const DirSync&) = delete;
    DirSync& operator=(const DirSync&) = delete;

    // Sends the requests to open the directories, if the server supports syncing.
    void Open(const std::vector<std::string>& paths);
    // Waits for the replies to the requests of Open(). Must be called before Sync().
    void WaitForHandles();
    // Sends the requests that sync the open directories with all changes made so far.
    void Sync();
    // Waits for the replies to the requests of Sync().
    void Finish();
    // Waits for all replies and closes the directories without syncing them.
    void Abandon();

  private:
    void Close();

    Session& session_;
    std::vector<std::uint32_t> asked_;
    std::vector<std::string> handles_;
};

}  // namespace quarn2::sftp
