// SFTP version 3 over a byte stream. Requests are sent without waiting; replies are matched by
// their ids.
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

#include "backends/sftp/packet.h"
#include "backends/sftp/status.h"

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
    // Reads at least one byte. `patience` extends the timeout by that many seconds.
    virtual std::size_t Read(std::span<std::byte> buffer, int patience) = 0;
    // Throws if the server is known to have closed the connection. Does not wait.
    virtual void CheckAlive() = 0;
};

// A reply. Its fields are valid until the next use of the session.
struct Reply {
    Type type;
    std::uint32_t id;
    Fields fields;

    // Returns the status in the reply. Throws for a reply of another type.
    Status AsStatus();
    // Throws for a reply of another type than expected.
    void Require(Type expected) const;
};

class Session {
  public:
    // Exchanges the greeting. Throws if the server's first bytes are not a valid one.
    explicit Session(std::unique_ptr<Stream> stream);

    // Sends a request without waiting. Every id must be passed to Wait() or to Forget(), or its
    // reply be taken from Next().
    std::uint32_t Send(Request request);
    // Sends a request whose last field is data. `room_and_data` begins with kHeadroom bytes,
    // followed by the data. The request is written into these bytes, so the data is not copied.
    static constexpr std::size_t kHeadroom = 512;
    std::uint32_t SendWithData(Request request, std::span<std::byte> room_and_data);

    // Returns the reply to this request. Replies to other requests that arrive before it are kept.
    Reply Wait(std::uint32_t id, int patience = 0);
    Status WaitStatus(std::uint32_t id, int patience = 0) { return Wait(id, patience).AsStatus(); }
    // Returns the next reply to any request, in the order of arrival.
    Reply Next();
    // True if Next() can return a reply without waiting for the network.
    bool HasNext() const noexcept;
    // Drops the reply to this request.
    void Forget(std::uint32_t id);

    // Throws (kUnavailable) if the server is known to have closed the connection.
    void CheckAlive();
    // True after a failure of the stream or the protocol: the session cannot be used any more.
    bool broken() const noexcept { return broken_; }
    void Break() noexcept { broken_ = true; }

    bool Offers(const std::string& extension) const { return extensions_.contains(extension); }
    // The maximum number of bytes in one read and in one write.
    std::size_t read_size() const noexcept { return read_size_; }
    std::size_t write_size() const noexcept { return write_size_; }

  private:
    class Breaker;

    void Greet();
    void AskLimits();
    std::uint32_t Register();
    std::span<const std::byte> NextFrame(int patience);
    void Fill(std::size_t needed, int patience);
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
    std::uint32_t last_id_ = 0;
    bool broken_ = false;
};

// Sends `count` requests, many at a time, and passes the replies to `answered` in the order of the
// requests.
void Pipeline(Session& session, std::size_t count,
              const std::function<std::uint32_t(std::size_t)>& send,
              const std::function<void(std::size_t, Reply)>& answered);

}  // namespace quarn2::sftp
