// Responses without end, and responses that try to make the client read other data.
#include "hostile_http.h"

namespace {

using testing::AnyOf;
using testing::HasSubstr;

class HostileAnswer : public HostileHttp {
  protected:
    void AnswerAll(const std::string& body) {
        Serve([body](HttpExchange& exchange) { exchange.Answer(GetParam().list_status, body); });
    }
};

// --- XML ---

TEST_P(HostileAnswer, OneTextWithoutEnd) {
    ListWithoutEnd("<Contents><Key>", "name");
    EXPECT_THAT(ListError(), HasSubstr("a text is too long"));
}

TEST_P(HostileAnswer, OneTagWithoutEnd) {
    ListWithoutEnd("<Contents a='", "name");
    EXPECT_THAT(ListError(), HasSubstr("a tag or comment is too long"));
}

TEST_P(HostileAnswer, OneCommentWithoutEnd) {
    ListWithoutEnd("<!--", "name");
    EXPECT_THAT(ListError(), HasSubstr("a tag or comment is too long"));
}

TEST_P(HostileAnswer, CommentsWithoutEnd) {
    ListWithoutEnd("", "<!-- name -->");
    EXPECT_THAT(ListError(), HasSubstr("a tag or comment is too long"));
}

TEST_P(HostileAnswer, NestingWithoutEnd) {
    ListWithoutEnd("", "<a>");
    EXPECT_THAT(ListError(), HasSubstr("the elements are nested too deeply"));
}

TEST_P(HostileAnswer, NamesWithoutEnd) {
    for (const std::string kind : {"element", "attribute", "prefix"}) {
        SCOPED_TRACE(kind);
        Serve([kind](HttpExchange& exchange) {
            exchange.Body();
            const std::string status = std::to_string(GetParam().list_status);
            bool taken =
                exchange.Write("HTTP/1.1 " + status + " OK\r\n\r\n" + GetParam().list_head);
            for (long i = 0; taken; ++i) {
                const std::string name = "n" + std::to_string(i);
                taken = exchange.Write(kind == "element"     ? "<" + name + "/>"
                                       : kind == "attribute" ? "<a " + name + "=''/>"
                                                             : "<a xmlns:" + name + "='urn:x'/>");
            }
            exchange.Close();
        });
        EXPECT_THAT(ListError(), HasSubstr("too many different names"));
    }
}

TEST_P(HostileAnswer, EntitiesAreNotExpandedAndNotFetched) {
    local_files::Save(folder_ / "secret", "a secret of this machine");
    const std::string bomb =
        "<?xml version='1.0'?><!DOCTYPE x [<!ENTITY a 'aaaaaaaaaa'>"
        "<!ENTITY b '&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;'><!ENTITY c '&b;&b;&b;&b;&b;&b;&b;&b;'>]>"
        "<ListBucketResult>&c;</ListBucketResult>";
    const std::string file = "<?xml version='1.0'?><!DOCTYPE x [<!ENTITY a SYSTEM 'file://" +
                             (folder_ / "secret") +
                             "'>]><ListBucketResult><Contents><Key>&a;</Key></Contents>"
                             "</ListBucketResult>";
    ScriptedHttpServer other([](HttpExchange& exchange) { exchange.Answer(200, "fetched"); });
    const std::string remote =
        "<?xml version='1.0'?><!DOCTYPE x SYSTEM '" + other.Url("/dtd") + "'><ListBucketResult/>";
    for (const std::string& body : {bomb, file, remote}) {
        AnswerAll(body);
        EXPECT_THAT(ListError(), HasSubstr("a document type declaration is not allowed"));
    }
    EXPECT_EQ(other.connections(), 0);
}

// --- Answers ---

TEST_P(HostileAnswer, RefusalsWithoutEnd) {
    for (const int status : {400, 403, 404, 409, 503, 507}) {
        Serve([status](HttpExchange& exchange) {
            exchange.Body();
            exchange.WriteWithoutEnd("HTTP/1.1 " + std::to_string(status) + " No\r\n\r\n", "<p>");
        });
        const auto storage = Open();
        for (const Operation& operation : Operations()) {
            SCOPED_TRACE(std::string(operation.name) + ", " + std::to_string(status));
            const Bounds bounds;
            EXPECT_THAT(ErrorOf([&] { operation.run(*storage); }),
                        HasSubstr(": the error response is too long"));
        }
    }
}

TEST_P(HostileAnswer, SuccessesWithoutEnd) {
    Serve([](HttpExchange& exchange) {
        exchange.Body();
        exchange.WriteWithoutEnd("HTTP/1.1 200 Fine\r\n\r\n", "<p>fine</p>");
    });
    const auto storage = Open();
    for (const Operation& operation : Operations()) {
        SCOPED_TRACE(operation.name);
        const Bounds bounds;
        EXPECT_NE(ErrorOf([&] { operation.run(*storage); }), "(no error)");
    }
}

TEST_P(HostileAnswer, HeadersWithoutEnd) {
    Serve([](HttpExchange& exchange) {
        exchange.Body();
        exchange.WriteWithoutEnd("HTTP/1.1 200 OK\r\n", "X-Header: text\r\n");
    });
    const auto storage = Open();
    for (const Operation& operation : Operations()) {
        SCOPED_TRACE(operation.name);
        const Bounds bounds;
        EXPECT_NE(ErrorOf([&] { operation.run(*storage); }), "(no error)");
    }
}

TEST_P(HostileAnswer, OneHeaderWithoutEnd) {
    Serve([](HttpExchange& exchange) {
        exchange.Body();
        exchange.WriteWithoutEnd("HTTP/1.1 200 OK\r\nX-Header: ", "text");
    });
    EXPECT_NE(ListError(), "(no error)");
}

TEST_P(HostileAnswer, InformationWithoutEnd) {
    Serve([](HttpExchange& exchange) {
        exchange.Body();
        exchange.WriteWithoutEnd("", "HTTP/1.1 102 Wait\r\n\r\n");
    });
    EXPECT_THAT(ListError(), HasSubstr(": too many responses to one request"));
}

// --- Lengths ---

constexpr const char* kFileHeaders =
    "ETag: \"x\"\r\nLast-Modified: Fri, 20 Nov 2026 10:00:00 GMT\r\n";

TEST_P(HostileAnswer, BodyShorterThanItsLength) {
    Serve([](HttpExchange& exchange) {
        exchange.Write(std::string("HTTP/1.1 200 OK\r\n") + kFileHeaders +
                       "Content-Length: 100\r\n\r\nshort");
        exchange.Close();
    });
    const auto storage = Open();
    EXPECT_NE(ErrorOf([&] { storage->Download("file", target_); }), "(no error)");
}

TEST_P(HostileAnswer, BodyLongerThanItsLengthIsNoAnswerToTheNextRequest) {
    Serve([](HttpExchange& exchange) {
        if (exchange.method != "GET" || exchange.number > 0) return exchange.Answer(404);
        exchange.Write(std::string("HTTP/1.1 200 OK\r\n") + kFileHeaders +
                       "Content-Length: 5\r\n\r\nfirst" + "HTTP/1.1 200 OK\r\n" + kFileHeaders +
                       "Content-Length: 8\r\n\r\nsmuggled");
    });
    const auto storage = Open();
    const std::string first = folder_ / "first";
    storage->Download("file", first);
    EXPECT_EQ(local_files::Load(first), "first");
    EXPECT_NE(ErrorOf([&] { storage->Download("other", target_); }), "(no error)");
}

TEST_P(HostileAnswer, FileWithoutEnd) {
    Serve([](HttpExchange& exchange) {
        if (exchange.method == "PROPFIND") {
            return exchange.Answer(207,
                                   "<multistatus xmlns='DAV:'><response><href>/dir/file</href>"
                                   "<propstat><prop><resourcetype/><getcontentlength>5"
                                   "</getcontentlength></prop><status>HTTP/1.1 200 OK</status>"
                                   "</propstat></response></multistatus>");
        }
        exchange.Write(std::string("HTTP/1.1 200 OK\r\n") + kFileHeaders +
                       "Transfer-Encoding: chunked\r\n\r\n");
        while (exchange.Write("5\r\nbytes\r\n")) continue;
        exchange.Close();
    });
    const auto storage = Open();
    const Bounds bounds;
    EXPECT_THAT(ErrorOf([&] { storage->Download("file", target_); }),
                AnyOf(HasSubstr("did not report the size"),
                      HasSubstr("sent more bytes than the file contains")));
}

INSTANTIATE_TEST_SUITE_P(S3, HostileAnswer, testing::Values(kS3));
INSTANTIATE_TEST_SUITE_P(Webdav, HostileAnswer, testing::Values(kWebdav));

}  // namespace
