// Connections outlive the storage objects that used them.
#include "storage/idle_backends.h"

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "quarn2/storage.h"
#include "quarn2_backend/registry.h"
#include "storage_site.h"

namespace {

using kro_err::Error;
using kro_err::Kind;
using quarn2::BackupToken;
using quarn2::GetStorage;

// The numbers of opened and closed connections. Each operation of a connection calls `operation`.
std::atomic<int> opened = 0;
std::atomic<int> closed = 0;
std::function<void()> operation = [] {};

class ConnectedBackend final : public quarn2::StorageBackend {
  public:
    ConnectedBackend() { ++opened; }
    ~ConnectedBackend() override { ++closed; }

    bool Put(const std::string&, quarn2::ByteSource&) override {
        operation();
        return true;
    }
    void Get(const std::string&, quarn2::ByteSink&) override { operation(); }
    void Remove(const std::string&) override { operation(); }
    void RemoveDir(const std::string&) override { operation(); }
    void MakeDir(const std::string&) override { operation(); }
    std::vector<std::string> List(const std::string&) override {
        operation();
        return {};
    }
    void Clear() override { operation(); }
};

class IdleBackends : public testing::Test {
  protected:
    IdleBackends() {
        quarn2::BackendScheme scheme;
        scheme.scheme = "connected";
        scheme.secrets = {};
        scheme.fault = [](const BackupToken&) { return std::string(); };
        scheme.open = [](const BackupToken&) { return std::make_unique<ConnectedBackend>(); };
        scheme.keeps_connections = true;
        quarn2::RegisterScheme(scheme);
        scheme.scheme = "loose";
        scheme.keeps_connections = false;
        quarn2::RegisterScheme(scheme);
        operation = [] {};
    }

    // A token that no other test uses.
    static std::string Fresh(const std::string& scheme = "connected") {
        static int number = 0;
        return scheme + "://host/" + std::to_string(++number);
    }
    // Returns the number of connections that `action` opens.
    template <class Action>
    static int OpenedBy(const Action& action) {
        const int before = opened;
        action();
        return opened - before;
    }
    static void Use(const std::string& token) { GetStorage(BackupToken(token))->RemoveFile("x"); }
    static void UseAndFail(const std::string& token, Kind kind) {
        operation = [kind] { throw Error(kind, "trouble"); };
        EXPECT_THROW(Use(token), Error);
        operation = [] {};
    }
};

TEST_F(IdleBackends, ServeTheNextStorageOfTheSameToken) {
    const std::string token = Fresh();
    EXPECT_EQ(OpenedBy([&] {
                  for (int i = 0; i < 10; ++i) Use(token);
              }),
              1);
}

TEST_F(IdleBackends, ServeNoOtherToken) {
    const std::string token = Fresh();
    Use(token);
    for (const char* const change : {"/deeper", "?limit_rate=1000000", "?timeout=5"}) {
        EXPECT_EQ(OpenedBy([&] { Use(token + change); }), 1) << change;
    }
    EXPECT_EQ(OpenedBy([&] { Use("connected://u:secret@" + token.substr(12)); }), 1);
    EXPECT_EQ(OpenedBy([&] { Use("connected://u:other@" + token.substr(12)); }), 1);
}

TEST_F(IdleBackends, AreUsedByOneStorageAtATime) {
    const std::string token = Fresh();
    EXPECT_EQ(OpenedBy([&] {
                  const auto one = GetStorage(BackupToken(token));
                  const auto other = GetStorage(BackupToken(token));
                  one->RemoveFile("x");
                  other->RemoveFile("x");
              }),
              2);
    EXPECT_EQ(OpenedBy([&] {
                  const auto one = GetStorage(BackupToken(token));
                  const auto other = GetStorage(BackupToken(token));
              }),
              0);
}

TEST_F(IdleBackends, AreNotKeptAfterAFailure) {
    for (const Kind kind : {Kind::kUnavailable, Kind::kUnauthorized, Kind::kFailed}) {
        const std::string token = Fresh();
        Use(token);
        const int before = closed;
        UseAndFail(token, kind);
        EXPECT_EQ(closed - before, 1);
        EXPECT_EQ(OpenedBy([&] { Use(token); }), 1);
    }
}

TEST_F(IdleBackends, AreKeptWhereOnlyAFileWasMissing) {
    const std::string token = Fresh();
    UseAndFail(token, Kind::kNotFound);
    EXPECT_EQ(OpenedBy([&] { Use(token); }), 0);
}

TEST_F(IdleBackends, AreFewTheOldestGoingFirst) {
    std::vector<std::string> tokens;
    for (int i = 0; i < 6; ++i) {
        tokens.push_back(Fresh());
        Use(tokens.back());
    }
    EXPECT_EQ(OpenedBy([&] { Use(tokens.front()); }), 1);
    EXPECT_EQ(OpenedBy([&] { Use(tokens.back()); }), 0);
}

TEST_F(IdleBackends, AreNotKeptForSchemesWithoutConnections) {
    const std::string token = Fresh("loose");
    EXPECT_EQ(OpenedBy([&] {
                  Use(token);
                  Use(token);
              }),
              2);
}

TEST_F(IdleBackends, DoNotCrossAFork) {
    const std::string token = Fresh();
    Use(token);
    const pid_t child = fork();
    if (child == 0) {
        const int closed_before = closed;
        const int opened_there = OpenedBy([&] { Use(token); });
        // The child must not close the parent's connection either.
        _exit(opened_there == 1 && closed == closed_before ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(OpenedBy([&] { Use(token); }), 0);
}

TEST_F(IdleBackends, ManyThreadsShareThem) {
    const std::string token = Fresh();
    const int made = OpenedBy([&] {
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&] {
                for (int round = 0; round < 200; ++round) Use(token);
            });
        }
        for (std::thread& thread : threads) thread.join();
    });
    EXPECT_GE(made, 1);
    EXPECT_LE(made, 4);
}

}  // namespace
