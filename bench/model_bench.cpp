// Measures the server's accounting for a large storage: memory, an eviction pass, a reservation and
// a completion.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kro/kro_proc.h"
#include "quarn2/expect.h"
#include "quarn2_cp2_server_model.h"
#include "quarn2_cp2_server_plan.h"
#include "quarn2_cp2_server_session.h"

namespace {

// Number of users. The first argument of the program replaces it, unless that is an option.
int users = 100'000;
constexpr int kRecordsEach = 10;
constexpr std::int64_t kRoom = std::int64_t{1} << 60;

std::string UserName(int number) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "customer%06d", number);
    return text.data();
}

std::string DateName(int number) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "2026-03-%02d", number + 1);
    return text.data();
}

// Adds backups to the accounting like a start-up scan: each user has a full backup every seven days
// and incremental ones in between.
void Fill(GlobalSizeControl& control) {
    control.size_limit = kRoom;
    control.max_count = kRecordsEach;
    auto& storage = control.AddStorage(nullptr);
    for (int user = 0; user < users; ++user) {
        auto& backups = storage.users[UserName(user)].backups;
        for (int day = 0; day < kRecordsEach; ++day) {
            backups[DateName(day)] = {1000 + day, day % 7 == 0 ? 0 : 1, false};
        }
    }
}

void BM_MemoryPerRecord(benchmark::State& state) {
    double bytes = 0;
    for ([[maybe_unused]] auto _ : state) {
        const std::size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
        GlobalSizeControl control;
        Fill(control);
        const std::size_t after = mallinfo2().uordblks + mallinfo2().hblkhd;
        bytes = static_cast<double>(after - before) / (double{1} * users * kRecordsEach);
    }
    state.counters["bytes_per_record"] = bytes;
}
BENCHMARK(BM_MemoryPerRecord)->Iterations(1)->Unit(benchmark::kMillisecond);

// Every user exceeds the limit by one backup, so the plan contains a victim of each user.
void BM_EvictionPlan(benchmark::State& state) {
    GlobalSizeControl control;
    Fill(control);
    std::size_t victims = 0;
    for ([[maybe_unused]] auto _ : state) {
        victims = PlanPass(control.storages, control.max_count - 1, RemovalReason::kSizeReserve, {})
                      .size();
        benchmark::DoNotOptimize(victims);
    }
    state.counters["victims"] = static_cast<double>(victims);
}
BENCHMARK(BM_EvictionPlan)->Unit(benchmark::kMillisecond);

// Plans the eviction and removes the victims from the accounting: a complete pass without the
// operations on the storage.
void BM_EvictionPass(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        {
            GlobalSizeControl control;
            Fill(control);
            state.ResumeTiming();
            for (const Victim& victim : PlanPass(control.storages, control.max_count - 1,
                                                 RemovalReason::kSizeReserve, {})) {
                ForgetBackup(control.storages, victim);
            }
            --control.max_count;
            state.PauseTiming();
        }
        state.ResumeTiming();
    }
}
BENCHMARK(BM_EvictionPass)->Iterations(10)->Unit(benchmark::kMillisecond);

// Plans the evictions for one reservation in a storage without free space. Two passes are needed.
void BM_EvictionForReservation(benchmark::State& state) {
    GlobalSizeControl control;
    Fill(control);
    control.storages.at("").free_size = 0;
    const std::int64_t size = std::int64_t{1500} * users;
    for ([[maybe_unused]] auto _ : state) {
        const EvictionPlan plan = PlanRoom(control, "", size, {});
        if (plan.passes.size() != 2 || !plan.IsPossible()) std::abort();
        benchmark::DoNotOptimize(plan);
    }
}
BENCHMARK(BM_EvictionForReservation)->Unit(benchmark::kMillisecond);

// A session whose client is this process. The client reads kAnswersAtOnce answers at a time.
class Link {
  public:
    explicit Link(GlobalSizeControl& control)
        : session_(control.storages.at(""), loop_, {"unused"}), pipe_(kro_proc::Pipe()) {
        session_.Attach(ResHandle(), pipe_.second);
    }

    void Send(const std::string& line) {
        session_.ProcessCommand(line);
        if (++unread_ == kAnswersAtOnce) ReadAnswers();
    }

  private:
    static constexpr int kAnswersAtOnce = 512;

    void ReadAnswers() {
        std::array<char, 65536> answers{};
        session_.Write(pipe_.second);
        const ssize_t count = read(pipe_.first, answers.data(), answers.size());
        if (count < 3 * kAnswersAtOnce) std::abort();
        unread_ = 0;
    }

    quarn2::Expect loop_;
    MasterSide session_;
    std::pair<ResHandle, ResHandle> pipe_;
    int unread_ = 0;
};

void BM_Reserve(benchmark::State& state) {
    GlobalSizeControl control;
    Fill(control);
    Link link(control);
    for ([[maybe_unused]] auto _ : state) link.Send("RESERVE 1048576");
    auto& storage = control.storages.at("");
    if (storage.reserved != static_cast<std::int64_t>(state.iterations()) * 1048576) std::abort();
}
// The number of iterations is limited, so that all reservations fit into kRoom without evictions.
BENCHMARK(BM_Reserve)->Iterations(1'000'000)->Unit(benchmark::kNanosecond);

// Sends one completion per user, and starts again with the first user until the measurement ends.
void Complete(benchmark::State& state, std::int64_t stride) {
    GlobalSizeControl control;
    Fill(control);
    Link link(control);
    std::vector<std::string> lines;
    for (std::int64_t number = 0; number < users; ++number) {
        const int user = static_cast<int>((number * stride) % users);
        lines.push_back("COMPLETE " + UserName(user) + " " + DateName(kRecordsEach) +
                        " incremental 1000");
    }
    std::size_t next = 0;
    for ([[maybe_unused]] auto _ : state) {
        link.Send(lines[next]);
        next = (next + 1) % lines.size();
    }
}

void BM_CompleteInOrder(benchmark::State& state) { Complete(state, 1); }
BENCHMARK(BM_CompleteInOrder)->Unit(benchmark::kNanosecond);

// Completes backups of users in a scattered order, so that hardly any of their records are in the
// processor's cache.
void BM_CompleteAtRandom(benchmark::State& state) { Complete(state, 7919); }
BENCHMARK(BM_CompleteAtRandom)->Unit(benchmark::kNanosecond);

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && argv[1][0] != '-') {
        users = std::atoi(argv[1]);
        if (users < 1) return 2;
        --argc;
        argv[1] = argv[0];
        ++argv;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
