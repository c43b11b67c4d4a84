// Servers with a false identity, and servers that redirect the client. They must not receive a
// secret.
#include "hostile_http.h"
#include "scripted_tls.h"

namespace {

using scripted_tls::Certificate;
using testing::HasSubstr;
using testing::IsEmpty;

// A server that answers before it receives a request.
class PlainTalker final : public ServerStream {
  public:
    using ServerStream::ServerStream;
    bool Accept() override {
        const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
        return Write(answer.data(), answer.size()) > 0;
    }
};

class HostilePeer : public HostileHttp {
  protected:
    // Expects that every operation fails with an error that contains `part`, and that the server
    // receives no request.
    void ExpectNothingSaid(const std::string& more, const std::string& part) {
        const auto storage = Open(more, true, kLong);
        for (const Operation& operation : Operations()) {
            SCOPED_TRACE(operation.name);
            const Bounds bounds;
            EXPECT_THAT(ErrorOf([&] { operation.run(*storage); }), HasSubstr(part));
        }
        EXPECT_THAT(server_->SeenLines(), IsEmpty());
        // Ends the server before the test destroys the certificate.
        server_.reset();
    }
    void ServeTls(const Certificate& certificate) {
        server_ = std::make_unique<ScriptedHttpServer>(
            [](HttpExchange& exchange) { exchange.Answer(200); }, certificate.Streams());
    }
};

TEST_P(HostilePeer, RedirectsAreFollowedNowhere) {
    ScriptedHttpServer other([](HttpExchange& exchange) { exchange.Answer(200); });
    for (const int status : {301, 302, 303, 307, 308}) {
        Serve([&other, status](HttpExchange& exchange) {
            exchange.Answer(status, "", {"Location: " + other.Url("/bucket/file")});
        });
        const auto storage = Open();
        for (const Operation& operation : Operations()) {
            SCOPED_TRACE(std::string(operation.name) + ", " + std::to_string(status));
            EXPECT_NE(ErrorOf([&] { operation.run(*storage); }), "(no error)");
        }
    }
    EXPECT_EQ(other.connections(), 0);
    server_.reset();
}

TEST_P(HostilePeer, PlainAnswerToTls) {
    server_ = std::make_unique<ScriptedHttpServer>(
        [](HttpExchange& exchange) { exchange.Answer(200); },
        [](int fd) { return std::make_unique<PlainTalker>(fd); });
    ExpectNothingSaid("", "SSL");
}

TEST_P(HostilePeer, CertificateThatNobodyTrusts) {
    const Certificate certificate;
    ServeTls(certificate);
    ExpectNothingSaid("", "certificate");
}

TEST_P(HostilePeer, CertificateOfAnotherName) {
    const Certificate certificate("DNS:another.example");
    certificate.Save(folder_ / "ca.pem");
    ServeTls(certificate);
    ExpectNothingSaid("&ca=" + (folder_ / "ca.pem"), "no alternative certificate subject name");
}

TEST_P(HostilePeer, CertificateThatHasExpired) {
    const Certificate certificate("IP:127.0.0.1", -3600);
    certificate.Save(folder_ / "ca.pem");
    ServeTls(certificate);
    ExpectNothingSaid("&ca=" + (folder_ / "ca.pem"), "expired");
}

INSTANTIATE_TEST_SUITE_P(S3, HostilePeer, testing::Values(kS3));
INSTANTIATE_TEST_SUITE_P(Webdav, HostilePeer, testing::Values(kWebdav));

// --- False successes ---

class HostileSuccess : public HostileHttp {
  protected:
    static constexpr std::size_t kInParts = 11UL * 1024 * 1024;

    void ExpectRefusedInParts(const std::string& reason) {
        const std::string large = folder_ / "large";
        local_files::Save(large, std::string(kInParts, 'x'));
        const auto storage = Open("&part_size=5242880", false, kLong);
        EXPECT_THAT(ErrorOf([&] { storage->Upload("file", large); }), HasSubstr(reason));
        EXPECT_TRUE(local_files::Has(large));
    }
};

// An upload in parts. The client compares its size with the size that the server reports for the
// complete file.
TEST_P(HostileSuccess, OfAnUploadInPartsThatIsShorter) {
    Serve([](HttpExchange& exchange) {
        if (exchange.method == "GET") {
            return exchange.Answer(200, "<ListMultipartUploadsResult/>");
        }
        if (exchange.method == "HEAD") {
            exchange.Body();
            exchange.Write("HTTP/1.1 200 OK\r\nContent-Length: 7\r\n\r\n");
            return;
        }
        if (exchange.method == "PUT") return exchange.Answer(200, "", {"ETag: \"e\""});
        if (exchange.method == "DELETE") return exchange.Answer(204);
        const bool begins = exchange.target.find("uploads") != std::string::npos;
        exchange.Answer(200, begins ? "<InitiateMultipartUploadResult><UploadId>i</UploadId>"
                                      "</InitiateMultipartUploadResult>"
                                    : "<CompleteMultipartUploadResult><ETag>\"other\"</ETag>"
                                      "</CompleteMultipartUploadResult>");
    });
    ExpectRefusedInParts("cannot store 'file'");
}

// The server has forgotten the upload, and has a file of the same size without an ETag: an older
// file could be just as large.
TEST_P(HostileSuccess, OfAnUploadInPartsThatMayBeAnOlderFile) {
    Serve([](HttpExchange& exchange) {
        if (exchange.method == "GET") {
            return exchange.Answer(200, "<ListMultipartUploadsResult/>");
        }
        if (exchange.method == "HEAD") {
            exchange.Body();
            exchange.Write("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(kInParts) +
                           "\r\n\r\n");
            return;
        }
        if (exchange.method == "PUT") return exchange.Answer(200, "", {"ETag: \"e\""});
        if (exchange.method == "DELETE") return exchange.Answer(204);
        if (exchange.target.find("uploads") == std::string::npos) {
            return exchange.Answer(404, "<Error><Code>NoSuchUpload</Code></Error>");
        }
        exchange.Answer(200,
                        "<InitiateMultipartUploadResult><UploadId>i</UploadId>"
                        "</InitiateMultipartUploadResult>");
    });
    ExpectRefusedInParts("cannot store 'file'");
}

// The server returns the checksum that was stored with the file.
TEST_P(HostileSuccess, OfADownloadOfOtherBytes) {
    Serve([](HttpExchange& exchange) {
        exchange.Answer(200, "changed",
                        {"ETag: \"e\"", "x-amz-meta-quarn2-sha256: " + std::string(64, '0')});
    });
    const auto storage = Open();
    EXPECT_THAT(ErrorOf([&] { storage->Download("file", target_); }),
                HasSubstr("the checksum of the downloaded data differs"));
}

TEST_P(HostileSuccess, OfARangeThatWasNotAskedFor) {
    Serve([](HttpExchange& exchange) {
        exchange.Body();
        exchange.Write(
            "HTTP/1.1 206 Partial\r\nContent-Range: bytes 5-11/12\r\nContent-Length: 7\r\n\r\n"
            "changed");
    });
    const auto storage = Open();
    EXPECT_NE(ErrorOf([&] { storage->Download("file", target_); }), "(no error)");
}

INSTANTIATE_TEST_SUITE_P(S3, HostileSuccess, testing::Values(kS3));

}  // namespace
