#include "fake_clock.h"

#include <chrono>
#include <mutex>

#include "kro/kro_clock.h"

namespace {

// The clock does not start at the epoch of the steady clock. So a test can subtract from the
// current time, and a time point that was never set differs from the current time.
constexpr kro_date::SteadyClock::time_point kSteadyStart(std::chrono::hours(24));

struct State {
    std::mutex mutex;
    std::time_t now = fake_clock::kStart;
    kro_date::SteadyClock::time_point steady = kSteadyStart;
    std::vector<int> sleeps;
    std::function<void(int)> hook;

    void Advance(int milliseconds) {
        now += milliseconds / 1000;
        steady += std::chrono::milliseconds(milliseconds);
    }
};

State& TheState() {
    static State state;
    return state;
}

}  // namespace

void fake_clock::Reset() {
    State& state = TheState();
    const std::lock_guard section(state.mutex);
    state.now = kStart;
    state.steady = kSteadyStart;
    state.sleeps.clear();
    state.hook = nullptr;
}

void fake_clock::Set(std::time_t now) {
    State& state = TheState();
    const std::lock_guard section(state.mutex);
    state.now = now;
}

void fake_clock::Pass(int milliseconds) {
    State& state = TheState();
    const std::lock_guard section(state.mutex);
    state.Advance(milliseconds);
}

void fake_clock::OnSleep(std::function<void(int)> hook) {
    State& state = TheState();
    const std::lock_guard section(state.mutex);
    state.hook = std::move(hook);
}

std::vector<int> fake_clock::Sleeps() {
    State& state = TheState();
    const std::lock_guard section(state.mutex);
    return state.sleeps;
}

void kro_proc::Sleep(int milliseconds) {
    State& state = TheState();
    std::function<void(int)> hook;
    {
        const std::lock_guard section(state.mutex);
        state.sleeps.push_back(milliseconds);
        state.Advance(milliseconds);
        hook = state.hook;
    }
    if (hook) hook(milliseconds);
}

std::time_t kro_date::SystemNow() noexcept {
    State& state = TheState();
    const std::lock_guard section(state.mutex);
    return state.now;
}

std::int64_t kro_date::SystemNowMs() noexcept {
    return static_cast<std::int64_t>(SystemNow()) * 1000;
}

kro_date::SteadyClock::time_point kro_date::SteadyClock::now() noexcept {
    State& state = TheState();
    const std::lock_guard section(state.mutex);
    return state.steady;
}
