// Listings with more names or pages than the client accepts.
#include "hostile_http.h"

namespace {

using testing::HasSubstr;

// --- One listing ---

class EndlessListing : public HostileHttp {};

TEST_P(EndlessListing, OnePage) {
    const std::string name(60'000, 'n');
    ListWithoutEnd("", "<Contents><Key>" + name + "</Key></Contents><response><href>/dir/" + name +
                           "</href></response>");
    EXPECT_THAT(ListError(),
                HasSubstr(": the listing is too long: more than 1000000 names or 128 MiB"));
}

INSTANTIATE_TEST_SUITE_P(S3, EndlessListing, testing::Values(kS3));
INSTANTIATE_TEST_SUITE_P(Webdav, EndlessListing, testing::Values(kWebdav));

// --- Pages of S3 ---

class HostilePages : public HostileHttp {
  protected:
    static std::string Page(const std::string& keys, const std::string& next) {
        return "<ListBucketResult>" + keys + "<NextContinuationToken>" + next +
               "</NextContinuationToken></ListBucketResult>";
    }
    // Returns the errors of the operations that read page after page.
    std::vector<std::string> Errors() {
        const auto storage = Open();
        std::vector<std::string> errors;
        for (const Operation& operation : Operations()) {
            const std::string name = operation.name;
            if (name != "list" && name != "remove directory" && name != "clear") continue;
            const Bounds bounds;
            errors.push_back(ErrorOf([&] { operation.run(*storage); }));
        }
        return errors;
    }
};

TEST_P(HostilePages, TheSameAgain) {
    Serve([](HttpExchange& exchange) {
        if (exchange.target.find("uploads") != std::string::npos) {
            return exchange.Answer(
                200,
                "<ListMultipartUploadsResult><Upload><Key>k</Key><UploadId>i</UploadId>"
                "</Upload><IsTruncated>true</IsTruncated></ListMultipartUploadsResult>");
        }
        exchange.Answer(200, Page("", "again"));
    });
    EXPECT_THAT(Errors(), testing::Each(HasSubstr("invalid listing: the server repeated a page")));
}

TEST_P(HostilePages, AlwaysAnother) {
    Serve([](HttpExchange& exchange) {
        exchange.Answer(200, Page("", "page" + std::to_string(exchange.number)));
    });
    EXPECT_THAT(ListError(), HasSubstr("the listing is too long: more than 5000 pages"));
}

TEST_P(HostilePages, NamesOnAllOfThemTogether) {
    std::string keys;
    for (int i = 0; i < 10; ++i) {
        keys += "<Contents><Key>" + std::string(900'000, 'n') + "</Key></Contents>";
    }
    Serve([&](HttpExchange& exchange) {
        exchange.Answer(200, Page(keys, "page" + std::to_string(exchange.number)));
    });
    EXPECT_THAT(ListError(), HasSubstr("the listing is too long: more than 1000000 names"));
}

TEST_P(HostilePages, UploadsOnAllOfThemTogether) {
    Serve([](HttpExchange& exchange) {
        const std::string number = std::to_string(exchange.number);
        std::string uploads;
        for (int i = 0; i < 10; ++i) {
            uploads += "<Upload><Key>" + std::string(900'000, 'n') + number +
                       "</Key><UploadId>i</UploadId></Upload>";
        }
        exchange.Answer(200, "<ListMultipartUploadsResult>" + uploads +
                                 "<IsTruncated>true</IsTruncated></ListMultipartUploadsResult>");
    });
    const auto storage = Open();
    const Bounds bounds;
    EXPECT_THAT(ErrorOf([&] { storage->Clear(); }),
                HasSubstr("the listing is too long: more than 1000000 names"));
}

INSTANTIATE_TEST_SUITE_P(S3, HostilePages, testing::Values(kS3));

}  // namespace
