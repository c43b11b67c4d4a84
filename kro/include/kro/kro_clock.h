// The clock. All code uses this header to get the time and to sleep; `scripts/check clock` finds
// code that does not. The kro_clock library defines the functions, so that a test can link another
// clock.
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>

namespace kro_date {

// The current time.
std::time_t SystemNow() noexcept;

// The current time in milliseconds since 1970-01-01 00:00:00 UTC.
std::int64_t SystemNowMs() noexcept;

// The clock for durations and deadlines. A change of the system clock does not affect it. Its time
// points have their own type, so they do not mix with those of std::chrono::steady_clock.
struct SteadyClock {
    using duration = std::chrono::nanoseconds;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<SteadyClock>;
    static constexpr bool is_steady = true;

    static time_point now() noexcept;
};

}  // namespace kro_date

namespace kro_proc {

// Sleeps for the full time, even when signals arrive.
void Sleep(int milliseconds);

}  // namespace kro_proc
