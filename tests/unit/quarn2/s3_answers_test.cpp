// Responses of S3 servers, keys, and the plan of an upload in parts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "backends/s3/address.h"
#include "backends/s3/answers.h"
#include "backends/s3/keys.h"
#include "backends/s3/plan.h"

namespace {

using kro_err::Error;
using kro_err::Kind;
using quarn2::Failure;
using namespace quarn2::s3;  // NOLINT(google-build-using-namespace): the unit under test
using testing::ElementsAre;
using testing::IsEmpty;

Refusal Refused(int status, const std::string& body) {
    quarn2::net::HttpReply reply;
    reply.status = status;
    reply.body = body;
    return RefusalOf(reply);
}

std::string ErrorBody(const std::string& code, const std::string& message) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><Error><Code>" + code + "</Code><Message>" +
           message + "</Message></Error>";
}

Refusal Refused(int status, const std::string& code, const std::string& message) {
    return Refused(status, ErrorBody(code, message));
}

template <class Action>
std::optional<Kind> KindOf(const Action& action) {
    try {
        action();
    } catch (const Error& error) {
        return error.kind();
    }
    return std::nullopt;
}

// --- Refusals ---

TEST(S3Refusal, TellsCodeMessageAndStatus) {
    EXPECT_EQ(Refused(400, "InvalidArgument", "Bad thing").Text(),
              "InvalidArgument: Bad thing (HTTP 400)");
}

TEST(S3Refusal, NeedsNoMessage) {
    EXPECT_EQ(Refused(400, "InvalidArgument", "").Text(), "InvalidArgument (HTTP 400)");
    EXPECT_EQ(Refused(403, "SignatureDoesNotMatch", "").Text(),
              "SignatureDoesNotMatch (HTTP 403): the secret key is wrong");
}

TEST(S3Refusal, NeedsNoBodyAndNoXml) {
    for (const char* const body :
         {"", "<html><body>502 Bad Gateway<br></body>", "no xml", "\xff\xfe\x00"}) {
        EXPECT_EQ(Refused(502, body).Text(), "refused (HTTP 502)") << body;
        EXPECT_EQ(Refused(502, body).kind(), Kind::kUnavailable) << body;
    }
}

TEST(S3Refusal, TakesWhatATruncatedAnswerTells) {
    const Refusal refusal = Refused(403, "<Error><Code>QuotaExceeded</Code><Mess");
    EXPECT_EQ(refusal.code, "QuotaExceeded");
    EXPECT_TRUE(refusal.IsNoRoom());
}

TEST(S3Refusal, ShowsNoControlCharacters) {
    EXPECT_EQ(Refused(400, "Odd", "two&#10;lines").Text(), "Odd: two lines (HTTP 400)");
}

// Each line matters: the caller drops an upload at once for "unauthorized", and deletes old backups
// for "no room".
TEST(S3Refusal, HasOneMeaningForEachCode) {
    using enum Failure;
    const struct {
        int status;
        const char* code;
        Failure failure;
    } cases[] = {
        {403, "AccessDenied", kUnauthorized},
        {400, "ExpiredToken", kUnauthorized},
        {403, "InvalidAccessKeyId", kUnauthorized},
        {403, "InvalidSecurity", kUnauthorized},
        {400, "InvalidToken", kUnauthorized},
        {403, "SignatureDoesNotMatch", kUnauthorized},
        {400, "TokenRefreshRequired", kUnauthorized},

        {403, "QuotaExceeded", kNoRoom},
        {403, "BucketQuotaExceeded", kNoRoom},
        {403, "StorageQuotaExceeded", kNoRoom},
        {403, "UserQuotaExceeded", kNoRoom},
        {400, "XMinioAdminBucketQuotaExceeded", kNoRoom},
        {507, "", kNoRoom},
        {507, "InsufficientStorage", kNoRoom},

        {404, "NoSuchBucket", kNotFound},
        {404, "NoSuchKey", kNotFound},
        {404, "NoSuchVersion", kNotFound},

        {403, "AccountProblem", kUnavailable},
        {403, "AllAccessDisabled", kUnavailable},
        {403, "RequestTimeTooSkewed", kUnavailable},
        {403, "UserSuspended", kUnavailable},
        {400, "BadDigest", kUnavailable},
        {400, "IncompleteBody", kUnavailable},
        {400, "XAmzContentSHA256Mismatch", kUnavailable},
        {409, "ConditionalRequestConflict", kUnavailable},
        {500, "InternalError", kUnavailable},
        {200, "InternalError", kUnavailable},
        {409, "OperationAborted", kUnavailable},
        {400, "RequestLimitExceeded", kUnavailable},
        {400, "RequestTimeout", kUnavailable},
        {503, "ServiceUnavailable", kUnavailable},
        {503, "SlowDown", kUnavailable},
        {200, "SlowDown", kUnavailable},
        {307, "TemporaryRedirect", kUnavailable},
        {400, "Throttling", kUnavailable},
        {429, "TooManyRequests", kUnavailable},
        {429, "RequestQuotaExceeded", kUnavailable},
        {400, "InvalidPart", kUnavailable},
        {404, "NoSuchUpload", kUnavailable},
        {403, "NoCodeOfThisTable", kUnavailable},

        {400, "AuthorizationHeaderMalformed", kFailed},
        {400, "EntityTooLarge", kFailed},
        {400, "IllegalLocationConstraintException", kFailed},
        {400, "InvalidBucketName", kFailed},
        {403, "InvalidObjectState", kFailed},
        {501, "NotImplemented", kFailed},
        {403, "NotSignedUp", kFailed},
        {403, "ObjectNotInActiveTierError", kFailed},
        {301, "PermanentRedirect", kFailed},
        {412, "PreconditionFailed", kFailed},
    };
    for (const auto& [status, code, failure] : cases) {
        const Refusal refusal = Refused(status, code, "");
        EXPECT_EQ(refusal.failure(), failure) << status << " " << code;
        EXPECT_EQ(refusal.kind(), quarn2::KindOf(failure)) << status << " " << code;
        EXPECT_EQ(refusal.IsNoRoom(), failure == kNoRoom) << status << " " << code;
    }
}

