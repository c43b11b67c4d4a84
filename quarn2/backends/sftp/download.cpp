#include "download.h"

#include <algorithm>
#include <deque>
#include <limits>
#include <optional>
#include <utility>

#include "base/stored_name.h"
#include "kro/kro_err.h"
#include "tree.h"

namespace quarn2::sftp {

namespace {

using kro_err::Error;
using kro_err::Kind;

// Maximum number of bytes that are requested and not yet written to the sink. Limits the memory for
// data that arrives out of order.
constexpr std::uint64_t kMaxInFlight = 6UL * 1024 * 1024;
constexpr int kAttempts = 5;
// Maximum number of outstanding reads. Only a server that returns less than 1 KiB per reply on
// average reaches this limit.
constexpr std::size_t kMaxPieces = 10'000;
constexpr std::uint64_t kMaxFileSize = std::numeric_limits<std::int64_t>::max();

// An open file on the server and its outstanding reads, ordered by offset.
class Reads {
  public:
    Reads(Session& session, std::string handle, std::string path, std::uint64_t size)
        : session_(session), handle_(std::move(handle)), path_(std::move(path)), size_(size) {}

    // Closes the file. The session discards the replies to outstanding reads when they arrive.
    ~Reads() {
        for (const Piece& piece : pieces_) session_.Forget(piece.id);
        if (session_.broken()) return;
        try {
            session_.Forget(session_.Send(std::move(Request(Type::kClose).Text(handle_))));
        } catch (const std::exception&) {
            session_.SetBroken();
        }
    }
    Reads(const Reads&) = delete;
    Reads& operator=(const Reads&) = delete;

    // Sends the query for the file's size together with the first reads. Returns false if the size
    // differs from the expected size, because then the file was replaced before it was opened.
    bool Begin() {
        const std::uint32_t measured =
            session_.Send(std::move(Request(Type::kFstat).Text(handle_)));
        SendReads();
        Reply reply = session_.Wait(measured);
        if (reply.type != Type::kAttrs) ThrowRefused("examine", path_, reply.AsStatus());
        return reply.fields.Attrs().size == size_;
    }

    void HandOn(ByteSink& sink) {
        while (!pieces_.empty()) {
            Take(session_.Next(), sink);
            while (!pieces_.empty() && pieces_.front().arrived) {
                sink.Write(pieces_.front().data);
                pieces_.pop_front();
            }
            SendReads();
        }
    }

  private:
    struct Piece {
        std::uint32_t id;
        std::uint64_t offset;
        std::size_t size;
        bool arrived = false;
        std::vector<std::byte> data;
    };

    std::uint32_t SendRead(std::uint64_t offset, std::size_t size) {
        return session_.Send(std::move(
            Request(Type::kRead).Text(handle_).U64(offset).U32(static_cast<std::uint32_t>(size))));
    }

    void SendReads() {
        const std::uint64_t begin = pieces_.empty() ? next_ : pieces_.front().offset;
        while (next_ < size_ && next_ - begin < kMaxInFlight) {
            const auto size = static_cast<std::size_t>(
                std::min<std::uint64_t>(size_ - next_, session_.read_size()));
            pieces_.push_back({SendRead(next_, size), next_, size, false, {}});
            next_ += size;
        }
    }

    void Take(Reply reply, ByteSink& sink) {
        const auto piece =
            std::find_if(pieces_.begin(), pieces_.end(),
                         [&reply](const Piece& each) { return each.id == reply.id; });
        if (piece == pieces_.end()) return;
        if (reply.type != Type::kData) ThrowReadFailed(reply.AsStatus());
        const std::span<const std::byte> data = reply.fields.Bytes();
        if (data.empty() || data.size() > piece->size)
            ThrowInvalidReply("more or less data than requested");
        if (data.size() < piece->size) AskForRest(piece, data.size());
        // AskForRest() may have invalidated `piece`, so search for the element again.
        Piece& taken = *std::find_if(pieces_.begin(), pieces_.end(),
                                     [&reply](const Piece& each) { return each.id == reply.id; });
        if (&taken == &pieces_.front()) {
            pieces_.pop_front();
            sink.Write(data);
            return;
        }
        taken.data.assign(data.begin(), data.end());
        taken.arrived = true;
    }

