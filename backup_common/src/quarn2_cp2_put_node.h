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
#include "quarn2_cp2_misc_control.h"
#include "quarn2_cp2_put_control.h"
#include "quarn2_cp2_put_ledger.h"
#include "quarn2_cp2_put_upload.h"

// Thrown when the server's answer to a command is an error, or when the command cannot be sent.
class CommandError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// This process's descriptors of the master link, the connection to the server.
struct MasterLink {
    int in = 0;   // for reading the server's answers
    int out = 1;  // for writing commands to the server
};

class NodeSide {
  public:
    // Reads the token from the link and opens the storage. `storage`: the name of a user's own
    // storage, empty for the common storage.
    explicit NodeSide(kro_thread::SafeLock& lock, MasterLink link = {},
                      const std::string& storage = "");
    // Waits until all uploads have ended.
    ~NodeSide();
    NodeSide(const NodeSide&) = delete;
    NodeSide& operator=(const NodeSide&) = delete;

    // Accepts one connection on the control socket and adds it to the event loop that AcceptIn has
    // set. The loop runs the command of the connection when the command has arrived completely.
    quarn2::Expect::Result* operator()(ResHandle listening);

    // Sets the event loop that serves accepted connections. The loop must outlive the last call of
    // operator().
    void AcceptIn(quarn2::Expect& loop) noexcept { loop_ = &loop; }

    // Disconnects the peers of the control socket that have sent nothing for 10 seconds.
    void DisconnectSilentPeers() { peers_.DisconnectSilent(); }

    // Runs one command and returns the answer. Throws when the command fails.
    std::string Serve(std::string text);

    void Delete(const std::string& path, bool force);

    // The name that all slices of a backup and its info file share.
    static std::string Key(const std::string& path);

    // Sends a command (with its line feed) to the server and returns the answer without "OK". A
    // lock serializes the exchanges of all threads. Throws CommandError when the server refuses the
    // command or when the command cannot be written to the link, and std::runtime_error when the
    // answer is incomplete.
    std::string DoCommand(const std::string& command);

    // Reads one frame from the master link. Throws std::runtime_error when the frame is incomplete.
    static std::string GetResult(int fd = 0);

    const quarn2::BackupToken& token() const noexcept { return token_; }
    bool delete_after() const noexcept { return delete_after_; }
    std::int64_t size() const noexcept { return size_; }

    // Decrements the number of evictions that uploads may still request. Returns the new number, or
    // -1 when the number was 0.
    std::int32_t UseOneEviction() noexcept;

  private:
    std::string Put(const ControlCommand& command);
    using Record = std::unique_ptr<SliceRecord>;
    // Records the put of a file in the ledger and reserves space for the file. Returns null for an
    // info file, which has no record.
    Record RecordAndReserve(const std::string& remote, const std::string& path,
                            const std::string& key_hash);
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
    // `max_count_` and `size_` are atomic, because upload threads read them while the thread of the
    // event loop sets them.
    std::atomic<std::int32_t> max_count_{0};
    std::atomic<std::int64_t> size_{0};  // size of the file in the latest PUT or PUTLAST
    bool delete_after_ = false;
    PutLedger ledger_;
    std::map<std::string, Upload> uploads_;
    quarn2::Expect* loop_ = nullptr;
    ControlPeers peers_{[this](std::string command) { return Serve(std::move(command)); }};
};
