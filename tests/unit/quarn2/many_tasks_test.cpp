// Operations on many names: the number of requests at the same time, outages, refused connections
// and exceptions.
#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <set>
#include <thread>

#include "quarn2/storage.h"
#include "quarn2_backend/registry.h"
#include "storage_site.h"

namespace {

using kro_err::Error;
using kro_err::Kind;
using quarn2::FileDownload;
using quarn2::FileError;
using Names = std::vector<std::string>;

// The plan of one test. Every call of a backend calls `operation` and updates the counters.
// Backends are numbered in the order of their first operation.
struct Plan {
    std::function<void(int backend, const std::string& name)> operation = [](int, const auto&) {};
    std::atomic<int> backends = 0;
    std::atomic<int> calls = 0;
    std::atomic<int> running = 0;
    std::atomic<int> most = 0;
    std::size_t file_size = 0;
};

Plan* the_plan = nullptr;

class PlannedBackend final : public quarn2::StorageBackend {
  public:
    bool Put(const std::string& name, quarn2::ByteSource&) override {
        Run(name);
        return true;
    }
    void Get(const std::string& name, quarn2::ByteSink& sink) override {
        Run(name);
        const std::vector<std::byte> bytes(the_plan->file_size);
        sink.Write(bytes);
    }
    void Remove(const std::string& name) override { Run(name); }
    void RemoveDir(const std::string& name) override { Run(name); }
    void MakeDir(const std::string& name) override { Run(name); }
    std::vector<std::string> List(const std::string& name) override {
        Run(name);
        return {};
    }
    void Clear() override { Run(""); }

  private:
    void Run(const std::string& name) {
        if (number_ < 0) number_ = the_plan->backends++;
        ++the_plan->calls;
        const int running = ++the_plan->running;
        int most = the_plan->most;
        while (most < running && !the_plan->most.compare_exchange_weak(most, running)) continue;
        try {
            the_plan->operation(number_, name);
        } catch (...) {
            --the_plan->running;
            throw;
        }
        --the_plan->running;
    }

    int number_ = -1;
};

class ManyTasks : public testing::Test {
  protected:
    ManyTasks() {
        the_plan = &plan_;
        quarn2::BackendScheme scheme;
        scheme.scheme = "planned";
        scheme.fault = [](const quarn2::BackupToken&) { return std::string(); };
        scheme.open = [](const quarn2::BackupToken&) { return std::make_unique<PlannedBackend>(); };
        quarn2::RegisterScheme(scheme);
    }

    static std::shared_ptr<quarn2::Storage> Open(const std::string& params = "parallel=4") {
        return quarn2::GetStorage(quarn2::BackupToken("planned://host/x?" + params));
    }
    static Names Numbered(int count) {
        Names names;
        for (int i = 0; i < count; ++i) names.push_back("file" + std::to_string(i));
        return names;
    }
    std::vector<FileDownload> Downloads(int count) const {
        std::vector<FileDownload> files;
        for (const std::string& name : Numbered(count)) files.push_back({name, local_ / name});
        return files;
    }
    static int Failed(const std::vector<FileError>& errors) {
        return static_cast<int>(std::count_if(errors.begin(), errors.end(),
                                              [](const FileError& error) { return !!error; }));
    }
    // Waits until this number of operations runs at the same time.
    void AwaitRunning(int count) {
        SoonTrue([&] { return plan_.most >= count; });
    }

