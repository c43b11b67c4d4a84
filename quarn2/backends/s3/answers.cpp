#include "answers.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "base/percent.h"
#include "kro/str.h"

namespace quarn2::s3 {

namespace {

using kro_err::Error;
using kro_err::Kind;

// Calls `take` for each XML element with the name of its parent, its own name and its text.
class Elements final : public net::XmlHandler {
  public:
    using Take = std::function<void(std::string_view parent, std::string_view name,
                                    const std::string& text)>;

    explicit Elements(Take take) : take_(std::move(take)) {}

    void Open(std::string_view /*space*/, std::string_view name) override {
        path_.emplace_back(name);
    }
    void Close(std::string_view /*space*/, std::string_view name,
               const std::string& text) override {
        path_.pop_back();
        take_(path_.empty() ? std::string_view() : path_.back(), name, text);
    }

  private:
    Take take_;
    std::vector<std::string> path_;
};

void ReadAll(const std::string& what, const std::string& body, Elements::Take take) {
    Elements elements(std::move(take));
    net::XmlReader reader(what, elements);
    reader.Feed(std::as_bytes(std::span(body)));
    reader.Finish();
}

// Decodes a key of a listing. Listings are requested with percent-encoded keys, because XML cannot
// represent every key. Some servers encode a blank as a plus sign.
std::string DecodedKey(const std::string& text) {
    std::string plain = text;
    std::replace(plain.begin(), plain.end(), '+', ' ');
    return PercentDecoded(plain).value_or(text);
}

// Returns nothing when the text is not a size, so that a faulty size does not fail a listing.
std::optional<std::int64_t> SizeOf(const std::string& text) {
    if (text.empty()) return std::nullopt;
    try {
        const std::int64_t size = str::Int64(text);
        return size < 0 ? std::nullopt : std::optional(size);
    } catch (const Error&) {
        return std::nullopt;
    }
}

[[noreturn]] void ThrowInvalidAnswer(const std::string& what, const char* to) {
    throw Error(Kind::kUnavailable, what + ": unexpected response to " + to);
}

void ParseRefusal(Refusal& refusal, std::string_view name, const std::string& text) {
    if (name == "Code") refusal.code = net::OneLine(text);
    if (name == "Message") refusal.message = net::OneLine(text);
    if (name == "Region") refusal.region = net::OneLine(text);
}

}  // namespace

Refusal RefusalOf(const net::HttpReply& reply, std::string path) {
    Refusal refusal;
    refusal.path = std::move(path);
    refusal.status = reply.status;
    refusal.region = net::OneLine(reply.Header("x-amz-bucket-region"));
    try {
        ReadAll({}, reply.body, [&refusal](auto /*parent*/, auto name, const std::string& text) {
            ParseRefusal(refusal, name, text);
        });
    } catch (const Error&) {
        // The body is not valid XML, because it is empty or the page of a proxy. The refusal
        // contains the status and the fields that were parsed before the error.
    }
    return refusal;
}

void ListingReader::Open(std::string_view /*space*/, std::string_view name) {
    path_.emplace_back(name);
    if (path_.size() == 1 && name != "ListBucketResult")
        ThrowInvalidAnswer("S3", "a listing request");
}

void ListingReader::Close(std::string_view /*space*/, std::string_view name,
                          const std::string& text) {
    path_.pop_back();
    if (path_.empty()) return;
    const bool is_key = name == "Key" && path_.back() == "Contents";
    const bool is_directory = name == "Prefix" && path_.back() == "CommonPrefixes";
    if (is_key || is_directory) limit_.Count(text.size());
    if (is_key) object_.key = DecodedKey(text);
    if (is_directory) listing_.directories.push_back(DecodedKey(text));
    if (name == "Size" && path_.back() == "Contents") object_.size = SizeOf(text);
    if (name == "Contents" && path_.size() == 1) {
        ListedKey object = std::exchange(object_, {});
        if (!object.key.empty()) listing_.keys.push_back(std::move(object));
    }
    // Do not decode the continuation token: it is an opaque text that the server expects back
    // unchanged.
    if (name == "NextContinuationToken") listing_.next = text;
}

Listing ListingReader::Finish() {
    reader_.Finish();
    return std::move(listing_);
}

Uploads ReadUploads(const std::string& what, const std::string& body) {
    Uploads answer;
    UnfinishedUpload upload;
    bool whole = false;
    ReadAll(what, body, [&](auto parent, auto name, const std::string& text) {
        if (name == "Key" && parent == "Upload") upload.key = DecodedKey(text);
        if (name == "UploadId" && parent == "Upload") upload.id = text;
        if (name == "Upload") answer.uploads.push_back(std::exchange(upload, {}));
        if (name == "IsTruncated") answer.more = text == "true";
        if (name == "ListMultipartUploadsResult") whole = true;
    });
    if (!whole) ThrowInvalidAnswer(what, "a request for the list of unfinished uploads");
    return answer;
}

UploadAnswer ReadUploadAnswer(const std::string& what, const std::string& body) {
    UploadAnswer answer;
    ReadAll(what, body, [&](auto parent, auto name, const std::string& text) {
        if (name == "UploadId") answer.id = text;
        if (name == "ETag") answer.etag = Unquoted(text);
        if (name == "Error" && parent.empty()) answer.is_error = true;
    });
    return answer;
}

std::vector<DeleteAnswer> ReadDeleteAnswer(const std::string& what, const std::string& body) {
    constexpr int kOk = 200;
    constexpr std::size_t kMaxKeys = 1000;  // the maximum number of keys in a request
    std::vector<DeleteAnswer> answers;
    DeleteAnswer one;
    bool whole = false;
    ReadAll(what, body, [&](auto parent, auto name, const std::string& text) {
        if (parent == "Error") ParseRefusal(one.refusal, name, text);
        if (parent == "Error" && name == "Key") one.key = text;
        if (name == "Error") {
            one.refusal.status = kOk;
            if (one.refusal.code != "NoSuchKey") answers.push_back(std::move(one));
            if (answers.size() > kMaxKeys) ThrowInvalidAnswer(what, "a removal request");
            one = {};
        }
        if (name == "DeleteResult") whole = true;
    });
    if (!whole) ThrowInvalidAnswer(what, "a removal request");
    return answers;
}

std::string Unquoted(std::string etag) {
    std::erase(etag, '"');
    return etag;
}

}  // namespace quarn2::s3
