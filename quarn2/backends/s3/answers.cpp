#include "backends/s3/answers.h"

#include <algorithm>
#include <functional>
#include <map>
#include <utility>

#include "kro/str.h"
#include "percent.h"

namespace quarn2::s3 {

namespace {

using kro_err::Error;
using kro_err::Kind;

// Tells of each element's text by its name and its parent's.
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

// Listings are asked for in this form, because XML cannot hold every key. Some servers write a
// blank as a plus sign.
std::string DecodedKey(const std::string& text) {
    std::string plain = text;
    std::replace(plain.begin(), plain.end(), '+', ' ');
    return PercentDecoded(plain).value_or(text);
}

[[noreturn]] void NoAnswer(const std::string& what, const char* to) {
    throw Error(Kind::kUnavailable, what + ": an answer that is none to " + to);
}

void TakeRefusal(Refusal& refusal, std::string_view name, const std::string& text) {
    if (name == "Code") refusal.code = net::OneLine(text);
    if (name == "Message") refusal.message = net::OneLine(text);
    if (name == "Region") refusal.region = net::OneLine(text);
}

bool Contains(std::string text, std::string_view piece) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return text.find(piece) != std::string::npos;
}

const std::map<std::string, Kind>& Kinds() {
    static const std::map<std::string, Kind> kinds = {
        {"AccessDenied", Kind::kUnauthorized},
        {"AccountProblem", Kind::kUnauthorized},
        {"AllAccessDisabled", Kind::kUnauthorized},
        {"ExpiredToken", Kind::kUnauthorized},
        {"InvalidAccessKeyId", Kind::kUnauthorized},
        {"InvalidToken", Kind::kUnauthorized},
        {"RequestTimeTooSkewed", Kind::kUnauthorized},
        {"SignatureDoesNotMatch", Kind::kUnauthorized},
        {"UserSuspended", Kind::kUnauthorized},
        {"NoSuchBucket", Kind::kNotFound},
        {"NoSuchKey", Kind::kNotFound},
        // The bytes that arrived are not those that were sent.
        {"BadDigest", Kind::kUnavailable},
        {"IncompleteBody", Kind::kUnavailable},
        {"InternalError", Kind::kUnavailable},
        {"OperationAborted", Kind::kUnavailable},
        {"RequestTimeout", Kind::kUnavailable},
        {"ServiceUnavailable", Kind::kUnavailable},
        {"SlowDown", Kind::kUnavailable},
        {"XAmzContentSHA256Mismatch", Kind::kUnavailable},
        {"AuthorizationHeaderMalformed", Kind::kFailed},
        {"IllegalLocationConstraintException", Kind::kFailed},
        {"InvalidObjectState", Kind::kFailed},
        {"PermanentRedirect", Kind::kFailed},
        {"TemporaryRedirect", Kind::kFailed},
    };
    return kinds;
}

const std::map<std::string, std::string>& Advice() {
    static const std::map<std::string, std::string> advice = {
        {"AccessDenied", "give the access key the rights that the storage needs"},
        {"InvalidAccessKeyId", "the server does not know the access key"},
        {"InvalidObjectState", "the file lies in an archive class and must be restored first"},
        {"NoSuchBucket", "the bucket does not exist; create it or correct the token"},
        {"RequestTimeTooSkewed", "this machine's clock is off; set it"},
        {"SignatureDoesNotMatch", "the secret key is wrong"},
    };
    return advice;
}

bool NamesAnotherRegion(const Refusal& refusal) {
    constexpr int kRedirects = 300;
    constexpr int kErrors = 400;
    return (refusal.status >= kRedirects && refusal.status < kErrors) ||
           refusal.code == "AuthorizationHeaderMalformed" ||
           refusal.code == "IllegalLocationConstraintException" ||
           refusal.code == "PermanentRedirect";
}

std::string AdviceFor(const Refusal& refusal) {
    if (NamesAnotherRegion(refusal)) {
        return refusal.region.empty()
                   ? "the bucket is in another region; set region= in the token"
                   : "the bucket is in another region; set region=" + refusal.region +
                         " in the token";
    }
    const auto found = Advice().find(refusal.code);
    return found == Advice().end() ? std::string() : found->second;
}

}  // namespace

