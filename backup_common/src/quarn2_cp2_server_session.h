// A session with one node client: its process, the two pipes to it, and the meaning of its lines.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kro/kro_args.h"
#include "kro/res_handle.h"
#include "quarn2/expect.h"
#include "quarn2_cp2_server_client.h"
#include "quarn2_cp2_server_model.h"

// What one session has reserved on its storage since the last completion there, which ends every
// reservation. It ends with the session: no upload of a client that is gone is under way.
class OwnReserved {
  public:
    OwnReserved(GlobalSizeControl::StorageDesc& storage, bool is_remote)
        : storage_(storage), is_remote_(is_remote) {}

    // Adds to the storage's reservations; a negative size releases.
    void Add(std::int64_t size);

    // Takes the session's share out of the storage's reservations. Looks at the storage only if
    // there is a share.
    void GiveBack();

  private:
    GlobalSizeControl::StorageDesc& storage_;
    bool is_remote_;
    std::int64_t sum_ = 0;
    std::uint64_t resets_ = 0;  // of the storage, when `sum_` began
};

// Runs on the event loop's thread alone; the loop's workers own it.
class MasterSide {
  public:
    // Starts the node client and registers its session with the loop. `first` is the storage name
    // that the client is told. Throws when the client cannot be started.
    static std::shared_ptr<MasterSide> Create(const std::string& first,
                                              GlobalSizeControl::StorageDesc& storage,
                                              std::string node, quarn2::Expect& loop,
                                              std::shared_ptr<kro_args::Result> args);

    MasterSide(GlobalSizeControl::StorageDesc& storage, quarn2::Expect& loop,
               const std::vector<std::string>& command);
    // Closes the client's input and waits for its end.
    ~MasterSide();
    MasterSide(const MasterSide&) = delete;
    MasterSide& operator=(const MasterSide&) = delete;

    // Starts the client over two fresh pipes.
    void Start();

    // Takes over this side's ends of the pipes.
    void Attach(ResHandle read, ResHandle write);

    // Queues one message for the client.
    void SaveResult(const std::string& message);

    quarn2::Expect::Result* Read(ResHandle handle);
    quarn2::Expect::Result* Write(ResHandle handle);

    // Gives one line of the client its meaning and queues the answer.
    void ProcessCommand(const std::string& line);

    // False once the link has ended, from either side.
    bool is_open() const noexcept { return is_open_; }

    // True once a command has been granted.
    bool has_served() const noexcept { return has_served_; }

    ClientProcess& client() noexcept { return *client_; }

    // Closes the link and gives the client away: its end is the caller's to wait for.
    std::unique_ptr<ClientProcess> Close();

  private:
    // What a look at the client's output came to.
    enum class Reading { kMore, kEnd, kFailed };

    quarn2::Expect::Result* Disconnected();
    quarn2::Expect::Result* Closed();
    void Queue(const std::string& message);
    Reading ReadAvailable(int fd);
    void HandOverLines();

    std::string Answer(const std::string& word, const std::string& arguments);
    std::string Reserve(std::int64_t size);
    std::string Complete(std::string arguments);
    std::string DropOne(std::int32_t count);
    std::string Release(std::int64_t size);
    void KeepInfoFile(const std::string& user, const std::string& date) const;

    GlobalSizeControl::StorageDesc& storage_;
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

// The unit's name in buffer dumps.
inline constexpr const char* kServerSource = "quarn2_cp2_server.cpp";
