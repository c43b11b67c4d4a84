#include "download.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "base/hex.h"
#include "base/stored_name.h"
#include "cancel_rest.h"
#include "kro/kro_err.h"
#include "kro/str.h"

namespace quarn2::s3 {

namespace {

using kro_err::Error;
using kro_err::Kind;

constexpr std::int64_t kRange = 4 * kMiB;
constexpr std::size_t kAtOnce = 4;
constexpr int kPollMs = 1000;

constexpr int kPartialContent = 206;
constexpr int kGone = 404;
constexpr int kPreconditionFailed = 412;
constexpr int kNoSuchRange = 416;
constexpr int kInternalError = 500;
constexpr int kMaxFailures = 5;

std::optional<std::int64_t> Number(std::string_view text) {
    std::int64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    if (result.ec != std::errc() || result.ptr != end || number < 0) return std::nullopt;
    return number;
}

struct ContentRange {
    std::int64_t offset = 0;
    std::int64_t size = 0;  // the size of the complete file
};

// Parses the value of a Content-Range header, such as "bytes 0-99/1000". Returns nullopt for an
// invalid value.
std::optional<ContentRange> ParseRange(std::string text) {
    if (str::GetWord(text, " ") != "bytes") return std::nullopt;
    const std::optional<std::int64_t> offset = Number(str::GetWord(text, "-"));
    str::GetWord(text, "/");
    const std::optional<std::int64_t> size = Number(text);
    if (!offset || !size) return std::nullopt;
    return ContentRange{*offset, *size};
}

}  // namespace

// A range of the file that is being downloaded. The object is reused for later ranges, so that the
// memory of `held` is not allocated again.
class Download::Piece final : public net::ReplySink {
  public:
    explicit Piece(Download& owner) : owner_(owner) {}

    void Reset(std::int64_t new_offset, std::int64_t new_length) {
        offset = new_offset;
        length = new_length;
        received = 0;
        done = false;
        held.clear();
    }
    void Begin(const net::HttpReply& reply) override { owner_.Begin(*this, reply); }
    void Write(std::span<const std::byte> bytes) override { owner_.Take(*this, bytes); }

    std::int64_t offset = 0;
    std::int64_t length = 0;
    std::int64_t received = 0;
    bool done = false;
    std::vector<std::byte> held;

