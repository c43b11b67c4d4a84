// SFTP version 3 over a stream of bytes: requests go out without waiting, replies are told apart by
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

// The secured channel to the server. Both throw kro_err::Error (kUnavailable) when nothing moves
// for longer than the storage's timeout, or when the connection is gone.
class Stream {
  public:
    Stream() = default;
    virtual ~Stream() = default;
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    virtual void Write(std::span<const std::byte> bytes) = 0;
    // At least one byte. `patience` is how many seconds more than usual the server may take.
    virtual std::size_t Read(std::span<std::byte> buffer, int patience) = 0;
    // Throws when the other side is known to have gone; waits for nothing.
    virtual void CheckAlive() = 0;
};

// A reply; its fields are good until the session is used again.
struct Reply {
    Type type;
    std::uint32_t id;
    Fields fields;

    // The reply to a request that is answered by a status alone, or that failed.
    Status AsStatus();
    // Throws for a reply of another type than expected.
    void Require(Type expected) const;
};

class Session {
  public:
    // Says hello. The stream's first bytes may be anything.
    explicit Session(std::unique_ptr<Stream> stream);

    // Sends and does not wait. Every id must be waited for, taken from Next, or forgotten.
    std::uint32_t Send(Request request);
    // Sends a request whose last field is `data`, which lies behind at least `headroom` bytes that
    // may be overwritten: so nothing is copied.
    static constexpr std::size_t kHeadroom = 512;
    std::uint32_t SendWithData(Request request, std::span<std::byte> room_and_data);

    // The reply to this request; those to others that come before it are kept.
    Reply Wait(std::uint32_t id, int patience = 0);
    Status WaitStatus(std::uint32_t id, int patience = 0) { return Wait(id, patience).AsStatus(); }
    // The next reply to any request, as they come.
    Reply Next();
    // True when a reply can be had from Next without waiting for the network.
    bool HasNext() const noexcept;
    // Whatever is answered to this request is dropped.
    void Forget(std::uint32_t id);

    // Throws (kUnavailable) when the server is known to have gone.
    void CheckAlive();
    // After a failure of the stream or the protocol nothing more can be said.
    bool broken() const noexcept { return broken_; }
    void Break() noexcept { broken_ = true; }

    bool Offers(const std::string& extension) const { return extensions_.contains(extension); }
    // How much one read may ask for and one write may carry.
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

// Sends `count` requests, many at once, and hands on the answers in the order of the requests.
void Pipeline(Session& session, std::size_t count,
              const std::function<std::uint32_t(std::size_t)>& send,
              const std::function<void(std::size_t, Reply)>& answered);

}  // namespace quarn2::sftp