// The page of a proxy proves neither that the credentials are wrong nor that a file is missing.
TEST(S3Refusal, MayPassWhenNoCodeSaysWhoRefuses) {
    for (const char* const body : {"", "<html><title>Forbidden</title><body>quota</body></html>"}) {
        for (const int status : {302, 303, 307, 401, 403, 404, 407, 408, 425, 429, 500, 501, 502,
                                 503, 504, 511, 599}) {
            EXPECT_EQ(Refused(status, body).failure(), Failure::kUnavailable) << status;
            EXPECT_FALSE(Refused(status, body).IsMissing()) << status;
        }
        for (const int status : {301, 308, 400, 405, 409, 411, 412, 413, 416}) {
            EXPECT_EQ(Refused(status, body).failure(), Failure::kFailed) << status;
        }
    }
    EXPECT_EQ(Refused(302, "").Text(), "refused (HTTP 302)");
}

TEST(S3Refusal, OfAMissingFileNeedsACode) {
    EXPECT_TRUE(Refused(404, "NoSuchKey", "").IsMissing());
    EXPECT_TRUE(Refused(404, "NoSuchUpload", "").IsMissing());
    EXPECT_FALSE(Refused(404, "NoSuchBucket", "").IsMissing());
    EXPECT_FALSE(Refused(404, "<html>default backend</html>").IsMissing());
}

TEST(S3Refusal, OfALargeFileIsAQuotaOnlyIfTheTextSaysSo) {
    const struct {
        const char* message;
        const char* path;
        bool no_room;
    } cases[] = {
        {"Upload exceeds quota.", "bucket/file", true},
        {"Upload of file exceeds Quota", "bucket/file", true},
        {"Your proposed upload is too large", "bucket/file", false},
        {"bucket/p/quota/2026-11-20/F.tgz is too large", "bucket/p/quota/2026-11-20/F.tgz", false},
        {"/p/F2026-11-20.quota.tgz is too large", "bucket/p/F2026-11-20.quota.tgz", false},
        {"quota: quota exceeded", "bucket/quota", false},
    };
    for (const auto& [message, path, no_room] : cases) {
        Refusal refusal = Refused(400, "EntityTooLarge", message);
        refusal.path = path;
        EXPECT_EQ(refusal.IsNoRoom(), no_room) << message;
    }
    EXPECT_EQ(Refused(403, "AccessDenied", "arn:aws:iam::1:user/quota is not allowed").failure(),
              Failure::kUnauthorized);
}

TEST(S3Refusal, NamesTheRegionToSet) {
    EXPECT_EQ(Refused(400,
                      "<Error><Code>AuthorizationHeaderMalformed</Code><Message>m</Message>"
                      "<Region>eu-west-1</Region></Error>")
                  .Text(),
              "AuthorizationHeaderMalformed: m (HTTP 400): the bucket is in another region; set "
              "region=eu-west-1 in the token");
    EXPECT_EQ(Refused(301, "").Text(),
              "refused (HTTP 301): the bucket is in another region; set region= in the token");
}

TEST(S3Refusal, SaysThatTheClockIsOff) {
    EXPECT_EQ(Refused(403, "RequestTimeTooSkewed", "").Text(),
              "RequestTimeTooSkewed (HTTP 403): the clock of this machine is wrong; set it");
}

// --- Listings ---

