#include "session.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "kro/kro_err.h"

namespace quarn2::sftp {

namespace {

using kro_err::Error;
using kro_err::Kind;

constexpr std::uint32_t kVersion = 3;
// The number of data bytes that every server must accept in one packet. Larger packets do not
// increase the speed.
constexpr std::size_t kSmallPiece = 32UL * 1024;
constexpr std::size_t kLargePiece = 255UL * 1024;
// The maximum length of a reply. The largest data reply that the program requests is shorter. A
// longer reply is an error.
constexpr std::size_t kMaxFrameBytes = 512UL * 1024;
constexpr std::size_t kLengthSize = 4;
// The size of the receive buffer. It can hold all data that the channel's window allows, so that
// the server does not have to wait while the program writes received data to disk.
constexpr std::size_t kBufferSize = 4UL * 1024 * 1024 + kMaxFrameBytes;
constexpr std::size_t kMaxUnanswered = 1024;

const char* const kLimits = "limits@openssh.com";

}  // namespace

Status Reply::AsStatus() {
    Require(Type::kStatus);
    Status status;
    status.code = static_cast<Code>(fields.U32());
    // The text is optional, because old servers omit it.
    if (!fields.empty()) status.text = fields.Text();
    return status;
}

void Reply::Require(Type expected) const {
    if (type != expected)
        ThrowInvalidReply("an unexpected reply of type " + std::to_string(static_cast<int>(type)));
}

// Marks the session as broken if the scope is left without a call of Done(), for example by an
// exception.
class Session::Breaker {
  public:
    explicit Breaker(Session& session) noexcept : session_(session), before_(session.broken_) {
        session_.broken_ = true;
    }
    ~Breaker() = default;
    Breaker(const Breaker&) = delete;
    Breaker& operator=(const Breaker&) = delete;

    void Done() noexcept { session_.broken_ = before_; }

