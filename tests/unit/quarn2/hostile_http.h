// The fixture of storages behind hostile HTTP servers.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bounds.h"
#include "kro/kro_err.h"
#include "local_files.h"
#include "quarn2/storage.h"
#include "quarn2/token.h"
#include "scripted_http_server.h"
#include "temp_dir.h"

struct HttpKind {
    const char* scheme;  // the token's scheme for connections with TLS
    const char* path;
    const char* parameters;
    const char* list_head;  // the beginning of a listing
    int list_status;

    friend std::ostream& operator<<(std::ostream& out, const HttpKind& kind) {
        return out << kind.scheme;
    }
};

inline const HttpKind kS3 = {"s3", "/bucket", "", "<?xml version='1.0'?><ListBucketResult>", 200};
inline const HttpKind kWebdav = {"webdav", "/dir", "", "<multistatus xmlns='DAV:'>", 207};

class HostileHttp : public testing::TestWithParam<HttpKind> {
  protected:
    HostileHttp() {
        for (const char* const name : {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy"}) {
            unsetenv(name);
        }
        std::signal(SIGPIPE, SIG_IGN);
        local_files::Save(source_, "content");
    }

    void Serve(ScriptedHttpServer::Script script) {
        server_ = std::make_unique<ScriptedHttpServer>(std::move(script));
    }
    // Answers every request with a listing that contains `head` and repeats `piece` without end.
    void ListWithoutEnd(const std::string& head, const std::string& piece) {
        Serve([head, piece](HttpExchange& exchange) {
            exchange.Body();
            const std::string status = std::to_string(GetParam().list_status);
            exchange.WriteWithoutEnd(
                "HTTP/1.1 " + status + " OK\r\n\r\n" + GetParam().list_head + head, piece);
        });
    }
    // The client's timeout in seconds: short for servers that fall silent, long for others, because
    // a busy machine can be slow.
    enum Timeout { kShort = 4, kLong = 20 };

    std::string Token(const std::string& more = "", bool tls = false,
                      Timeout timeout = kShort) const {
        return std::string(GetParam().scheme) + (tls ? "" : "+http") +
               "://user:hidden@127.0.0.1:" + std::to_string(server_->port()) + GetParam().path +
               "?timeout=" + std::to_string(timeout) + more;
    }
    // Opens a storage with its own connections.
    std::shared_ptr<quarn2::Storage> Open(const std::string& more = "", bool tls = false,
                                          Timeout timeout = kShort) const {
        return quarn2::GetStorage(quarn2::BackupToken(Token(more, tls, timeout)));
    }

    // All operations that receive a response from the server.
    struct Operation {
        const char* name;
        std::function<void(quarn2::Storage&)> run;
    };
    std::vector<Operation> Operations() {
        return {{"list", [this](auto& storage) { storage.List(names_, ""); }},
                {"download", [this](auto& storage) { storage.Download("file", target_); }},
                {"upload", [this](auto& storage) { storage.Upload("file", source_); }},
                {"remove", [](auto& storage) { storage.RemoveFile("file"); }},
                {"remove directory", [](auto& storage) { storage.RemoveDir("dir"); }},
                {"make directory", [](auto& storage) { storage.MkDir("dir"); }},
                {"clear", [](auto& storage) { storage.Clear(); }}};
    }

    std::string ListError(const std::string& more = "") {
        const Bounds bounds;
        const auto storage = Open(more);
        return ErrorOf([&] { storage->List(names_, ""); });
    }

    // A hostile server must not make the client damage the source or leave a partial target.
    void TearDown() override {
        EXPECT_EQ(local_files::Load(source_), "content");
        EXPECT_FALSE(local_files::Has(target_));
        EXPECT_FALSE(local_files::Has(folder_ / ".target.part~"));
    }

    TempDir folder_;
    std::string source_ = folder_ / "source";
    std::string target_ = folder_ / "target";
    std::vector<std::string> names_;
    std::unique_ptr<ScriptedHttpServer> server_;
};
