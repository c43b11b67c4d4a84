// HTTP servers and connections that fail.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <unistd.h>

#include <chrono>

#include "gate.h"
#include "http_client_fixture.h"
#include "kro/kro_proc.h"
#include "local_files.h"
#include "scripted_tls.h"
#include "temp_dir.h"

namespace {

using scripted_tls::Certificate;
using testing::AllOf;
using testing::HasSubstr;
using testing::SizeIs;
using Clock = std::chrono::steady_clock;

constexpr const char* kSilentHost = "silent.invalid";

// True for the host whose name server does not answer.
bool IsSilent(const char* host) { return host != nullptr && std::string(host) == kSilentHost; }

}  // namespace

// Replaces the function of the C library, for the shared library libcurl too.
extern "C" int getaddrinfo(const char* host, const char* service, const addrinfo* hints,
                           addrinfo** result) {
    if (IsSilent(host)) {
        sleep(15);
        return EAI_AGAIN;
    }
    using Function = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
    static const auto next = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "getaddrinfo"));
    return next(host, service, hints, result);
}

namespace {

class HttpTroubleTest : public HttpClientTest {
  protected:
    void UseTimeout(int seconds) {
        ServerSettings settings = Settings();
        settings.timeout = seconds;
        client_ = std::make_unique<HttpClient>(settings);
    }

    void ServeTls(const Certificate& certificate, const std::string& ca) {
        ServerSettings settings = Settings();
        settings.ca = ca;
        client_ = std::make_unique<HttpClient>(settings);
        server_ = std::make_unique<ScriptedHttpServer>(
            [](HttpExchange& exchange) { exchange.Answer(200, "fine"); }, certificate.Streams());
    }
    HttpRequest TlsRequest() const {
        HttpRequest request;
        request.url = server_->Url("/", "https");
        return request;
    }

    // Runs the action and returns its duration in seconds.
    template <class Action>
    static double Seconds(const Action& action) {
        const Clock::time_point begin = Clock::now();
        action();
        return std::chrono::duration<double>(Clock::now() - begin).count();
    }

