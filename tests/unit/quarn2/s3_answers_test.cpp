// Answers of S3 servers, keys and the plan of an upload in parts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "backends/s3/address.h"
#include "backends/s3/answers.h"
#include "backends/s3/keys.h"
#include "backends/s3/plan.h"

namespace {

using kro_err::Error;
using kro_err::Kind;
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

TEST(S3Refusal, HasTheKindThatItsCodeMeans) {
    const struct {
        int status;
        const char* code;
        Kind kind;
    } cases[] = {
        {403, "AccessDenied", Kind::kUnauthorized},
        {403, "InvalidAccessKeyId", Kind::kUnauthorized},
        {403, "SignatureDoesNotMatch", Kind::kUnauthorized},
        {403, "RequestTimeTooSkewed", Kind::kUnauthorized},
        {404, "NoSuchBucket", Kind::kNotFound},
        {404, "NoSuchKey", Kind::kNotFound},
        {503, "SlowDown", Kind::kUnavailable},
        {503, "ServiceUnavailable", Kind::kUnavailable},
        {500, "InternalError", Kind::kUnavailable},
        {200, "InternalError", Kind::kUnavailable},
        {400, "BadDigest", Kind::kUnavailable},
        {301, "PermanentRedirect", Kind::kFailed},
        {400, "AuthorizationHeaderMalformed", Kind::kFailed},
        {400, "InvalidBucketName", Kind::kFailed},
        {403, "", Kind::kUnauthorized},
        {404, "", Kind::kNotFound},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(Refused(one.status, one.code, "").kind(), one.kind) << one.code;
        EXPECT_FALSE(Refused(one.status, one.code, "").IsNoRoom()) << one.code;
    }
}

TEST(S3Refusal, KnowsTheWaysToSayThatThereIsNoRoom) {
    EXPECT_TRUE(Refused(403, "QuotaExceeded", "").IsNoRoom());
    EXPECT_TRUE(Refused(400, "EntityTooLarge", "Upload exceeds quota.").IsNoRoom());
    EXPECT_TRUE(Refused(507, "").IsNoRoom());
    EXPECT_FALSE(Refused(400, "EntityTooLarge", "Your proposed upload is too large").IsNoRoom());
    EXPECT_FALSE(Refused(503, "ServiceUnavailable", "Please reduce your request rate.").IsNoRoom());
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
              "RequestTimeTooSkewed (HTTP 403): this machine's clock is off; set it");
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
    EXPECT_THAT(listing.keys, ElementsAre("p/a+b c d\x01", "p/100%"));
    EXPECT_THAT(listing.directories, ElementsAre("p/dir/"));
    EXPECT_EQ(listing.next, "op+aq%2Fue==");
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
    EXPECT_EQ(ReadDeleteAnswer("server", "<DeleteResult/>").refusal.status, 0);
    const DeleteAnswer answer = ReadDeleteAnswer(
        "server",
        "<DeleteResult><Error><Key>gone</Key><Code>NoSuchKey</Code></Error><Error><Key>held</Key>"
        "<Code>AccessDenied</Code><Message/></Error><Error><Key>more</Key><Code>InternalError</"
        "Code>"
        "</Error></DeleteResult>");
    EXPECT_EQ(answer.key, "held");
    EXPECT_EQ(answer.refusal.code, "AccessDenied");
    EXPECT_EQ(answer.refusal.kind(), Kind::kUnauthorized);
    EXPECT_EQ(KindOf([] { ReadDeleteAnswer("server", "<Error/>"); }), Kind::kUnavailable);
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
