#include "parts_upload.h"

#include <algorithm>
#include <utility>

#include "base/hex.h"
#include "cancel_rest.h"
#include "keys.h"
#include "kro/kro_err.h"
#include "kro/str.h"

namespace quarn2::s3 {

namespace {

using kro_err::Error;
using kro_err::Kind;

// The maximum number of bytes that are read from the source at a time. The running requests are
// advanced after each read.
constexpr std::size_t kReadSize = kMiB;
constexpr std::size_t kMd5Size = 16;

// Thrown when a response of the server ends the upload with a regular outcome, such as a full
// storage, and not with an error.
struct Stopped {
    PartsUpload::Outcome outcome;
};

// A request body that reads a range of the source while libcurl sends it.
class SourceRange final : public net::HttpBody {
  public:
    SourceRange(ByteSource& source, std::int64_t begin, std::int64_t size)
        : source_(source), begin_(begin), size_(size) {}

    std::int64_t size() const override { return size_; }
    std::size_t Read(std::span<std::byte> buffer) override {
        const auto count = std::min<std::uint64_t>(buffer.size(), Left());
        const std::size_t got =
            count == 0 ? 0 : source_.ReadAt(begin_ + done_, buffer.first(count));
        done_ += static_cast<std::int64_t>(got);
        return got;
    }
    void Rewind() override { done_ = 0; }

  private:
    std::uint64_t Left() const { return static_cast<std::uint64_t>(size_ - done_); }