    TempDir temp_;
};

// --- Truncated responses ---

TEST_F(HttpTroubleTest, AnswerCutOffIsUnavailable) {
    Serve([](HttpExchange& exchange) {
        if (exchange.target == "/length") {
            exchange.Write("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nonly this");
        } else if (exchange.target == "/chunk") {
            exchange.Write("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nff\r\nonly this");
        } else if (exchange.target == "/head") {
            exchange.Write("HTTP/1.1 200 OK\r\nContent-Le");
        }
        exchange.Close();
    });
    for (const char* const path : {"/length", "/chunk", "/nothing"}) {
        ExpectError(Kind::kUnavailable,
                    "test server: ", [&] { client_->Do(Request("GET", path)); });
    }
}

TEST_F(HttpTroubleTest, ResetIsUnavailable) {
    Serve([](HttpExchange& exchange) {
        exchange.Write("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nonly this");
        exchange.Reset();
    });
    ExpectError(Kind::kUnavailable, "test server: ", [&] { client_->Do(Request("GET", "/")); });
}

TEST_F(HttpTroubleTest, ConnectionLostWhileTheBodyFlowsIsUnavailable) {
    Serve([](HttpExchange& exchange) {
        exchange.Write("HTTP/1.1 100 Continue\r\n\r\n");
        exchange.Reset();
    });
    ExpectError(Kind::kUnavailable, "test server: ", [&] {
        client_->Do(Request("PUT", "/", std::string(50'000'000, 'x')));
    });
}

TEST_F(HttpTroubleTest, WhatIsNoHttpIsUnavailable) {
    Serve([](HttpExchange& exchange) {
        exchange.Write("220 Welcome to something else\r\n");
        exchange.Close();
    });
    ExpectError(Kind::kUnavailable, "test server: ", [&] { client_->Do(Request("GET", "/")); });
}

TEST_F(HttpTroubleTest, NobodyThereIsUnavailable) {
    Serve([](HttpExchange& exchange) { exchange.Answer(200); });
    const HttpRequest request = Request("GET", "/");
    server_.reset();
    HttpRequest again;
    again.url = request.url;
    ExpectError(Kind::kUnavailable, "test server: ", [&] { client_->Do(std::move(again)); });
}

// --- Stalls ---

// In seconds. The default timeout is 60, and a busy machine needs some extra seconds.
constexpr double kWellBelowTheDefault = 30;

TEST_F(HttpTroubleTest, SilentServerIsGivenUpAfterTheTimeout) {
    Serve([](HttpExchange& exchange) { exchange.Stall(); });
    UseTimeout(1);
    const double seconds = Seconds([&] {
        ExpectError(Kind::kUnavailable, "test server: ", [&] { client_->Do(Request("GET", "/")); });
    });
    EXPECT_GE(seconds, 0.9);
    EXPECT_LT(seconds, kWellBelowTheDefault);
}

TEST_F(HttpTroubleTest, StallInTheMiddleOfAnAnswerIsGivenUp) {
    Serve([](HttpExchange& exchange) {
        exchange.Write("HTTP/1.1 200 OK\r\nContent-Length: 9000000\r\n\r\n");
        exchange.Write(std::string(5'000'000, 'x'));
        exchange.Stall();
    });
    UseTimeout(1);
    RecordingSink sink;
    const double seconds = Seconds([&] {
        ExpectError(Kind::kUnavailable,
                    "test server: ", [&] { client_->Do(Request("GET", "/", sink)); });
    });
    EXPECT_LT(seconds, kWellBelowTheDefault);
    EXPECT_EQ(sink.text.size(), 5'000'000U);
}

TEST_F(HttpTroubleTest, StallInTheMiddleOfABodyIsGivenUp) {
    Gate end;
    Serve([&](HttpExchange& exchange) {
        exchange.Write("HTTP/1.1 100 Continue\r\n\r\n");
        end.Pass();
        exchange.Close();
    });
    UseTimeout(1);
    const double seconds = Seconds([&] {
        ExpectError(Kind::kUnavailable, "test server: ", [&] {
            client_->Do(Request("PUT", "/", std::string(50'000'000, 'x')));
        });
    });
    end.Open();
    // Ends the server's thread before `end` is destroyed, because the thread may still use it.
    server_.reset();
    EXPECT_LT(seconds, kWellBelowTheDefault);
}

// A slow response is not a stalled response.
TEST_F(HttpTroubleTest, SlowAnswerMayTakeLongerThanTheTimeout) {
    Serve([](HttpExchange& exchange) {
        exchange.Write("HTTP/1.1 200 OK\r\nContent-Length: 16\r\n\r\n");
        for (int i = 0; i < 16; ++i) {
            exchange.Write("x");
            kro_proc::Sleep(250);
        }
    });
    UseTimeout(3);
    EXPECT_EQ(client_->Do(Request("GET", "/")).body, std::string(16, 'x'));
}

TEST_F(HttpTroubleTest, SilentNameServerIsGivenUpAfterTheTimeout) {
    UseTimeout(1);
    HttpRequest request;
    request.url = std::string("http://") + kSilentHost + "/";
    const double seconds = Seconds([&] {
        ExpectError(Kind::kUnavailable, "", [&] { client_->Do(std::move(request)); });
        client_.reset();
    });
    EXPECT_LT(seconds, kWellBelowTheDefault);
}

// --- Connections ---

TEST_F(HttpTroubleTest, StaleConnectionIsReplacedAndTheBodySentAgainWhole) {
    Serve([](HttpExchange& exchange) {
        // Each connection serves one request and fails the next one, as after an idle time.
        if (exchange.connection % 2 == 0 && exchange.number % 3 == 1) return exchange.Close();
        exchange.Answer(201, exchange.Body());
    });
    EXPECT_EQ(client_->Do(Request("PUT", "/1", "one")).body, "one");
    EXPECT_EQ(client_->Do(Request("PUT", "/2", "two")).body, "two");
    EXPECT_THAT(server_->SeenLines(), testing::ElementsAre("PUT /1", "PUT /2", "PUT /2"));
    EXPECT_EQ(server_->connections(), 2);
}

TEST_F(HttpTroubleTest, ConnectionThatTheServerClosedMeanwhileIsReplaced) {
    Serve([](HttpExchange& exchange) {
        exchange.Answer(200, "fine");
        exchange.Close();
    });
    for (int i = 0; i < 5; ++i) EXPECT_EQ(client_->Do(Request("PUT", "/", "x")).body, "fine");
    EXPECT_EQ(server_->connections(), 5);
}

// The server reads the body and then closes the connection. The client must send everything again.
TEST_F(HttpTroubleTest, StaleConnectionThatTookTheBodyIsReplaced) {
    const std::string content = local_files::Noise(900'000);
    for (const bool reset : {false, true}) {
        Serve([&](HttpExchange& exchange) {
            if (exchange.number != 1) return exchange.Answer(201);
            exchange.Body();
            reset ? exchange.Reset() : exchange.Close();
        });
        client_->Do(Request("GET", "/"));
        EXPECT_EQ(client_->Do(Request("PUT", "/", content)).status, 201);
        ASSERT_THAT(server_->Seen(), SizeIs(3));
        EXPECT_TRUE(server_->Seen().at(2).body == content);
    }
}

// Waits in its first Read, which libcurl calls between the headers and the body.
class WaitingBody final : public quarn2::net::HttpBody {
  public:
    WaitingBody(Gate& gate, std::string text) : gate_(gate), body_(std::move(text)) {}
    std::int64_t size() const override { return body_.size(); }
    std::size_t Read(std::span<std::byte> buffer) override {
        gate_.Pass();
        return body_.Read(buffer);
    }
    void Rewind() override { body_.Rewind(); }

  private:
    Gate& gate_;
    quarn2::net::TextBody body_;
};

TEST_F(HttpTroubleTest, ConnectionThatTheServerClosesBetweenHeadersAndBodyIsReplacedOnce) {
    for (const int closed : {1, 2}) {
        Gate gate;
        // The server closes this number of connections after the headers of the PUT.
        Serve([&](HttpExchange& exchange) {
            if (exchange.method == "GET") return exchange.Answer(200);
            if (static_cast<int>(exchange.connection) >= closed)
                return exchange.Answer(201, exchange.Body());
            exchange.Reset();
            gate.Open();
        });
        client_->Do(Request("GET", "/"));
        HttpRequest request = Request("PUT", "/");
        request.body = std::make_unique<WaitingBody>(gate, "text");
        if (closed == 1) {
            EXPECT_EQ(client_->Do(std::move(request)).body, "text");
        } else {
            ExpectError(Kind::kUnavailable, "", [&] { client_->Do(std::move(request)); });
        }
        EXPECT_EQ(server_->connections(), 2);
    }
}

// --- Certificates ---

TEST_F(HttpTroubleTest, TrustedCertificateIsTaken) {
    const Certificate certificate;
    certificate.Save(temp_ / "ca");
    ServeTls(certificate, temp_ / "ca");
    EXPECT_EQ(client_->Do(TlsRequest()).body, "fine");
    EXPECT_EQ(client_->Do(TlsRequest()).body, "fine");
    EXPECT_EQ(server_->connections(), 1);
}

TEST_F(HttpTroubleTest, UnknownCertificateIsUnauthorized) {
    const Certificate certificate;
    ServeTls(certificate, "");
    ExpectError(Kind::kUnauthorized, "test server: ", [&] { client_->Do(TlsRequest()); });
}

TEST_F(HttpTroubleTest, CertificateOfAnotherKeyIsUnauthorized) {
    const Certificate certificate;
    const Certificate other;
    other.Save(temp_ / "ca");
    ServeTls(certificate, temp_ / "ca");
    ExpectError(Kind::kUnauthorized, "test server: ", [&] { client_->Do(TlsRequest()); });
}

TEST_F(HttpTroubleTest, CertificateForAnotherHostIsUnauthorized) {
    const Certificate certificate("DNS:elsewhere.example");
    certificate.Save(temp_ / "ca");
    ServeTls(certificate, temp_ / "ca");
    ExpectError(Kind::kUnauthorized, "test server: ", [&] { client_->Do(TlsRequest()); });
}

TEST_F(HttpTroubleTest, ExpiredCertificateIsUnauthorized) {
    const Certificate certificate("IP:127.0.0.1", -3600);
    certificate.Save(temp_ / "ca");
    ServeTls(certificate, temp_ / "ca");
    ExpectError(Kind::kUnauthorized, "expired", [&] { client_->Do(TlsRequest()); });
}

TEST_F(HttpTroubleTest, MissingCertificateFileIsNamed) {
    const Certificate certificate;
    ServeTls(certificate, temp_ / "missing");
    ExpectError(Kind::kFailed, temp_ / "missing", [&] { client_->Do(TlsRequest()); });
}

// --- Texts ---

// The error text quotes the name in the certificate.
TEST_F(HttpTroubleTest, TextsOfAServerCannotSpoilALog) {
    const Certificate certificate("", 3600, "line\nfeed \x1b[31m");
    certificate.Save(temp_ / "ca");
    ServeTls(certificate, temp_ / "ca");
    ExpectError(Kind::kUnauthorized, "line feed  [31m", [&] { client_->Do(TlsRequest()); });
}

TEST(OneLine, ControlCharactersBecomeBlanksAndTheEndlessIsCut) {
    using quarn2::net::OneLine;
    EXPECT_EQ(OneLine("a\r\nb\x1b[1mc\x7f"), "a  b [1mc");
    EXPECT_EQ(OneLine(std::string("a\0b", 3)), "a b");
    EXPECT_EQ(OneLine("k\xc3\xa4se\n"), "k\xc3\xa4se");
    EXPECT_EQ(OneLine(std::string(5000, 'x')), std::string(300, 'x'));
    EXPECT_EQ(OneLine(""), "");
}

}  // namespace
