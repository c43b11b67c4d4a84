// An SFTP session (version 3) over a byte stream. Requests are sent without waiting for replies; an
// id assigns each reply to its request.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "handle_guess.h"
#include "packet.h"
#include "status.h"

namespace quarn2::sftp {

// The encrypted channel to the server. Write() and Read() throw kro_err::Error (kUnavailable) if
// there is no progress for longer than the storage's timeout, or if the connection is lost.
class Stream {
  public:
    Stream() = default;
    virtual ~Stream() = default;
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    virtual void Write(std::span<const std::byte> bytes) = 0;
    // Reads at least one byte and returns the number of bytes read. `extra_seconds` extends the
    // timeout by that many seconds.
    virtual std::size_t Read(std::span<std::byte> buffer, int extra_seconds) = 0;
    // Throws kUnavailable if the server has closed the connection. Does not wait for the network.
    virtual void CheckAlive() = 0;
};

// A reply of the server. The fields are valid until the next call of a function of the session.
struct Reply {
    Type type;
    std::uint32_t id;
    Fields fields;

    // Returns the status in the reply. Throws kFailed if the reply is not a status.
    Status AsStatus();
    // Throws kFailed if the reply does not have the expected type.
    void Require(Type expected) const;
};

class Session {
  public:
    // Exchanges the SFTP greeting with the server. Throws if the server does not send a valid
    // greeting.
    explicit Session(std::unique_ptr<Stream> stream);

    // Sends a request without waiting for the reply and returns the id of the request. Every id
    // must be passed to Wait() or Forget(), unless Next() returns the reply.
    std::uint32_t Send(Request request);
    // Sends a request whose last field is data. `room_and_data` consists of kHeadroom unused bytes
    // and the data. The other fields of the request are written into the unused bytes, so that the
    // data does not have to be copied.
    static constexpr std::size_t kHeadroom = 512;
    std::uint32_t SendWithData(Request request, std::span<std::byte> room_and_data);

    // Waits for the reply to this request and returns it. Keeps replies to other requests that
    // arrive earlier for later calls. `extra_seconds` extends the timeout by that many seconds.
    Reply Wait(std::uint32_t id, int extra_seconds = 0);
    Status WaitStatus(std::uint32_t id, int extra_seconds = 0) {
        return Wait(id, extra_seconds).AsStatus();
    }
    // Waits for the next reply to any request and returns it.
    Reply Next();
    // Returns true if Next() can return a reply without waiting for the network.
    bool HasNext() const noexcept;
    // Discards the reply to this request when it arrives.
    void Forget(std::uint32_t id);
    // Waits for the reply to this request and discards it. Does nothing if Wait() or Next() has
    // already returned the reply.
    void WaitAndDiscard(std::uint32_t id);

    // Throws kUnavailable if the server has closed the connection. Does not wait for the network.
    void CheckAlive();
    HandleGuess& handle_guess() noexcept { return handle_guess_; }

    // Returns true after an error of the connection or the protocol. The session must not be used
    // any more then.
    bool broken() const noexcept { return broken_; }
    void SetBroken() noexcept { broken_ = true; }

    bool Supports(const std::string& extension) const { return extensions_.contains(extension); }
    // Return the maximum number of data bytes in one read request and in one write request.
    std::size_t read_size() const noexcept { return read_size_; }
    std::size_t write_size() const noexcept { return write_size_; }

  private:
    class Breaker;

    void ExchangeVersions();
    void QueryLimits();
    std::uint32_t Register();
    std::span<const std::byte> NextFrame(int extra_seconds);
    void Fill(std::size_t needed, int extra_seconds);
    bool HasFrame() const noexcept;
    Reply Parse(std::span<const std::byte> frame);

    std::unique_ptr<Stream> stream_;
    std::unique_ptr<std::byte[]> buffer_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    std::set<std::uint32_t> outstanding_;
    std::set<std::uint32_t> forgotten_;
    std::map<std::uint32_t, std::vector<std::byte>> kept_;
    std::vector<std::byte> current_;
    std::set<std::string> extensions_;
    std::size_t read_size_;
    std::size_t write_size_;
    HandleGuess handle_guess_;
    std::uint32_t last_id_ = 0;
    bool broken_ = false;
};

// Sends `count` requests, many of them before the first reply arrives. Passes the replies to
// `answered` in the order of the requests.
void Pipeline(Session& session, std::size_t count,
              const std::function<std::uint32_t(std::size_t)>& send,
              const std::function<void(std::size_t, Reply)>& answered);

}  // namespace quarn2::sftp
