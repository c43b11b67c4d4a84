// The real clock. Tests link a different clock instead.
#include "kro/kro_clock.h"

#include <time.h>

#include <cerrno>

void kro_proc::Sleep(int milliseconds) {
    if (milliseconds <= 0) return;
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += milliseconds / 1000;
    end.tv_nsec += milliseconds % 1000 * 1000000L;
    if (end.tv_nsec >= 1000000000L) {
        end.tv_nsec -= 1000000000L;
        ++end.tv_sec;
    }
    // With an absolute end time, signals do not lengthen the wait.
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
    }
}

std::time_t kro_date::SystemNow() noexcept { return std::time(nullptr); }

std::int64_t kro_date::SystemNowMs() noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

kro_date::SteadyClock::time_point kro_date::SteadyClock::now() noexcept {
    return time_point(std::chrono::steady_clock::now().time_since_epoch());
}
