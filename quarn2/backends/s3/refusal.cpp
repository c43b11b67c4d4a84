#include "refusal.h"

#include <algorithm>
#include <iterator>
#include <map>

#include "kro/str.h"

namespace quarn2::s3 {

namespace {

constexpr int kRedirects = 300;
constexpr int kErrors = 400;
constexpr int kNotFound = 404;
constexpr int kServerErrors = 500;
constexpr int kInsufficientStorage = 507;
constexpr std::string_view kNoBucket = "NoSuchBucket";
// Some servers return this code when a quota is exceeded, others when a file or part exceeds their
// size limit.
constexpr std::string_view kTooLarge = "EntityTooLarge";

struct CodeRow {
    std::string_view code;
    Failure failure;
};

constexpr CodeRow kCodes[] = {
    // A wrong access key or a missing permission is the only cause of these codes.
    {"AccessDenied", Failure::kUnauthorized},
    {"ExpiredToken", Failure::kUnauthorized},
    {"InvalidAccessKeyId", Failure::kUnauthorized},
    {"InvalidSecurity", Failure::kUnauthorized},
    {"InvalidToken", Failure::kUnauthorized},
    {"SignatureDoesNotMatch", Failure::kUnauthorized},
    {"TokenRefreshRequired", Failure::kUnauthorized},

    {"BucketQuotaExceeded", Failure::kNoRoom},
    {"QuotaExceeded", Failure::kNoRoom},
    {"StorageQuotaExceeded", Failure::kNoRoom},
    {"UserQuotaExceeded", Failure::kNoRoom},
    {"XMinioAdminBucketQuotaExceeded", Failure::kNoRoom},

    {kNoBucket, Failure::kNotFound},
    {"NoSuchKey", Failure::kNotFound},

    // The access key is valid. The owner of the S3 account can solve the problem, or, for
    // RequestTimeTooSkewed, the administrator who corrects this machine's clock.
    {"AccountProblem", Failure::kUnavailable},
    {"AllAccessDisabled", Failure::kUnavailable},
    {"RequestTimeTooSkewed", Failure::kUnavailable},
    {"UserSuspended", Failure::kUnavailable},
    // The server received other bytes than the program sent, so another attempt may succeed.
    {"BadDigest", Failure::kUnavailable},
    {"IncompleteBody", Failure::kUnavailable},
    {"XAmzContentSHA256Mismatch", Failure::kUnavailable},
    // The server is overloaded or has an internal problem.
    {"ConditionalRequestConflict", Failure::kUnavailable},
    {"InternalError", Failure::kUnavailable},
    {"OperationAborted", Failure::kUnavailable},
    {"RequestLimitExceeded", Failure::kUnavailable},
    {"RequestTimeout", Failure::kUnavailable},
    {"ServiceUnavailable", Failure::kUnavailable},
    {"SlowDown", Failure::kUnavailable},
    {"TemporaryRedirect", Failure::kUnavailable},
    {"Throttling", Failure::kUnavailable},
    {"TooManyRequests", Failure::kUnavailable},
    // Another process aborted the multipart upload. The next attempt starts a new upload.
    {"InvalidPart", Failure::kUnavailable},
    {"NoSuchUpload", Failure::kUnavailable},

    {"AuthorizationHeaderMalformed", Failure::kFailed},
    {kTooLarge, Failure::kFailed},
    {"IllegalLocationConstraintException", Failure::kFailed},
    {"InvalidObjectState", Failure::kFailed},
    {"NotImplemented", Failure::kFailed},
    {"NotSignedUp", Failure::kFailed},
    {"ObjectNotInActiveTierError", Failure::kFailed},
    {"PermanentRedirect", Failure::kFailed},
};

struct StatusRow {
    int status;
    Failure failure;
};

// Statuses of responses without a known error code. A proxy may have sent such a response, so the
// failure is temporary.
constexpr StatusRow kStatuses[] = {
    {302, Failure::kUnavailable}, {303, Failure::kUnavailable}, {307, Failure::kUnavailable},
    {401, Failure::kUnavailable}, {403, Failure::kUnavailable}, {407, Failure::kUnavailable},
    {408, Failure::kUnavailable}, {425, Failure::kUnavailable}, {429, Failure::kUnavailable},
};

const std::map<std::string_view, std::string>& Advice() {
    static const std::map<std::string_view, std::string> advice = {
        {"AccessDenied", "grant the access key the permissions that the storage needs"},
        {"AccountProblem", "ask the storage provider about the account"},
        {"InvalidAccessKeyId", "the access key does not exist on the server"},
        {"InvalidObjectState", "the file is in an archive storage class; restore it first"},
        {kNoBucket, "the bucket does not exist; create it or correct the token"},
        {"RequestTimeTooSkewed", "the clock of this machine is wrong; set it"},
        {"SignatureDoesNotMatch", "the secret key is wrong"},
        {"UserSuspended", "ask the storage provider about the account"},
    };
    return advice;
}

// Returns true if the bucket is in another region than the request assumes. A temporary redirection
// without an error code and without a region does not count, because it comes from a proxy.
bool NamesAnotherRegion(const Refusal& refusal) {
    constexpr int kMovedPermanently = 301;
    const bool redirects = refusal.status >= kRedirects && refusal.status < kErrors;
    return (redirects && (!refusal.code.empty() || !refusal.region.empty())) ||
           refusal.status == kMovedPermanently || refusal.code == "AuthorizationHeaderMalformed" ||
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

bool SpeaksOfAQuota(const Refusal& refusal) {
    return SearchableText(refusal.message, refusal.path).find("quota") != std::string::npos;
}

Failure FailureOfStatus(int status, bool has_code) {
    if (status >= kServerErrors) return Failure::kUnavailable;
    if (status == kNotFound) return has_code ? Failure::kNotFound : Failure::kUnavailable;
    const auto* const row =
        std::find_if(std::begin(kStatuses), std::end(kStatuses),
                     [status](const StatusRow& each) { return each.status == status; });
    return row == std::end(kStatuses) ? Failure::kFailed : row->failure;
}

}  // namespace

Failure Refusal::failure() const {
    if (status == kInsufficientStorage) return Failure::kNoRoom;
    if (code == kTooLarge && SpeaksOfAQuota(*this)) return Failure::kNoRoom;
    const auto* const row = std::find_if(std::begin(kCodes), std::end(kCodes),
                                         [this](const CodeRow& each) { return each.code == code; });
    return row == std::end(kCodes) ? FailureOfStatus(status, !code.empty()) : row->failure;
}

bool Refusal::IsMissing() const {
    return status == kNotFound && !code.empty() && code != kNoBucket;
}

std::string Refusal::Text() const {
    std::string text = code.empty() ? "refused" : code;
    str::inpl::Append(text, message, ": ");
    text += " (HTTP " + str::Str(status) + ")";
    str::inpl::Append(text, AdviceFor(*this), ": ");
    return text;
}

}  // namespace quarn2::s3