    Plan plan_;
    TempDir local_;
};

TEST_F(ManyTasks, NoMoreRequestsThanTheTokenAllowsRunAtTheSameTime) {
    plan_.operation = [this](int, const auto&) { AwaitRunning(4); };
    EXPECT_EQ(Failed(Open()->RemoveMany(Numbered(100))), 0);
    EXPECT_EQ(plan_.most, 4);
    EXPECT_EQ(plan_.calls, 100);
    EXPECT_EQ(Failed(Open("parallel=4")->DownloadMany(Downloads(100))), 0);
    EXPECT_EQ(plan_.most, 4);
}

TEST_F(ManyTasks, ShortListIsDoneOnTheThreadOfTheCaller) {
    std::set<std::thread::id> threads;
    plan_.operation = [&](int, const auto&) { threads.insert(std::this_thread::get_id()); };
    EXPECT_EQ(Failed(Open()->RemoveMany(Numbered(4))), 0);
    EXPECT_EQ(Failed(Open("parallel=1")->RemoveMany(Numbered(100))), 0);
    EXPECT_EQ(threads, std::set{std::this_thread::get_id()});
    EXPECT_EQ(plan_.backends, 2) << "one for each storage";
}

TEST_F(ManyTasks, OneRequestAtATimeKeepsTheOrder) {
    Names seen;
    plan_.operation = [&](int, const std::string& name) { seen.push_back(name); };
    Open("parallel=1")->RemoveMany(Numbered(20));
    EXPECT_EQ(seen, Numbered(20));
}

TEST_F(ManyTasks, DoneCanExtendTheList) {
    Names queue = Numbered(1);
    int done = 0;
    Open()->RemoveMany(
        [&]() -> std::optional<std::string> {
            if (queue.empty()) return std::nullopt;
            const std::string name = queue.back();
            queue.pop_back();
            return name;
        },
        [&](const std::string& name, const FileError&) {
            ++done;
            if (name == "file0") queue = Names(50, "more");
        });
    EXPECT_EQ(done, 51);
}

TEST_F(ManyTasks, OutageEndsTheListQuickly) {
    plan_.operation = [](int, const auto&) { throw Error(Kind::kUnavailable, "no route"); };
    for (const auto& [parallel, calls] : std::vector<std::pair<std::string, int>>{
             {"parallel=1", 3}, {"parallel=4", 4 * 3 + 2}, {"parallel=64", 64 * 3 + 2}}) {
        plan_.calls = 0;
        const std::vector<FileError> errors = Open(parallel)->RemoveMany(Numbered(5000));
        EXPECT_EQ(Failed(errors), 5000);
        EXPECT_LE(plan_.calls, calls) << parallel;
        EXPECT_EQ(errors.back()->kind(), Kind::kUnavailable);
        EXPECT_STREQ(errors.back()->what(),
                     "not attempted after several failures in a row; last error: no route");
    }
}

TEST_F(ManyTasks, OneBrokenLineIsNoOutage) {
    std::atomic<int> to_fail = 4;
    plan_.operation = [&](int, const auto&) {
        AwaitRunning(4);
        if (--to_fail >= 0) throw Error(Kind::kUnavailable, "cut");
    };
    EXPECT_LE(Failed(Open()->RemoveMany(Numbered(100))), 4);
    EXPECT_GE(plan_.calls, 100);
}

TEST_F(ManyTasks, OtherErrorsAreNoOutage) {
    for (const Kind kind : {Kind::kNotFound, Kind::kFailed, Kind::kUnauthorized}) {
        plan_.operation = [kind](int, const auto&) { throw Error(kind, "trouble"); };
        plan_.calls = 0;
        const std::vector<FileError> errors = Open()->RemoveMany(Numbered(100));
        EXPECT_EQ(Failed(errors), 100);
        EXPECT_GE(plan_.calls, 100);
        EXPECT_STREQ(errors.back()->what(), "trouble");
    }
}

// A server may allow fewer connections than the token requests.
TEST_F(ManyTasks, RefusedConnectionsLeaveTheWorkToTheOthers) {
    std::atomic<bool> refused = false;
    for (const Kind kind : {Kind::kUnavailable, Kind::kUnauthorized}) {
        plan_.backends = 0;
        refused = false;
        plan_.operation = [&, kind](int backend, const auto&) {
            if (backend >= 2) {
                refused = true;
                throw Error(kind, "too many connections");
            }
            SoonTrue([&] { return refused.load(); });
        };
        // RemoveFile uses the storage's own connection, which becomes backend 0.
        const auto storage = Open();
        refused = true;
        storage->RemoveFile("first");
        refused = false;
        EXPECT_EQ(Failed(storage->RemoveMany(Numbered(100))), 0);
        EXPECT_TRUE(refused);
    }
}

TEST_F(ManyTasks, ExceptionOfACallbackCancelsTheCall) {
    for (const char* const params : {"parallel=1", "parallel=4"}) {
        plan_.calls = 0;
        const auto storage = Open(params);
        Names names = Numbered(5000);
        const auto next = [&]() -> std::optional<std::string> {
            const std::string name = names.back();
            names.pop_back();
            return name;
        };
        EXPECT_THROW(storage->RemoveMany(next, [](const auto&, const auto&) { throw 42; }), int);
        EXPECT_THROW(storage->RemoveMany([]() -> std::optional<std::string> { throw 42; },
                                         [](const auto&, const auto&) {}),
                     int);
        EXPECT_LE(plan_.calls, 40);
        EXPECT_EQ(plan_.running, 0) << "the threads have ended";
    }
}

TEST_F(ManyTasks, ExceptionOfACallbackEndsARunningTransfer) {
    struct Cut final : quarn2::TransferObserver {
        void Begin(std::int64_t) override {}
        void Advance(std::int64_t) override { throw 42; }
    };
    plan_.file_size = 1000;
    for (const char* const params : {"parallel=1", "parallel=4", "parallel=4&limit_rate=9"}) {
        Cut cut;
        const auto storage = Open(params);
        storage->SetObserver(&cut);
        EXPECT_THROW(storage->DownloadMany(Downloads(30)), int);
    }
    EXPECT_EQ(local_files::Has(local_ / "file29"), false);
}

TEST_F(ManyTasks, ForeignExceptionOfABackendEndsTheCall) {
    plan_.operation = [](int, const std::string& name) {
        if (name == "file20") throw 42;
    };
    EXPECT_THROW(Open("parallel=1")->RemoveMany(Numbered(100)), int);
    EXPECT_THROW(Open("parallel=4")->RemoveMany(Numbered(100)), int);
    EXPECT_EQ(plan_.running, 0);
}

TEST_F(ManyTasks, RateLimitIsSharedByAllDownloads) {
    plan_.file_size = 20'000;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Failed(Open("parallel=4&limit_rate=1000000")->DownloadMany(Downloads(20))), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(350))
        << "400,000 bytes take 0.4 s; with a limit for each of four downloads, 0.1 s";
}

TEST_F(ManyTasks, EqualNamesGetTheirResults) {
    const Names names(10, "same");
    EXPECT_EQ(Open()->RemoveMany(names).size(), 10U);
    EXPECT_EQ(plan_.calls, 10);
}

}  // namespace
