// The fixture with an HTTP client and its scripted server.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <map>
#include <memory>
#include <span>
#include <string>

#include "kro/kro_err.h"
#include "net/http_client.h"
#include "scripted_http_server.h"

using kro_err::Error;
using kro_err::Kind;
using quarn2::net::HttpClient;
using quarn2::net::HttpReply;
using quarn2::net::HttpRequest;
using quarn2::net::ServerSettings;
using quarn2::net::TextBody;
using Auth = quarn2::net::ServerSettings::Auth;

// Records a reply.
struct RecordingSink final : quarn2::net::ReplySink {
    void Begin(const HttpReply& reply) override {
        ++begun;
        headers = reply.headers;
        if (fail_in == "begin") throw Error(Kind::kNotFound, fail_in);
    }
    void Write(std::span<const std::byte> bytes) override {
        EXPECT_EQ(begun, 1) << "bytes before the beginning";
        if (fail_in == "write") throw Error(Kind::kNotFound, fail_in);
        text.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    }

    std::string fail_in;
    int begun = 0;
    std::map<std::string, std::string> headers;
    std::string text;
};

// A body that counts its reads and rewinds.
struct CountingBody final : quarn2::net::HttpBody {
    explicit CountingBody(std::string content) : text(std::move(content)) {}
    std::int64_t size() const override { return text.size(); }
    std::size_t Read(std::span<std::byte> buffer) override {
        ++*reads;
        return text.Read(buffer);
    }
    void Rewind() override {
        ++*rewinds;
        text.Rewind();
    }

    TextBody text;
    std::shared_ptr<int> reads = std::make_shared<int>(0);
    std::shared_ptr<int> rewinds = std::make_shared<int>(0);
};

struct BrokenBody final : quarn2::net::HttpBody {
    std::int64_t size() const override { return 100; }
    std::size_t Read(std::span<std::byte> /*buffer*/) override {
        throw Error(Kind::kNotFound, "the source broke");
    }
    void Rewind() override {}
};

class HttpClientTest : public testing::Test {
  protected:
    HttpClientTest() {
        for (const char* const name : {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy"}) {
            unsetenv(name);
        }
        // Ignores SIGPIPE as the program does: the TLS side of a scripted server writes to closed
        // connections.
        std::signal(SIGPIPE, SIG_IGN);
    }

    static ServerSettings Settings(Auth auth = Auth::kNone) {
        ServerSettings settings;
        settings.what = "test server";
        settings.timeout = 20;
        settings.auth = auth;
        settings.user = "me";
        settings.password = "secret";
        return settings;
    }

    void Serve(ScriptedHttpServer::Script script, Auth auth = Auth::kNone) {
        client_ = std::make_unique<HttpClient>(Settings(auth));
        server_ = std::make_unique<ScriptedHttpServer>(std::move(script));
    }

    HttpRequest Request(const std::string& method, const std::string& path) const {
        HttpRequest request;
        request.method = method;
        request.url = server_->Url(path);
        return request;
    }
    HttpRequest Request(const std::string& method, const std::string& path,
                        const std::string& body) const {
        HttpRequest request = Request(method, path);
        request.body = std::make_unique<TextBody>(body);
        return request;
    }
    HttpRequest Request(const std::string& method, const std::string& path,
                        quarn2::net::ReplySink& sink) const {
        HttpRequest request = Request(method, path);
        request.sink = &sink;
        return request;
    }

    template <class Action>
    static void ExpectError(Kind kind, const std::string& part, const Action& action) {
        try {
            action();
            ADD_FAILURE() << "no error";
        } catch (const Error& error) {
            EXPECT_EQ(error.kind(), kind) << error.what();
            EXPECT_THAT(error.what(), testing::HasSubstr(part));
        }
    }

    std::unique_ptr<ScriptedHttpServer> server_;
    std::unique_ptr<HttpClient> client_;
};