    ByteSource& source_;
    std::int64_t begin_;
    std::int64_t size_;
    std::int64_t done_ = 0;
};

std::string PartList(const std::vector<std::string>& etags) {
    std::string xml = "<CompleteMultipartUpload xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\">";
    for (std::size_t i = 0; i < etags.size(); ++i) {
        xml += "<Part><PartNumber>" + str::Str(i + 1) + "</PartNumber><ETag>&quot;" +
               XmlEscaped(etags[i]) + "&quot;</ETag></Part>";
    }
    return xml + "</CompleteMultipartUpload>";
}

}  // namespace

Call CreationCall(const Service& service, const std::string& method, const std::string& key) {
    Call call;
    call.method = method;
    call.key = key;
    const std::string& storage_class = service.address().storage_class;
    if (!storage_class.empty()) call.headers.emplace_back("x-amz-storage-class", storage_class);
    return call;
}

PartsUpload::PartsUpload(Service& service, Unfinished& unfinished, std::string operation)
    : service_(service), unfinished_(unfinished), operation_(std::move(operation)) {}

PartsUpload::Outcome PartsUpload::Run(const std::string& key, ByteSource& source,
                                      const Plan& plan) {
    key_ = key;
    source_ = &source;
    plan_ = plan;
    etags_.assign(static_cast<std::size_t>((source.size() + plan_.part_size - 1) / plan_.part_size),
                  {});
    error_ = nullptr;
    refusal_.reset();

    try {
        id_ = BeginUpload();
    } catch (const Stopped& stopped) {
        return stopped.outcome;
    }
    const UnfinishedUpload upload{key_, id_};
    const RunningUpload running(upload.id);
    Outcome outcome = Outcome::kGone;
    try {
        outcome = SendAndComplete();
    } catch (...) {
        if (!TryToAbort(service_, upload)) unfinished_.Remember(upload);
        throw;
    }
    const bool stays = outcome == Outcome::kNoRoom && !TryToAbort(service_, upload);
    if (stays) unfinished_.Remember(upload);
    return outcome;
}

std::string PartsUpload::BeginUpload() {
    Call call = CreationCall(service_, "POST", key_);
    call.query = {{"uploads", ""}};
    SetBody(call, {});
    const net::HttpReply reply = service_.Ask(std::move(call));
    if (!reply.IsSuccess()) ThrowStopped(service_.RefusalOfKey(reply, key_));
    std::string id = ReadUploadAnswer(service_.what(), reply.body).id;
    if (id.empty()) {
        throw Error(Kind::kUnavailable, service_.what() + ": " + operation_ +
                                            ": the server returned no ID for the multipart upload");
    }
    return id;
}

PartsUpload::Outcome PartsUpload::SendAndComplete() {
    try {
        const CancelRest guard(service_.client());
        if (plan_.in_memory > 0) {
            SendFromMemory();
        } else {
            SendInPlace();
        }
    } catch (const Stopped& stopped) {
        return stopped.outcome;
    }
    source_->CheckUnchanged();
    return Complete();
}

std::int64_t PartsUpload::LengthOf(std::size_t index) const {
    return std::min(plan_.part_size, source_->size() - OffsetOf(index));
}

std::int64_t PartsUpload::OffsetOf(std::size_t index) const {
    return static_cast<std::int64_t>(index) * plan_.part_size;
}

void PartsUpload::SendFromMemory() {
    slots_.resize(static_cast<std::size_t>(plan_.in_memory));
    for (Slot& slot : slots_) slot.free = true;
    for (std::size_t index = 0; index < etags_.size(); ++index) {
        Slot& slot = FreeSlot();
        const auto length = static_cast<std::size_t>(LengthOf(index));
        if (slot.bytes == nullptr) {
            slot.bytes = std::make_unique_for_overwrite<std::byte[]>(
                static_cast<std::size_t>(std::min(plan_.part_size, source_->size())));
        }
        const std::span<std::byte> bytes(slot.bytes.get(), length);
        std::string hash = Fill(bytes, OffsetOf(index));
        StartPart(index, slot, bytes, std::move(hash));
    }
    while (service_.client().running() > 0) {
        service_.client().Wait();
        Check();
    }
}

PartsUpload::Slot& PartsUpload::FreeSlot() {
    for (;;) {
        const auto found =
            std::find_if(slots_.begin(), slots_.end(), [](const Slot& slot) { return slot.free; });
        if (found != slots_.end()) return *found;
        service_.client().Wait();
        Check();
    }
}

// Fills `bytes` from the source, starting at `offset`. Returns the SHA-256 of these bytes.
std::string PartsUpload::Fill(std::span<std::byte> bytes, std::int64_t offset) {
    Digest digest(Digest::Algorithm::kSha256);
    while (!bytes.empty()) {
        const std::span<std::byte> piece = bytes.first(std::min(bytes.size(), kReadSize));
        if (source_->ReadAt(offset, piece) != piece.size()) {
            throw Error(Kind::kFailed, "the source became shorter while it was uploaded");
        }
        digest.Add(piece);
        offset += static_cast<std::int64_t>(piece.size());
        bytes = bytes.subspan(piece.size());
        service_.client().Pump(0);
        Check();
    }
    return Hex(digest.Finish());
}

Call PartsUpload::PartCall(std::size_t index, std::string hash) const {
    Call call;
    call.method = "PUT";
    call.key = key_;
    call.query = {{"partNumber", str::Str(index + 1)}, {"uploadId", id_}};
    call.payload_hash = std::move(hash);
    return call;
}

void PartsUpload::StartPart(std::size_t index, Slot& slot, std::span<const std::byte> bytes,
                            std::string hash) {
    Call call = PartCall(index, std::move(hash));
    call.body = std::make_unique<net::MemoryBody>(bytes);
    slot.free = false;
    service_.client().Start(service_.Signed(std::move(call)),
                            [this, index, &slot](const net::HttpResult& result) {
                                slot.free = true;
                                FinishPart(index, result);
                            });
}

// Uploads parts that are too large for memory. Reads each part twice from the source: first for the
// hash in the headers of the request, then for the body of the request.
void PartsUpload::SendInPlace() {
    const auto buffer = std::make_unique_for_overwrite<std::byte[]>(kReadSize);
    for (std::size_t index = 0; index < etags_.size(); ++index) {
        Digest digest(Digest::Algorithm::kSha256);
        SourceRange range(*source_, OffsetOf(index), LengthOf(index));
        while (const std::size_t got = range.Read({buffer.get(), kReadSize})) {
            digest.Add({buffer.get(), got});
        }
        Call call = PartCall(index, Hex(digest.Finish()));
        call.body = std::make_unique<SourceRange>(*source_, OffsetOf(index), LengthOf(index));
        net::HttpResult result;
        result.reply = service_.Ask(std::move(call));
        FinishPart(index, result);
        Check();
    }
}

void PartsUpload::FinishPart(std::size_t index, const net::HttpResult& result) {
    const bool is_first = error_ == nullptr && !refusal_;
    if (result.error) {
        if (is_first) error_ = result.error;
    } else if (!result.reply.IsSuccess()) {
        if (is_first) refusal_ = service_.RefusalOfKey(result.reply, key_);
    } else {
        etags_[index] = Unquoted(result.reply.Header("etag"));
    }
}

void PartsUpload::Check() {
    if (error_) std::rethrow_exception(error_);
    if (refusal_) ThrowStopped(*refusal_);
}

void PartsUpload::ThrowStopped(const Refusal& refusal) const {
    if (refusal.IsNoRoom()) throw Stopped{Outcome::kNoRoom};
    if (refusal.code == kGoneCode) throw Stopped{Outcome::kGone};
    service_.ThrowRefused(refusal, operation_);
}

// --- Completion ---

PartsUpload::Outcome PartsUpload::Complete() {
    Call call;
    call.method = "POST";
    call.key = key_;
    call.query = {{"uploadId", id_}};
    call.headers = {{"content-type", "application/xml"}};
    SetBody(call, PartList(etags_));
    try {
        return OutcomeOf(service_.Ask(std::move(call)));
    } catch (const Error& error) {
        // Checks whether the file is stored, because the server may have completed the upload
        // although its response was lost.
        if (error.kind() != Kind::kUnavailable || !IsStored()) throw;
        return Outcome::kStored;
    }
}

PartsUpload::Outcome PartsUpload::OutcomeOf(const net::HttpReply& reply) {
    const UploadAnswer answer =
        reply.IsSuccess() ? ReadUploadAnswer(service_.what(), reply.body) : UploadAnswer();
    if (reply.IsSuccess() && !answer.is_error) {
        const std::string expected = ExpectedEtag();
        if (expected.empty() || answer.etag != expected) CheckSize();
        return Outcome::kStored;
    }
    const Refusal refusal = service_.RefusalOfKey(reply, key_);
    if (refusal.IsNoRoom()) return Outcome::kNoRoom;
    // libcurl sends the request again if the connection fails. The second request fails with
    // kGoneCode if the first request has already completed the upload.
    if (refusal.code == kGoneCode) return IsStored() ? Outcome::kStored : Outcome::kGone;
    service_.ThrowRefused(refusal, operation_);
}

// Returns the ETag that servers usually assign to a multipart object: the MD5 of the MD5s of all
// parts, "-", and the number of parts. Returns "" if the ETags of the parts are not MD5s.
std::string PartsUpload::ExpectedEtag() const {
    std::string all;
    for (const std::string& etag : etags_) {
        const std::optional<std::string> raw = FromHex(etag);
        if (!raw || raw->size() != kMd5Size) return {};
        all += *raw;
    }
    return Hex(Md5(all)) + "-" + str::Str(etags_.size());
}

net::HttpReply PartsUpload::Head() {
    Call call;
    call.method = "HEAD";
    call.key = key_;
    return service_.AskOnNewConnection(std::move(call));
}

// Returns true if the stored file has the expected size and ETag. The size alone is not sufficient,
// because an older file can have the same size.
bool PartsUpload::IsStored() {
    const std::string expected = ExpectedEtag();
    if (expected.empty()) return false;
    try {
        const net::HttpReply reply = Head();
        return reply.IsSuccess() && reply.Header("content-length") == str::Str(source_->size()) &&
               Unquoted(reply.Header("etag")) == expected;
    } catch (const Error&) {
        return false;
    }
}

void PartsUpload::CheckSize() {
    const net::HttpReply reply = Head();
    if (!reply.IsSuccess()) service_.ThrowRefused(reply, operation_);
    if (reply.Header("content-length") == str::Str(source_->size())) return;
    throw Error(Kind::kUnavailable, service_.what() + ": " + operation_ +
                                        ": the stored file does not have the size of the source");
}

}  // namespace quarn2::s3