bool Refusal::IsNoRoom() const {
    constexpr int kInsufficientStorage = 507;
    if (status == kInsufficientStorage || Contains(code, "quotaexceeded")) return true;
    return code == "EntityTooLarge" && Contains(message, "quota");
}

kro_err::Kind Refusal::kind() const {
    const auto found = Kinds().find(code);
    return found == Kinds().end() ? net::KindOfStatus(status) : found->second;
}

std::string Refusal::Text() const {
    std::string text = code.empty() ? "refused" : code;
    str::inpl::Append(text, message, ": ");
    text += " (HTTP " + str::Str(status) + ")";
    str::inpl::Append(text, AdviceFor(*this), ": ");
    return text;
}

Refusal RefusalOf(const net::HttpReply& reply) {
    Refusal refusal;
    refusal.status = reply.status;
    refusal.region = net::OneLine(reply.Header("x-amz-bucket-region"));
    try {
        ReadAll({}, reply.body, [&refusal](auto /*parent*/, auto name, const std::string& text) {
            TakeRefusal(refusal, name, text);
        });
    } catch (const Error&) {
        // A proxy's page, or nothing at all: what was read of it counts, and the status does.
    }
    return refusal;
}

void ListingReader::Open(std::string_view /*space*/, std::string_view name) {
    path_.emplace_back(name);
    if (path_.size() == 1 && name != "ListBucketResult") NoAnswer("S3", "a listing");
}

void ListingReader::Close(std::string_view /*space*/, std::string_view name,
                          const std::string& text) {
    path_.pop_back();
    if (path_.empty()) return;
    const bool is_key = name == "Key" && path_.back() == "Contents";
    const bool is_directory = name == "Prefix" && path_.back() == "CommonPrefixes";
    if (is_key || is_directory) {
        limit_.Count(text.size());
        (is_key ? listing_.keys : listing_.directories).push_back(DecodedKey(text));
    }
    // Whatever the token means is the server's business.
    if (name == "NextContinuationToken") listing_.next = text;
}

Listing ListingReader::Finish() {
    reader_.Finish();
    return std::move(listing_);
}

Uploads ReadUploads(const std::string& what, const std::string& body) {
    Uploads answer;
    Upload upload;
    bool whole = false;
    ReadAll(what, body, [&](auto parent, auto name, const std::string& text) {
        if (name == "Key" && parent == "Upload") upload.key = DecodedKey(text);
        if (name == "UploadId" && parent == "Upload") upload.id = text;
        if (name == "Upload") answer.uploads.push_back(std::exchange(upload, {}));
        if (name == "IsTruncated") answer.more = text == "true";
        if (name == "ListMultipartUploadsResult") whole = true;
    });
    if (!whole) NoAnswer(what, "a listing of unfinished uploads");
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

DeleteAnswer ReadDeleteAnswer(const std::string& what, const std::string& body) {
    constexpr int kOk = 200;
    DeleteAnswer answer;
    DeleteAnswer one;
    bool whole = false;
    ReadAll(what, body, [&](auto parent, auto name, const std::string& text) {
        if (parent == "Error") TakeRefusal(one.refusal, name, text);
        if (parent == "Error" && name == "Key") one.key = text;
        if (name == "Error") {
            one.refusal.status = kOk;
            const bool gone = one.refusal.code == "NoSuchKey";
            if (!gone && answer.refusal.status == 0) answer = one;
            one = {};
        }
        if (name == "DeleteResult") whole = true;
    });
    if (!whole) NoAnswer(what, "a removal");
    return answer;
}

std::string Unquoted(std::string etag) {
    std::erase(etag, '"');
    return etag;
}

}  // namespace quarn2::s3
