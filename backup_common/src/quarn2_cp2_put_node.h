// The node client. It serves the control socket of its node and exchanges commands and answers with
// the server over the master link.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "kro/kro_thread.h"
#include "kro/res_handle.h"
#include "quarn2/expect.h"
#include "quarn2/storage.h"
#include "quarn2/token.h"
#include "quarn2_cp2_put_control.h"
#include "quarn2_cp2_put_ledger.h"
#include "quarn2_cp2_put_upload.h"

// The server's answer to a command was an error, or the command could not be sent.
class CommandError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The two ends of the master link in this process.
struct MasterLink {
    int in = 0;   // answers arrive here
    int out = 1;  // commands leave here
};

class NodeSide {
  public:
    // Reads the token from the link and opens the storage. `storage`: the name of a user's own
    // storage, empty for the common one.
    explicit NodeSide(kro_thread::SafeLock& lock, MasterLink link = {},
                      const std::string& storage = "");
    // Waits for the uploads.
    ~NodeSide();
    NodeSide(const NodeSide&) = delete;
    NodeSide& operator=(const NodeSide&) = delete;

    // Accepts one connection of the control socket and adds it to the loop of AcceptIn, which
    // serves it when its command is complete.
    quarn2::Expect::Result* operator()(ResHandle listening);

    // Sets the loop that serves accepted connections. The loop must outlive the last call of
    // operator().
    void AcceptIn(quarn2::Expect& loop) noexcept { loop_ = &loop; }

    // Disconnects the peers of the control socket that have sent nothing for 10 seconds.
    void DisconnectSilentPeers() { peers_.DisconnectSilent(); }

    // Runs one command text and returns the answer. Throws when the command fails.
    std::string Serve(std::string command);

    void Delete(const std::string& path, bool force);

    // The name that all slices of a backup and its info file share.
    static std::string Key(const std::string& path);

    // Sends a command (with its line feed) to the server and returns the answer without "OK". A
    // lock serializes the exchanges of all threads. Throws CommandError when the server refuses the
    // command or the link does not accept it, and std::runtime_error when the answer is incomplete.
    std::string DoCommand(const std::string& command);

    // Reads one frame from the master link. Throws std::runtime_error when it is incomplete.
    static std::string GetResult(int fd = 0);

    const quarn2::BackupToken& token() const noexcept { return token_; }
    bool delete_after() const noexcept { return delete_after_; }
    std::int64_t size() const noexcept { return size_; }

    // Decrements the number of evictions that uploads may still request. Returns the rest, or -1
    // when the number was 0.
    std::int32_t TakeOneEviction() noexcept;

  private:
    std::string Put(std::string argument, bool last);
    using Record = std::unique_ptr<SliceRecord>;
    // Records the put of a file and reserves space for it. Returns null for an info file, which has
    // no record.
    Record Admit(const std::string& remote, const std::string& path, const std::string& key_hash);
    void PutInBackground(const std::string& remote, const std::string& path, Record record);
    void PutLast(const std::string& remote, const std::string& path, Record record);
    void JoinPrevious(const std::string& path);
    void CheckComplete(const std::string& info_path);
    void Reserve();
    void ReportComplete(const std::string& info_path);

    kro_thread::SafeLock& lock_;
    MasterLink link_;
    quarn2::BackupToken token_;
    std::shared_ptr<quarn2::Storage> storage_;
    // Upload threads read these two while the loop's thread sets them.
    std::atomic<std::int32_t> max_count_{0};
    std::atomic<std::int64_t> size_{0};  // of the file of the latest PUT or PUTLAST
    bool delete_after_ = false;
    PutLedger ledger_;
    std::map<std::string, Upload> uploads_;
    quarn2::Expect* loop_ = nullptr;
    ControlPeers peers_{[this](std::string command) { return Serve(std::move(command)); }};
};
