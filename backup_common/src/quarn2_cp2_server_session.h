// A session with one node client: its process, the two pipes to it, and the execution of its
// commands.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kro/kro_args.h"
#include "kro/res_handle.h"
#include "quarn2/expect.h"
#include "quarn2_cp2_misc_link.h"
#include "quarn2_cp2_server_client.h"
#include "quarn2_cp2_server_model.h"

// The bytes that one session has reserved on its storage since the last COMPLETE command, which
// resets all reservations of the storage. These bytes are released at the end of the session,
// because a client that has ended uploads nothing.
class OwnReserved {
  public:
    OwnReserved(GlobalSizeControl::StorageDesc& storage, bool is_remote)
        : storage_(storage), is_remote_(is_remote) {}

    // Adds `size` bytes to the reservations of the storage and of this session. A negative size
    // releases bytes.
    void Add(std::int64_t size);

    // Subtracts the session's reserved bytes from those of the storage. Does not access the storage
    // when the session has no reserved bytes.
    void ReleaseAll();

  private:
    GlobalSizeControl::StorageDesc& storage_;
    bool is_remote_;
    std::int64_t sum_ = 0;
    std::uint64_t resets_ = 0;  // the storage's `resets` when `sum_` was last changed
};

// The server's side of the session with one node client. Must be used only on the thread of the
// event loop. The workers that the object registers with the event loop keep it alive.
class MasterSide {
  public:
    // Starts the node client and registers its session with the loop. `first`, the name of the
    // storage, is the first message to the client. Throws when the client cannot be started.
    static std::shared_ptr<MasterSide> Create(const std::string& first,
                                              GlobalSizeControl::StorageDesc& storage,
                                              std::string node, quarn2::Expect& loop,
                                              std::shared_ptr<kro_args::Result> args);

    MasterSide(GlobalSizeControl::StorageDesc& storage, quarn2::Expect& loop,
               const std::vector<std::string>& command);
    // Closes the client's input and waits until the client has ended.
    ~MasterSide();
    MasterSide(const MasterSide&) = delete;
    MasterSide& operator=(const MasterSide&) = delete;

    // Starts the client with two new pipes.
    void Start();

    // Sets the server's ends of the pipes.
    void Attach(ResHandle read, ResHandle write);

    // Queues one message for the client.
    void SaveResult(const std::string& message);

    quarn2::Expect::Result* Read(ResHandle handle);
    quarn2::Expect::Result* Write(ResHandle handle);

    // Executes one command that the client has sent, and queues the answer for the client.
    void ProcessCommand(const std::string& line);

    // False after the server or the client has closed the link.
    bool is_open() const noexcept { return is_open_; }

    // True after the server has answered a command with "OK".
    bool has_served() const noexcept { return has_served_; }

    ClientProcess& client() noexcept { return *client_; }

    // Closes the link and returns the client's process. The caller must wait until the process has
    // ended.
    std::unique_ptr<ClientProcess> Close();

  private:
    // The result of reading the client's output.
    enum class Reading { kMore, kEnd, kFailed };

    quarn2::Expect::Result* Disconnected();
    quarn2::Expect::Result* Closed();
    void Queue(const std::string& message);
    Reading ReadAvailable(int fd);
    void ProcessLines();

    std::string Answer(const LinkCommand& command);
    std::string Reserve(std::int64_t size);
    std::string Complete(const LinkCommand& completed);
    std::string DropOne(std::int32_t count);
    std::string Release(std::int64_t size);
    void KeepInfoFile(const std::string& user, const std::string& date) const;

    GlobalSizeControl::StorageDesc& storage_;
    std::string node_;  // name of the node; "local" for this machine
    quarn2::Expect& loop_;
    std::unique_ptr<ClientProcess> client_;
    bool is_remote_;
    OwnReserved own_reserved_;
    bool is_open_ = true;
    bool has_served_ = false;
    ResHandle read_;
    ResHandle write_;
    std::string m_read;
    std::string write_buffer_;
};

// The source file name in trace messages of the log.
inline constexpr const char* kServerSource = "quarn2_cp2_server.cpp";