    // Requests the missing part of a range after the server has returned only `got` bytes of it.
    // Servers may return less data than requested.
    void AskForRest(const std::deque<Piece>::iterator& piece, std::size_t got) {
        const std::uint64_t offset = piece->offset + got;
        const std::size_t size = piece->size - got;
        piece->size = got;
        if (pieces_.size() >= kMaxPieces)
            ThrowInvalidReply("too many short replies to read requests");
        pieces_.insert(piece + 1, {SendRead(offset, size), offset, size, false, {}});
    }

    [[noreturn]] void ThrowReadFailed(const Status& status) const {
        if (status.code != Code::kEof) ThrowRefused("read", path_, status);
        throw Error(Kind::kUnavailable, Quoted(path_) + " became shorter while it was downloaded");
    }

    Session& session_;
    std::string handle_;
    std::string path_;
    std::uint64_t size_;
    std::uint64_t next_ = 0;
    std::deque<Piece> pieces_;
};

class Downloader {
  public:
    Downloader(Session& session, const Place& place, const std::string& name)
        : session_(session), place_(place), name_(name), path_(place.PathOf(name)) {}

    void Run(ByteSink& sink, bool& started) {
        for (int attempt = 0; attempt < kAttempts; ++attempt) {
            const auto size = Open();
            if (!size) continue;
            Reads reads(session_, handle_, path_, *size);
            if (!reads.Begin()) continue;
            started = true;
            sink.Expect(static_cast<std::int64_t>(*size));
            reads.HandOn(sink);
            return;
        }
        throw Error(Kind::kUnavailable,
                    Quoted(path_) + " was replaced repeatedly while it was opened");
    }

  private:
    // Opens the file and returns its size. Returns nullopt if another attempt may succeed. Does not
    // follow links. Anything that is not a plain file counts as missing.
    std::optional<std::uint64_t> Open() {
        const std::uint32_t look = session_.Send(std::move(Request(Type::kLstat).Text(path_)));
        const std::uint32_t open =
            session_.Send(std::move(Request(Type::kOpen).Text(path_).U32(kOpenRead).U32(0)));
        Reply seen = session_.Wait(look);
        const bool there = seen.type == Type::kAttrs;
        const Attributes attributes = there ? seen.fields.Attrs() : Attributes();
        const Status unseen = there ? Status() : seen.AsStatus();
        Reply opened = session_.Wait(open);
        const bool good = opened.type == Type::kHandle;
        if (good) handle_ = opened.fields.Text();
        if (attributes.size.value_or(0) > kMaxFileSize) {
            if (good) Close();
            ThrowInvalidReply("an impossible file size");
        }
        if (good && there && attributes.IsFile() && attributes.size) return attributes.size;
        const Status unopened = good ? Status() : opened.AsStatus();
        if (good) Close();
        if (!there && unseen.code != Code::kNoSuchFile) ThrowRefused("examine", path_, unseen);
        if (there && attributes.IsFile() && !good && unopened.code != Code::kNoSuchFile) {
            ThrowRefused("open", path_, unopened);
        }
        if ((there && !attributes.IsFile()) || !Recover()) ThrowNotFound();
        return std::nullopt;
    }

    void Close() { session_.Forget(session_.Send(std::move(Request(Type::kClose).Text(handle_)))); }

    // Restores the old file after an interrupted replacement, which has renamed it to a hidden name
    // (see DisplacedPath). Returns true if the old file has its name again.
    bool Recover() {
        if (session_.Supports("posix-rename@openssh.com")) return false;
        Request request(Type::kRename);
        request.Text(DisplacedPath(path_)).Text(path_);
        return session_.WaitStatus(session_.Send(std::move(request))).code == Code::kOk;
    }

    [[noreturn]] void ThrowNotFound() {
        CheckRoot(session_, place_);
        throw Error(Kind::kNotFound, "no file " + Quoted(name_) + " on the storage");
    }

    Session& session_;
    const Place& place_;
    const std::string& name_;
    std::string path_;
    std::string handle_;
};

}  // namespace

void Download(Session& session, const Place& place, const std::string& name, ByteSink& sink,
              bool& started) {
    Downloader(session, place, name).Run(sink, started);
}

}  // namespace quarn2::sftp