  private:
    Download& owner_;
};

Download::Download(Service& service, const std::string& name, ByteSink& sink)
    : service_(service), name_(name), key_(service.KeyOf(name)), sink_(sink) {}

Download::~Download() = default;

void Download::Run() {
    const CancelRest guard(service_.client());
    Start(0, kRange);
    while (!pieces_.empty()) {
        service_.client().Pump(kPollMs);
        if (error_) std::rethrow_exception(error_);
        WriteInOrder();
        StartMore();
        if (std::exchange(again_, false)) Start(0, kRange);
    }
    CheckComplete();
}

Call Download::PieceCall(Piece& piece) const {
    Call call;
    call.key = key_;
    call.sink = &piece;
    if (has_ranges_) {
        call.headers.emplace_back("range", "bytes=" + str::Str(piece.offset) + "-" +
                                               str::Str(piece.offset + piece.length - 1));
    }
    // If another process replaces the file, the server must refuse the remaining ranges, because
    // they would belong to another version of the file.
    if (!etag_.empty()) call.headers.emplace_back("if-match", etag_);
    return call;
}

void Download::Start(std::int64_t offset, std::int64_t length) {
    if (idle_.empty()) idle_.push_back(std::make_unique<Piece>(*this));
    Piece* const piece = idle_.back().get();
    pieces_.push_back(std::move(idle_.back()));
    idle_.pop_back();
    piece->Reset(offset, length);
    next_ = offset + length;
    service_.client().Start(service_.Signed(PieceCall(*piece)),
                            [this, piece](const net::HttpResult& result) { End(*piece, result); });
}

void Download::StartMore() {
    while (size_ && next_ < *size_ && pieces_.size() < kAtOnce) {
        Start(next_, std::min(kRange, *size_ - next_));
    }
}

void Download::Begin(Piece& piece, const net::HttpReply& reply) {
    const std::optional<ContentRange> range =
        reply.status == kPartialContent ? ParseRange(reply.Header("content-range")) : std::nullopt;
    if (size_) {
        if (!range || range->offset != piece.offset || range->size != *size_) {
            ThrowCannotFetch("the server sent a range that was not requested");
        }
        return;
    }
    // Some servers ignore the Range header and send the complete file, without a Content-Range
    // header.
    const std::optional<std::int64_t> size =
        range ? range->size : Number(reply.Header("content-length"));
    if (!size || (range && range->offset != 0))
        ThrowCannotFetch("the server did not report the size of the file");
    size_ = size;
    piece.length = range ? std::min(piece.length, *size) : *size;
    next_ = piece.length;
    etag_ = reply.Header("etag");
    checksum_ = reply.Header(kChecksumHeader);
    if (!checksum_.empty()) digest_.emplace(Digest::Algorithm::kSha256);
    sink_.Expect(*size);
}

void Download::Take(Piece& piece, std::span<const std::byte> bytes) {
    piece.received += static_cast<std::int64_t>(bytes.size());
    if (piece.received > piece.length) ThrowCannotFetch("the server sent more data than requested");
    if (&piece == pieces_.front().get()) {
        Deliver(bytes);
    } else {
        piece.held.reserve(static_cast<std::size_t>(piece.length));
        piece.held.insert(piece.held.end(), bytes.begin(), bytes.end());
    }
}

void Download::Deliver(std::span<const std::byte> bytes) {
    if (digest_) digest_->Add(bytes);
    sink_.Write(bytes);
    delivered_ += static_cast<std::int64_t>(bytes.size());
}

void Download::End(Piece& piece, const net::HttpResult& result) {
    piece.done = true;
    try {
        if (result.error) std::rethrow_exception(result.error);
        again_ = !size_ && MustSendAgain(result.reply.status);
        if (again_) return;
        if (!result.reply.IsSuccess()) ThrowRefused(result.reply);
        if (piece.received != piece.length) ThrowCannotFetch("the transfer ended early");
    } catch (...) {
        if (!error_) error_ = std::current_exception();
    }
}

// Decides by the status of the first response whether the first request is sent again. Servers
// return a 416 to a range request for an empty file, so the request is repeated without a range.
// Some servers return a 500 if the file is replaced while they open it.
bool Download::MustSendAgain(int status) {
    if (status == kNoSuchRange) return std::exchange(has_ranges_, false);
    return status == kInternalError && ++failures_ < kMaxFailures;
}

void Download::WriteInOrder() {
    while (!pieces_.empty() && pieces_.front()->done) {
        idle_.push_back(std::move(pieces_.front()));
        pieces_.pop_front();
        if (pieces_.empty()) return;
        Deliver(pieces_.front()->held);
        pieces_.front()->held.clear();
    }
}

void Download::CheckComplete() {
    if (!size_ || delivered_ != *size_) ThrowCannotFetch("the transfer ended early");
    if (digest_ && Hex(digest_->Finish()) != checksum_) {
        ThrowCannotFetch("the checksum of the downloaded data differs from the stored checksum");
    }
}

void Download::ThrowRefused(const net::HttpReply& reply) const {
    const bool gone = reply.status == kGone || reply.status == kPreconditionFailed;
    if (size_ && gone) ThrowCannotFetch("the file was replaced while it was downloaded");
    const Refusal refusal = RefusalOf(reply);
    if (refusal.IsMissing()) {
        throw Error(Kind::kNotFound, "no file " + Quoted(name_) + " on the storage");
    }
    service_.ThrowRefused(refusal, "cannot fetch " + Quoted(name_));
}

void Download::ThrowCannotFetch(const std::string& why) const {
    throw Error(Kind::kUnavailable,
                service_.what() + ": cannot fetch " + Quoted(name_) + ": " + why);
}

}  // namespace quarn2::s3
