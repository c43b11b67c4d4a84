// Requests of the HTTP client to a scripted server.
#include "net/http_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "http_client_fixture.h"
#include "local_files.h"
#include "net/parallel_requests.h"

namespace {

using quarn2::net::HttpResult;
using quarn2::net::MemoryBody;
using quarn2::net::ParallelRequests;
using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::SizeIs;

// --- Answers ---

TEST_F(HttpClientTest, GivesStatusHeadersAndBody) {
    Serve([](HttpExchange& exchange) {
        exchange.Answer(203, "some body", {"X-One:  padded \t", "x-TWO: 2"});
    });
    const HttpReply reply = client_->Do(Request("GET", "/a%20b?c"));
    EXPECT_EQ(reply.status, 203);
    EXPECT_TRUE(reply.IsSuccess());
    EXPECT_EQ(reply.body, "some body");
    EXPECT_EQ(reply.Header("x-one"), "padded");
    EXPECT_EQ(reply.Header("x-two"), "2");
    EXPECT_EQ(reply.Header("x-three"), "");
    EXPECT_THAT(server_->SeenLines(), ElementsAre("GET /a%20b?c"));
}

TEST_F(HttpClientTest, EveryStatusIsAnAnswer) {
    Serve([](HttpExchange& exchange) {
        exchange.Answer(std::stoi(exchange.target.substr(1)), "why");
    });
    for (const int status : {200, 207, 301, 400, 401, 403, 404, 409, 412, 500, 503, 507}) {
        const HttpReply reply = client_->Do(Request("GET", "/" + std::to_string(status)));
        EXPECT_EQ(reply.status, status);
        EXPECT_EQ(reply.IsSuccess(), status < 300);
        EXPECT_EQ(reply.body, "why");
    }
    EXPECT_EQ(server_->connections(), 1);
}

TEST_F(HttpClientTest, RedirectIsNotFollowed) {
    Serve([](HttpExchange& exchange) {
        exchange.Answer(302, "", {"Location: http://127.0.0.1:1/elsewhere"});
    });
    const HttpReply reply = client_->Do(Request("GET", "/"));
    EXPECT_EQ(reply.status, 302);
    EXPECT_EQ(reply.Header("location"), "http://127.0.0.1:1/elsewhere");
    EXPECT_THAT(server_->Seen(), SizeIs(1));
}

TEST_F(HttpClientTest, HeadersOfAnInformationAreNotTheAnswers) {
    Serve([](HttpExchange& exchange) {
        exchange.Write("HTTP/1.1 102 Processing\r\nX-Early: 1\r\n\r\n");
        exchange.Answer(204);
    });
    const HttpReply reply = client_->Do(Request("DELETE", "/"));
    EXPECT_EQ(reply.status, 204);
    EXPECT_EQ(reply.Header("x-early"), "");
}

TEST_F(HttpClientTest, ChunkedAnswerIsPutTogether) {
    Serve([](HttpExchange& exchange) {
        exchange.Write(
            "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
            "4\r\nsome\r\n5\r\n body\r\n0\r\n\r\n");
    });
    EXPECT_EQ(client_->Do(Request("GET", "/")).body, "some body");
    EXPECT_EQ(client_->Do(Request("GET", "/")).body, "some body");
    EXPECT_EQ(server_->connections(), 1);
}

TEST_F(HttpClientTest, SinkTakesTheBodyAfterStatusAndHeaders) {
    const std::string content = local_files::Noise(3'000'001);
    Serve([&](HttpExchange& exchange) { exchange.Answer(200, content, {"X-A: b"}); });
    RecordingSink sink;
    const HttpReply reply = client_->Do(Request("GET", "/", sink));
    EXPECT_TRUE(sink.text == content);
    EXPECT_EQ(sink.begun, 1);
    EXPECT_EQ(sink.headers.at("content-length"), "3000001");
    EXPECT_EQ(sink.headers.at("x-a"), "b");
    EXPECT_EQ(reply.body, "");
}

TEST_F(HttpClientTest, SinkIsToldOfAnEmptyBody) {
    Serve([](HttpExchange& exchange) { exchange.Answer(200); });
    RecordingSink sink;
    client_->Do(Request("GET", "/", sink));
    EXPECT_EQ(sink.begun, 1);
    EXPECT_EQ(sink.text, "");
}

TEST_F(HttpClientTest, SinkSeesNothingOfARefusalWhichIsKeptAsFarAsItIsOfUse) {
    Serve(
        [](HttpExchange& exchange) { exchange.Answer(404, std::string(5UL * 1024 * 1024, 'x')); });
    RecordingSink sink;
    const HttpReply reply = client_->Do(Request("GET", "/", sink));
    EXPECT_EQ(reply.body, std::string(64UL * 1024, 'x'));
    EXPECT_EQ(sink.begun, 0);
    EXPECT_EQ(sink.text, "");
}

TEST_F(HttpClientTest, AnswerWithoutEndIsNotKept) {
    Serve([](HttpExchange& exchange) {
        exchange.Write("HTTP/1.1 200 OK\r\nContent-Length: 20000000\r\n\r\n");
        exchange.Write(std::string(20'000'000, 'x'));
        exchange.Close();
    });
    ExpectError(Kind::kUnavailable, "the response is too long",
                [&] { client_->Do(Request("GET", "/")); });
}

TEST_F(HttpClientTest, HeadersWithoutEndAreRefused) {
    Serve([](HttpExchange& exchange) {
        exchange.Write("HTTP/1.1 200 OK\r\n");
        for (int i = 0; i < 1000; ++i) exchange.Write("X-A: " + std::string(1000, 'x') + "\r\n");
        exchange.Stall();
    });
    ExpectError(Kind::kUnavailable, "", [&] { client_->Do(Request("GET", "/")); });
}

TEST_F(HttpClientTest, HeadHasNoBody) {
    Serve([](HttpExchange& exchange) { exchange.Answer(200, "12345"); });
    for (int i = 0; i < 2; ++i) {
        const HttpReply reply = client_->Do(Request("HEAD", "/file"));
        EXPECT_EQ(reply.Header("content-length"), "5");
        EXPECT_EQ(reply.body, "");
        EXPECT_EQ(client_->Do(Request("GET", "/file")).body, "12345");
    }
    EXPECT_EQ(server_->connections(), 1);
    EXPECT_THAT(server_->SeenLines(),
                ElementsAre("HEAD /file", "GET /file", "HEAD /file", "GET /file"));
}

// --- Requests ---

TEST_F(HttpClientTest, SendsMethodHeadersAndBodyAsTheyAre) {
    Serve([](HttpExchange& exchange) { exchange.Answer(200); });
    HttpRequest request = Request("PROPFIND", "/dir/", "<a/>");
    request.headers = {"Depth: 1", "Content-Type: application/xml"};
    client_->Do(std::move(request));
    const SeenRequest seen = server_->Seen().at(0);
    EXPECT_EQ(seen.method, "PROPFIND");
    EXPECT_EQ(seen.Header("depth"), "1");
    EXPECT_EQ(seen.Header("content-type"), "application/xml");
    EXPECT_EQ(seen.Header("content-length"), "4");
    EXPECT_EQ(seen.Header("authorization"), "");
    EXPECT_EQ(seen.body, "<a/>");
}

// A reused handle must not repeat the body of the previous request, and must send a body after a
// request without one.
TEST_F(HttpClientTest, MethodsTakeTurnsOnOneConnection) {
    Serve([](HttpExchange& exchange) { exchange.Answer(200, "answer"); });
    for (const char* const method : {"PUT", "GET", "POST", "MKCOL", "HEAD", "PUT", "DELETE"}) {
        const bool has_body = method[0] == 'P';
        client_->Do(has_body ? Request(method, "/", method) : Request(method, "/"));
        const SeenRequest seen = server_->Seen().back();
        EXPECT_EQ(seen.method, method);
        EXPECT_EQ(seen.body, has_body ? method : "");
        EXPECT_EQ(seen.Header("content-length").empty(), !has_body);
    }
    EXPECT_EQ(server_->connections(), 1);
}

TEST_F(HttpClientTest, EmptyBodiesAreSentWithTheirLength) {
    Serve([](HttpExchange& exchange) { exchange.Answer(201); });
    for (const char* const method : {"PUT", "POST"}) {
        EXPECT_EQ(client_->Do(Request(method, "/", "")).status, 201);
        EXPECT_EQ(server_->Seen().back().Header("content-length"), "0");
    }
}

TEST_F(HttpClientTest, LargeBodyIsSentWhole) {
    const std::string content = local_files::Noise(9'000'001);
    Serve([](HttpExchange& exchange) { exchange.Answer(201); });
    HttpRequest request = Request("PUT", "/");
    request.body = std::make_unique<MemoryBody>(std::as_bytes(std::span(content)));
    EXPECT_EQ(client_->Do(std::move(request)).status, 201);
    EXPECT_TRUE(server_->Seen().at(0).body == content);
}

// The wait for "100 Continue" costs a round trip.
TEST_F(HttpClientTest, OnlyALargeBodyWaitsForAnInvitation) {
    Serve([](HttpExchange& exchange) { exchange.Answer(201); });
    for (const std::size_t size : {0UL, 5UL, 1024UL * 1024 - 1, 1024UL * 1024}) {
        client_->Do(Request("PUT", "/", std::string(size, 'x')));
        const SeenRequest seen = server_->Seen().back();
        EXPECT_EQ(seen.body.size(), size);
        EXPECT_EQ(seen.Header("expect"), size < 1024 * 1024 ? "" : "100-continue");
    }
}

TEST_F(HttpClientTest, RefusalComesBeforeALargeBody) {
    Serve([](HttpExchange& exchange) { exchange.AnswerNow(403, "no", {"Connection: close"}); });
    HttpRequest request = Request("PUT", "/");
    auto body = std::make_unique<CountingBody>(std::string(5'000'000, 'x'));
    const std::shared_ptr<int> reads = body->reads;
    request.body = std::move(body);
    const HttpReply reply = client_->Do(std::move(request));
    EXPECT_EQ(reply.status, 403);
    EXPECT_EQ(reply.body, "no");
    EXPECT_EQ(*reads, 0);
}

TEST_F(HttpClientTest, ServerThatInvitesNobodyGetsTheBodyAllTheSame) {
    Serve([](HttpExchange& exchange) {
        exchange.headers.erase("expect");
        exchange.Answer(201);
    });
    EXPECT_EQ(client_->Do(Request("PUT", "/", std::string(2'000'000, 'x'))).status, 201);
    EXPECT_EQ(server_->Seen().at(0).body.size(), 2'000'000U);
}

// The server refuses the request in the middle of the body and then reads nothing more.
TEST_F(HttpClientTest, RefusalInTheMiddleOfABodyIsHeard) {
    Serve([](HttpExchange& exchange) {
        exchange.Write("HTTP/1.1 100 Continue\r\n\r\n");
        exchange.AnswerNow(507, "full", {"Connection: close"});
        exchange.Stall();
    });
    const HttpReply reply = client_->Do(Request("PUT", "/", std::string(50'000'000, 'x')));
    EXPECT_EQ(reply.status, 507);
    EXPECT_EQ(reply.body, "full");
}

// --- Exceptions ---

TEST_F(HttpClientTest, ExceptionOfTheBodyIsThrownOn) {
    Serve([](HttpExchange& exchange) { exchange.Answer(200, "fine"); });
    HttpRequest request = Request("PUT", "/");
    request.body = std::make_unique<BrokenBody>();
    ExpectError(Kind::kNotFound, "the source broke", [&] { client_->Do(std::move(request)); });
    EXPECT_EQ(client_->Do(Request("GET", "/")).body, "fine");
}

TEST_F(HttpClientTest, ExceptionsOfTheSinkAreThrownOn) {
    Serve([](HttpExchange& exchange) { exchange.Answer(200, std::string(1'000'000, 'x')); });
    for (const char* const where : {"begin", "write"}) {
        RecordingSink sink;
        sink.fail_in = where;
        ExpectError(Kind::kNotFound, where, [&] { client_->Do(Request("GET", "/", sink)); });
    }
    EXPECT_EQ(client_->Do(Request("GET", "/")).body.size(), 1'000'000U);
}

TEST_F(HttpClientTest, ExceptionAtTheBeginningOfAnEmptyBodyIsThrownOn) {
    Serve([](HttpExchange& exchange) { exchange.Answer(200); });
    RecordingSink sink;
    sink.fail_in = "begin";
    ExpectError(Kind::kNotFound, "begin", [&] { client_->Do(Request("GET", "/", sink)); });
}

// --- Several at once ---

TEST_F(HttpClientTest, SeveralRequestsRunAtOnce) {
    std::atomic<int> present = 0;
    Serve([&](HttpExchange& exchange) {
        ++present;
        // Answers no request before all have arrived.
        while (present < 8) std::this_thread::yield();
        exchange.Answer(200, exchange.target);
    });
    std::vector<std::string> bodies;
    for (int i = 0; i < 8; ++i) {
        client_->Start(Request("GET", "/" + std::to_string(i)),
                       [&](HttpResult result) { bodies.push_back(result.reply.body); });
    }
    EXPECT_EQ(client_->running(), 8U);
    while (client_->running() > 0) client_->Wait();
    EXPECT_THAT(bodies,
                testing::UnorderedElementsAre("/0", "/1", "/2", "/3", "/4", "/5", "/6", "/7"));
    client_->Wait();
}

TEST_F(HttpClientTest, WhoeverIsCalledMayStartMore) {
    Serve([](HttpExchange& exchange) { exchange.Answer(200, exchange.target); });
    int left = 20;
    std::vector<std::string> bodies;
    HttpClient::Done done = [&](HttpResult result) {
        bodies.push_back(result.reply.body);
        if (left-- > 0) client_->Start(Request("GET", "/" + std::to_string(left)), done);
    };
    for (int i = 0; i < 3; ++i) client_->Start(Request("GET", "/first"), done);
    while (client_->running() > 0) client_->Wait();
    EXPECT_THAT(bodies, SizeIs(23));
    EXPECT_LE(server_->connections(), 3);
}

TEST_F(HttpClientTest, FailureOfOneLeavesTheOthers) {
    Serve([](HttpExchange& exchange) {
        if (exchange.target == "/bad") return exchange.Close();
        exchange.Answer(200, "good");
    });
    int good = 0;
    int bad = 0;
    for (const char* const path : {"/a", "/bad", "/b"}) {
        client_->Start(Request("GET", path),
                       [&](HttpResult result) { ++(result.error ? bad : good); });
    }
    while (client_->running() > 0) client_->Wait();
    EXPECT_EQ(good, 2);
    EXPECT_EQ(bad, 1);
}

TEST_F(HttpClientTest, CancelBreaksOffAllAndCallsNobody) {
    Serve([](HttpExchange& exchange) {
        if (exchange.target == "/silent") return exchange.Stall();
        exchange.Answer(200, "fine");
    });
    for (int i = 0; i < 3; ++i) {
        client_->Start(Request("GET", "/silent"), [](HttpResult) { ADD_FAILURE() << "called"; });
    }
    while (server_->Seen().size() < 3) {
        client_->Start(Request("GET", "/"), [](HttpResult) {});
        client_->Wait();
    }
    client_->Cancel();
    EXPECT_EQ(client_->running(), 0U);
    EXPECT_EQ(client_->Do(Request("GET", "/")).body, "fine");
}

TEST_F(HttpClientTest, CancelInsideACallIsSafe) {
    Serve([](HttpExchange& exchange) { exchange.Answer(200); });
    int called = 0;
    for (int i = 0; i < 4; ++i) {
        client_->Start(Request("GET", "/"), [&](HttpResult) {
            ++called;
            client_->Cancel();
        });
    }
    while (client_->running() > 0) client_->Wait();
    EXPECT_EQ(called, 1);
}

TEST_F(HttpClientTest, ParallelRequestsKeepTheirLimit) {
    std::atomic<int> present = 0;
    std::atomic<int> most = 0;
    Serve([&](HttpExchange& exchange) {
        most = std::max<int>(most, ++present);
        // Answers no request before three have arrived.
        while (most < 3) std::this_thread::yield();
        --present;
        exchange.Answer(200, exchange.target);
    });
    ParallelRequests requests(*client_, 3);
    std::vector<std::string> bodies;
    for (int i = 0; i < 9; ++i) {
        requests.Start(Request("GET", "/" + std::to_string(i)),
                       [&](const HttpResult& result) { bodies.push_back(result.reply.body); });
        EXPECT_LE(client_->running(), 3U);
    }
    requests.Finish();
    EXPECT_THAT(bodies, SizeIs(9));
    EXPECT_EQ(most, 3);
}

TEST_F(HttpClientTest, ParallelRequestsStopAtTheFirstFailureButWaitForTheRunningOnes) {
    Serve([](HttpExchange& exchange) { exchange.Answer(200, exchange.target); });
    ParallelRequests requests(*client_, 2);
    std::vector<std::string> bodies;
    const auto start = [&](const std::string& path) {
        requests.Start(Request("GET", path), [&](const HttpResult& result) {
            bodies.push_back(result.reply.body);
            if (result.reply.body != "/good") throw Error(Kind::kFailed, result.reply.body);
        });
    };
    start("/first");
    start("/good");
    ExpectError(Kind::kFailed, "/first", [&] {
        for (int i = 0; i < 100; ++i) start("/good");
    });
    EXPECT_EQ(client_->running(), 0U);
    const std::size_t ended = bodies.size();
    ExpectError(Kind::kFailed, "/first", [&] { start("/never"); });
    ExpectError(Kind::kFailed, "/first", [&] { requests.Finish(); });
    EXPECT_THAT(bodies, SizeIs(ended));
    EXPECT_THAT(server_->Seen(), SizeIs(ended));
}

TEST_F(HttpClientTest, ParallelRequestsCancelWhatStillRuns) {
    Serve([](HttpExchange& exchange) { exchange.Stall(); });
    {
        ParallelRequests requests(*client_, 2);
        requests.Start(Request("GET", "/"), [](const HttpResult&) { ADD_FAILURE() << "called"; });
        EXPECT_EQ(client_->running(), 1U);
    }
    EXPECT_EQ(client_->running(), 0U);
}

TEST_F(HttpClientTest, GoesWithRequestsOnTheirWay) {
    Serve([](HttpExchange& exchange) { exchange.Stall(); });
    client_->Start(Request("GET", "/"), [](HttpResult) { ADD_FAILURE() << "called"; });
    client_.reset();
}

// --- Authentication ---

TEST_F(HttpClientTest, BasicIsSentAtOnce) {
    Serve([](HttpExchange& exchange) { exchange.Answer(200); }, Auth::kBasic);
    client_->Do(Request("PUT", "/", "body"));
    const std::vector<SeenRequest> seen = server_->Seen();
    ASSERT_THAT(seen, SizeIs(1));
    EXPECT_EQ(seen.at(0).Header("authorization"), "Basic bWU6c2VjcmV0");  // me:secret
    EXPECT_EQ(seen.at(0).body, "body");
}

// The client requests the challenge without the body and then sends the body once. Later requests
// need no new challenge.
TEST_F(HttpClientTest, DigestSendsEachBodyOnce) {
    Serve(
        [](HttpExchange& exchange) {
            const std::string answer = exchange.Header("authorization");
            if (answer.empty()) {
                return exchange.Answer(
                    401, "", {"WWW-Authenticate: Digest realm=\"r\", nonce=\"n1\", qop=\"auth\""});
            }
            EXPECT_THAT(answer, HasSubstr("username=\"me\""));
            exchange.Answer(201);
        },
        Auth::kDigest);
    for (int i = 0; i < 3; ++i) {
        HttpRequest request = Request("PUT", "/" + std::to_string(i));
        auto body = std::make_unique<CountingBody>(std::string(100'000, 'x'));
        const std::shared_ptr<int> rewinds = body->rewinds;
        request.body = std::move(body);
        EXPECT_EQ(client_->Do(std::move(request)).status, 201);
        EXPECT_EQ(*rewinds, 0);
    }
    std::vector<std::size_t> sizes;
    for (const SeenRequest& seen : server_->Seen()) sizes.push_back(seen.body.size());
    EXPECT_THAT(sizes, ElementsAre(0U, 100'000U, 100'000U, 100'000U));
    EXPECT_EQ(server_->connections(), 1);
}

TEST_F(HttpClientTest, StaleDigestIsRenewedAndTheBodySentAgainWhole) {
    Serve(
        [](HttpExchange& exchange) {
            const std::string nonce = "n" + std::to_string(exchange.number / 3);
            if (exchange.Header("authorization").find(nonce) == std::string::npos) {
                return exchange.Answer(401, "",
                                       {"WWW-Authenticate: Digest realm=\"r\", nonce=\"" + nonce +
                                        "\", qop=\"auth\", stale=true"});
            }
            exchange.Answer(201);
        },
        Auth::kDigest);
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(client_->Do(Request("PUT", "/", "body")).status, 201);
    }
    for (const SeenRequest& seen : server_->Seen()) {
        EXPECT_THAT(seen.body, testing::AnyOf("", "body"));
    }
}

TEST_F(HttpClientTest, RefusedCredentialsAreAnAnswer) {
    for (const Auth auth : {Auth::kBasic, Auth::kDigest}) {
        Serve(
            [](HttpExchange& exchange) {
                exchange.Answer(401, "no",
                                {"WWW-Authenticate: Digest realm=\"r\", nonce=\"n\", qop=\"auth\"",
                                 "WWW-Authenticate: Basic realm=\"r\""});
            },
            auth);
        EXPECT_EQ(client_->Do(Request("PUT", "/", "body")).status, 401);
        EXPECT_LE(server_->Seen().size(), 2U);
    }
}

// With digest authentication, the client must never send the password in plain text.
TEST_F(HttpClientTest, DigestNeverFallsBackToBasic) {
    Serve(
        [](HttpExchange& exchange) {
            exchange.Answer(401, "", {"WWW-Authenticate: Basic realm=\"r\""});
        },
        Auth::kDigest);
    EXPECT_EQ(client_->Do(Request("GET", "/")).status, 401);
    for (const SeenRequest& seen : server_->Seen()) EXPECT_EQ(seen.Header("authorization"), "");
}

}  // namespace