Listing ReadListing(const std::string& text, std::size_t piece = 7) {
    ListingReader reader("server");
    const auto bytes = std::as_bytes(std::span(text));
    for (std::size_t done = 0; done < bytes.size(); done += piece) {
        reader.Write(bytes.subspan(done, std::min(piece, bytes.size() - done)));
    }
    return reader.Finish();
}

TEST(S3Listing, TakesKeysDirectoriesAndTheToken) {
    const Listing listing = ReadListing(
        "<?xml version=\"1.0\"?><ListBucketResult "
        "xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\">"
        "<Prefix>p/</Prefix><Delimiter>/</Delimiter><NextContinuationToken>op+aq%2Fue==</"
        "NextContinuationToken><Contents><Key>p/a%2Bb%20c+d%01</Key><Size>1</Size></Contents>"
        "<Contents><Key>p/100%25</Key><Owner><ID>x</ID></Owner></Contents>"
        "<CommonPrefixes><Prefix>p/dir/</Prefix></CommonPrefixes></ListBucketResult>");
    EXPECT_THAT(listing.keys,
                ElementsAre(ListedKey{"p/a+b c d\x01", 1}, ListedKey{"p/100%", std::nullopt}));
    EXPECT_THAT(listing.directories, ElementsAre("p/dir/"));
    EXPECT_EQ(listing.next, "op+aq%2Fue==");
}

TEST(S3Listing, ASizeThatIsNoNumberIsUnknown) {
    for (const char* const size : {"", "-1", "1.5", "9223372036854775808", "x"}) {
        const Listing listing =
            ReadListing("<ListBucketResult><Contents><Size>" + std::string(size) +
                        "</Size><Key>a</Key></Contents><Contents><Key>b</Key><Size>"
                        "9223372036854775807</Size></Contents></ListBucketResult>");
        EXPECT_THAT(listing.keys,
                    ElementsAre(ListedKey{"a", std::nullopt}, ListedKey{"b", 9223372036854775807}))
            << size;
    }
}

TEST(S3Listing, TakesAnEmptyOne) {
    const Listing listing = ReadListing("<ListBucketResult/>");
    EXPECT_THAT(listing.keys, IsEmpty());
    EXPECT_THAT(listing.directories, IsEmpty());
    EXPECT_EQ(listing.next, "");
}

TEST(S3Listing, RefusesWhatIsNone) {
    for (const char* const text :
         {"", "no xml", "<html></html>", "<ListBucketResult><Contents><Key>a</Key>",
          "<Error><Code>InternalError</Code></Error>"}) {
        EXPECT_EQ(KindOf([&] { ReadListing(text); }), Kind::kUnavailable) << text;
    }
}

// --- Uploads in parts ---

TEST(S3Answers, TakesUnfinishedUploads) {
    const Uploads page = ReadUploads(
        "server",
        "<ListMultipartUploadsResult><Prefix>p</Prefix><IsTruncated>true</IsTruncated><Upload><Key>"
        "a%20b</Key><UploadId>2~x+y</UploadId><Owner><ID>o</ID></Owner></Upload><Upload><Key>c</"
        "Key>"
        "<UploadId>z</UploadId></Upload></ListMultipartUploadsResult>");
    ASSERT_EQ(page.uploads.size(), 2U);
    EXPECT_EQ(page.uploads[0].key, "a b");
    EXPECT_EQ(page.uploads[0].id, "2~x+y");
    EXPECT_EQ(page.uploads[1].key, "c");
    EXPECT_TRUE(page.more);
    EXPECT_EQ(KindOf([] { ReadUploads("server", "<html/>"); }), Kind::kUnavailable);
}

TEST(S3Answers, FindsAnErrorInASuccess) {
    const UploadAnswer good =
        ReadUploadAnswer("server",
                         "\n  \n<CompleteMultipartUploadResult><ETag>&quot;0a-2&quot;</ETag></"
                         "CompleteMultipartUploadResult>");
    EXPECT_FALSE(good.is_error);
    EXPECT_EQ(good.etag, "0a-2");
    EXPECT_TRUE(ReadUploadAnswer("server", ErrorBody("InternalError", "")).is_error);
    EXPECT_EQ(KindOf([] { ReadUploadAnswer("server", ""); }), Kind::kUnavailable);
}

