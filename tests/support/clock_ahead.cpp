// Simulates a machine with a wrong clock. A program that loads this library reads a system time
// that is two days ahead.
#include <dlfcn.h>
#include <sys/time.h>
#include <time.h>

namespace {

constexpr time_t kAhead = 2 * 24 * 3600;

template <class Function>
Function* Next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* now) noexcept {
    static auto* const next = Next<int(clockid_t, timespec*)>("clock_gettime");
    const int result = next(clock, now);
    if (result == 0 && clock == CLOCK_REALTIME) now->tv_sec += kAhead;
    return result;
}

time_t time(time_t* now) noexcept {
    timespec exact{};
    clock_gettime(CLOCK_REALTIME, &exact);
    if (now != nullptr) *now = exact.tv_sec;
    return exact.tv_sec;
}

int gettimeofday(timeval* now, void* zone) noexcept {
    static auto* const next = Next<int(timeval*, void*)>("gettimeofday");
    const int result = next(now, zone);
    if (result == 0) now->tv_sec += kAhead;
    return result;
}
}
