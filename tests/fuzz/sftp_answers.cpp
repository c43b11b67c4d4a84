// Fuzz target: an SFTP server that sends arbitrary bytes. The target checks that listings return
// only valid names of entries, that a download outputs the promised number of bytes or fails, and
// that no operation waits forever.
//
// Input: the first byte selects the operation; the rest are the server's bytes. A frame with the id
// 0 gets the id of the oldest unanswered request.
#include <algorithm>
#include <deque>
#include <memory>
#include <span>

#include "backends/sftp/download.h"
#include "backends/sftp/packet.h"
#include "backends/sftp/session.h"
#include "backends/sftp/tree.h"
#include "base/stored_name.h"
#include "fuzz.h"
#include "kro/kro_err.h"

namespace {

using fuzz::Require;
using namespace quarn2::sftp;

constexpr std::size_t kHead = 9;  // length, type, id

std::uint32_t U32At(std::span<const std::byte> bytes, std::size_t at) {
    return LoadU32(std::span<const std::byte, 4>(bytes.subspan(at, 4)));
}

// Returns the input in pieces, until its end.
class Scripted final : public Stream {
  public:
    explicit Scripted(std::string said) : said_(std::move(said)) {}

    void Write(std::span<const std::byte> bytes) override {
        // The first message is the greeting, which has no id.
        if (++requests_ == 1 || bytes.size() < kHead) return;
        if (requests_ > kMaxRequests) Gone();
        ids_.push_back(U32At(bytes, 5));
    }
    std::size_t Read(std::span<std::byte> buffer, int /*extra_seconds*/) override {
        if (at_ >= said_.size()) Gone();
        FillIdIn();
        const std::size_t wanted = 1 + static_cast<unsigned char>(said_[at_]) % 61U;
        const std::string_view piece = std::string_view(said_).substr(at_, wanted);
        // Returns at most one frame, because the next one may answer a request that the client has
        // not sent yet.
        const std::size_t left = frame_ > at_ ? frame_ - at_ : piece.size();
        const std::size_t size = std::min({piece.size(), buffer.size(), left});
        std::copy_n(std::as_bytes(std::span(piece)).begin(), size, buffer.begin());
        at_ += size;
        return size;
    }
    void CheckAlive() override {}

  private:
    static constexpr int kMaxRequests = 4096;

    [[noreturn]] static void Gone() {
        throw kro_err::Error(kro_err::Kind::kUnavailable, "the server has gone");
    }

    // Writes the id of the oldest unanswered request into each reply with the id 0. Skips the
    // greeting, which contains a version in place of the id.
    void FillIdIn() {
        while (frame_ <= at_ && frame_ + kHead <= said_.size()) {
            const auto bytes = std::as_bytes(std::span(said_));
            const std::size_t length = U32At(bytes, frame_);
            if (frame_ > 0 && U32At(bytes, frame_ + 5) == 0 && !ids_.empty()) {
                for (std::size_t i = 0; i < 4; ++i) {
                    said_[frame_ + 5 + i] = static_cast<char>(ids_.front() >> (24 - 8 * i));
                }
            }
            if (frame_ > 0 && !ids_.empty()) ids_.pop_front();
            frame_ += 4 + length;
        }
    }

    std::string said_;
    std::size_t at_ = 0;
    std::size_t frame_ = 0;
    std::deque<std::uint32_t> ids_;
    int requests_ = 0;
};

class Taken final : public quarn2::ByteSink {
  public:
    void Expect(std::int64_t size) override {
        Require(size >= 0, "a file size is not negative");
        expected = size;
    }
    void Write(std::span<const std::byte> bytes) override {
        received += static_cast<std::int64_t>(bytes.size());
        Require(received <= expected, "a download is not longer than the announced size");
    }

    std::int64_t expected = -1;
    std::int64_t received = 0;
};

void CheckList(Session& session, const Place& place, const std::string& name) {
    for (const quarn2::ListedEntry& entry : ListSizes(session, place, name)) {
        const std::string& shown = entry.name;
        Require(shown == name || (!shown.empty() && shown != "." && shown != ".." &&
                                  shown.find('/') == shown.npos && !quarn2::HasControl(shown)),
                "a listing contains only names of entries");
    }
}

void CheckDownload(Session& session, const Place& place) {
    Taken taken;
    bool started = false;
    Download(session, place, "file", taken, started);
    Require(started && taken.received == taken.expected, "an incomplete download is an error");
}

void Do(unsigned what, Session& session, const Place& place) {
    switch (what % 6) {
        case 0:
            return CheckList(session, place, "");
        case 1:
            return CheckDownload(session, place);
        case 2:
            return Remove(session, place, "file");
        case 3:
            return RemoveDir(session, place, "directory");
        case 4:
            return CheckList(session, place, "directory");
        default:
            return MakeDir(session, place, "a/b");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const unsigned what = input.Byte();
    fuzz::Accepts([&] {
        Session session(std::make_unique<Scripted>(input.Rest()));
        const Place place("/root");
        Do(what, session, place);
    });
    return 0;
}