TEST(S3Answers, FindsTheKeysThatStayInASuccess) {
    EXPECT_TRUE(ReadDeleteAnswer("server", "<DeleteResult/>").empty());
    const std::vector<DeleteAnswer> answers = ReadDeleteAnswer(
        "server",
        "<DeleteResult><Error><Key>gone</Key><Code>NoSuchKey</Code></Error><Error><Key>held</Key>"
        "<Code>AccessDenied</Code><Message/></Error><Error><Key>more</Key><Code>InternalError</"
        "Code>"
        "</Error></DeleteResult>");
    ASSERT_EQ(answers.size(), 2U);
    EXPECT_EQ(answers[0].key, "held");
    EXPECT_EQ(answers[0].refusal.code, "AccessDenied");
    EXPECT_EQ(answers[0].refusal.kind(), Kind::kUnauthorized);
    EXPECT_EQ(answers[1].key, "more");
    EXPECT_EQ(answers[1].refusal.kind(), Kind::kUnavailable);
    EXPECT_EQ(KindOf([] { ReadDeleteAnswer("server", "<Error/>"); }), Kind::kUnavailable);
    std::string endless = "<DeleteResult>";
    for (int i = 0; i < 1001; ++i)
        endless += "<Error><Key>x</Key><Code>InternalError</Code></Error>";
    endless += "</DeleteResult>";
    EXPECT_EQ(KindOf([&] { ReadDeleteAnswer("server", endless); }), Kind::kUnavailable);
}

TEST(S3Plan, KeepsPartsWithinTheirMemory) {
    for (const std::int64_t part : {5 * kMiB, 16 * kMiB, 24 * kMiB, 33 * kMiB, 64 * kMiB}) {
        const Plan plan = PlanParts(1024 * kMiB, part);
        EXPECT_EQ(plan.part_size, part);
        EXPECT_GE(plan.in_memory, 1);
        EXPECT_LE(plan.in_memory * plan.part_size, 64 * kMiB);
    }
    EXPECT_EQ(PlanParts(1024 * kMiB, 16 * kMiB).in_memory, 3);
}

TEST(S3Plan, MakesPartsLargerThatTheyAreNotTooMany) {
    EXPECT_EQ(PlanParts(160000 * kMiB, 16 * kMiB).part_size, 16 * kMiB);
    EXPECT_EQ(PlanParts(160000 * kMiB + 1, 16 * kMiB).part_size, 17 * kMiB);
    EXPECT_EQ(PlanParts(640000 * kMiB, 16 * kMiB).in_memory, 1);
    const Plan largest = PlanParts(5 * kMiB * kMiB, 16 * kMiB);
    EXPECT_EQ(largest.part_size, 525 * kMiB);
    EXPECT_EQ(largest.in_memory, 0);
    EXPECT_EQ(KindOf([] { PlanParts(5 * kMiB * kMiB + 1, 16 * kMiB); }), Kind::kFailed);
}

// --- Keys ---

TEST(S3Keys, AreTheNamesThemselvesWhereTheyCanBe) {
    for (const char* const name : {"a/b c", "k\xc3\xa4se", "\xf0\x9f\x98\x80", "100%", "%41", "%2f",
                                   "%zz", "a+b&c=d?e#f", "\xef\xbf\xbf"}) {
        EXPECT_EQ(KeyOf(name), name);
        EXPECT_EQ(NameOf(name), name);
    }
}

TEST(S3Keys, AreTextWhateverTheNameIs) {
    EXPECT_EQ(KeyOf("\xff\xfe"), "%FF%FE");
    EXPECT_EQ(KeyOf("k\xe4se"), "k%E4se");
    EXPECT_EQ(KeyOf("\xc0\xaf"), "%C0%AF");
    EXPECT_EQ(KeyOf("\xed\xa0\x80"), "%ED%A0%80");
    EXPECT_EQ(KeyOf("\xf4\x90\x80\x80"), "%F4%90%80%80");
    EXPECT_EQ(KeyOf("\xe2\x82"), "%E2%82");
    EXPECT_EQ(KeyOf("%FF"), "%25FF");
    EXPECT_EQ(KeyOf("%25FF"), "%2525FF");
}

TEST(S3Keys, GiveBackEveryName) {
    const std::string pieces[] = {"%", "2", "5", "F", "\xff", "\xc3", "\xa4", "a"};
    for (const std::string& a : pieces) {
        for (const std::string& b : pieces) {
            for (const std::string& c : pieces) {
                for (const std::string& d : pieces) {
                    std::string name = a;
                    name.append(b).append(c).append(d).append("5");
                    EXPECT_EQ(NameOf(KeyOf(name)), name);
                }
            }
        }
    }
}

TEST(S3Keys, OfOthersMayHaveNoName) {
    EXPECT_EQ(NameOf("a%25b"), std::nullopt);
    EXPECT_EQ(NameOf("k%C3%A4se"), std::nullopt);
    EXPECT_EQ(NameOf("\xff"), std::nullopt);
}

TEST(S3Keys, ThatXmlCannotHoldAreTold) {
    EXPECT_TRUE(IsXmlText("k\xc3\xa4se <&>"));
    for (const char* const key : {"\x01", "\xff", "a\nb", "\xef\xbf\xbe"}) {
        EXPECT_FALSE(IsXmlText(key));
    }
    EXPECT_EQ(XmlEscaped("<a&b>\"'"), "&lt;a&amp;b&gt;&quot;&apos;");
}

}  // namespace