  private:
    Session& session_;
    bool before_;
};

Session::Session(std::unique_ptr<Stream> stream)
    : stream_(std::move(stream)),
      buffer_(std::make_unique_for_overwrite<std::byte[]>(kBufferSize)),
      read_size_(kSmallPiece),
      write_size_(kSmallPiece) {
    ExchangeVersions();
    if (Supports(kLimits)) QueryLimits();
}

void Session::ExchangeVersions() {
    Breaker breaker(*this);
    stream_->Write(Request(Type::kInit).FinishInit(kVersion));
    Fields fields(NextFrame(0));
    if (static_cast<Type>(fields.U8()) != Type::kVersion) ThrowInvalidReply("no valid greeting");
    const std::uint32_t version = fields.U32();
    if (version != kVersion)
        ThrowInvalidReply("unsupported protocol version " + std::to_string(version));
    while (!fields.empty()) {
        extensions_.insert(fields.Text());
        fields.Bytes();
    }
    breaker.Done();
}

void Session::QueryLimits() {
    Reply reply = Wait(Send(std::move(Request(Type::kExtended).Text(kLimits))));
    if (reply.type != Type::kExtendedReply) return;
    Breaker breaker(*this);
    reply.fields.U64();  // skips the maximum packet length; the next two limits are smaller
    const auto fit = [](std::uint64_t limit) {
        return limit == 0 ? kSmallPiece
                          : static_cast<std::size_t>(
                                std::clamp<std::uint64_t>(limit, kSmallPiece / 8, kLargePiece));
    };
    read_size_ = fit(reply.fields.U64());
    write_size_ = fit(reply.fields.U64());
    breaker.Done();
}

std::uint32_t Session::Register() {
    const std::uint32_t id = ++last_id_;
    outstanding_.insert(outstanding_.end(), id);
    return id;
}

std::uint32_t Session::Send(Request request) {
    Breaker breaker(*this);
    const std::uint32_t id = Register();
    stream_->Write(request.Finish(id));
    breaker.Done();
    return id;
}

std::uint32_t Session::SendWithData(Request request, std::span<std::byte> room_and_data) {
    Breaker breaker(*this);
    const std::size_t size = room_and_data.size() - kHeadroom;
    const std::uint32_t id = Register();
    const auto head = request.U32(static_cast<std::uint32_t>(size)).Finish(id, size);
    if (head.size() > kHeadroom) ThrowInvalidReply("a file handle is too long");
    const auto packet = room_and_data.subspan(kHeadroom - head.size());
    std::memcpy(packet.data(), head.data(), head.size());
    stream_->Write(packet);
    breaker.Done();
    return id;
}

bool Session::HasFrame() const noexcept {
    const std::size_t available = end_ - begin_;
    if (available < kLengthSize) return false;
    const std::byte* const head = buffer_.get() + begin_;
    return available - kLengthSize >= LoadU32(std::span<const std::byte, kLengthSize>(head, 4));
}

bool Session::HasNext() const noexcept { return HasFrame(); }

// Reads from the stream until the buffer contains `needed` bytes. First moves the incomplete frame
// to the front of the buffer, so that each read has as much space as possible. This is cheap,
// because an incomplete frame is short.
void Session::Fill(std::size_t needed, int extra_seconds) {
    if (end_ - begin_ >= needed) return;
    std::memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
    while (end_ - begin_ < needed) {
        end_ += stream_->Read({buffer_.get() + end_, kBufferSize - end_}, extra_seconds);
    }
}

std::span<const std::byte> Session::NextFrame(int extra_seconds) {
    Fill(kLengthSize, extra_seconds);
    const std::byte* const head = buffer_.get() + begin_;
    const std::size_t size = LoadU32(std::span<const std::byte, kLengthSize>(head, 4));
    if (size == 0 || size > kMaxFrameBytes) {
        ThrowInvalidReply(
            "a reply of " + std::to_string(size) +
            " bytes; if the login shell of the user prints text, disable this output");
    }
    Fill(kLengthSize + size, extra_seconds);
    const std::span<const std::byte> frame(buffer_.get() + begin_ + kLengthSize, size);
    begin_ += kLengthSize + size;
    return frame;
}

Reply Session::Parse(std::span<const std::byte> frame) {
    Fields fields(frame);
    const auto type = static_cast<Type>(fields.U8());
    const std::uint32_t id = fields.U32();
    return {type, id, fields};
}

Reply Session::Next() {
    Breaker breaker(*this);
    for (;;) {
        const Reply reply = Parse(NextFrame(0));
        if (outstanding_.erase(reply.id) == 0) ThrowInvalidReply("a reply without a request");
        if (forgotten_.erase(reply.id) > 0) continue;
        breaker.Done();
        return reply;
    }
}

Reply Session::Wait(std::uint32_t id, int extra_seconds) {
    Breaker breaker(*this);
    for (;;) {
        if (const auto kept = kept_.find(id); kept != kept_.end()) {
            current_ = std::move(kept->second);
            kept_.erase(kept);
            breaker.Done();
            return Parse(current_);
        }
        const std::span<const std::byte> frame = NextFrame(extra_seconds);
        const Reply reply = Parse(frame);
        if (outstanding_.erase(reply.id) == 0) ThrowInvalidReply("a reply without a request");
        if (forgotten_.erase(reply.id) > 0) continue;
        if (reply.id == id) {
            breaker.Done();
            return reply;
        }
        kept_[reply.id].assign(frame.begin(), frame.end());
    }
}

void Session::Forget(std::uint32_t id) {
    if (kept_.erase(id) == 0 && outstanding_.contains(id)) forgotten_.insert(id);
}

void Session::WaitAndDiscard(std::uint32_t id) {
    if (kept_.erase(id) == 0 && outstanding_.contains(id)) Wait(id);
}

void Session::CheckAlive() {
    Breaker breaker(*this);
    stream_->CheckAlive();
    breaker.Done();
}

void Pipeline(Session& session, std::size_t count,
              const std::function<std::uint32_t(std::size_t)>& send,
              const std::function<void(std::size_t, Reply)>& answered) {
    std::vector<std::uint32_t> ids;
    ids.reserve(count);
    std::size_t done = 0;
    try {
        while (done < count) {
            while (ids.size() < count && ids.size() - done < kMaxUnanswered) {
                ids.push_back(send(ids.size()));
            }
            Reply reply = session.Wait(ids[done]);
            answered(done++, reply);
        }
    } catch (...) {
        for (; done < ids.size(); ++done) session.Forget(ids[done]);
        throw;
    }
}

}  // namespace quarn2::sftp
