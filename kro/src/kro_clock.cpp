// The real clock. Tests link another one in its place.
#include <time.h>

#include <cerrno>

#include "kro/kro_date.h"
#include "kro/kro_proc.h"

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

std::chrono::steady_clock::time_point kro_date::SteadyNow() noexcept {
    return std::chrono::steady_clock::now();
}
