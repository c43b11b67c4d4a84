// A clock that lets a test end the long pauses of a program under test. The program is linked with
// it in place of the real clock.
//
// A pause of ten seconds or more ends as soon as the file tmp/end_pauses exists in the install
// root, which is the working directory. While the file exists, the steady clock is a day ahead, so
// every idle timeout has expired. Everything else is real time.
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "kro/kro_clock.h"

namespace {

constexpr int kLongPauseMs = 10'000;
constexpr int kLookMs = 5;
constexpr const char* kEnd = "tmp/end_pauses";

void Wait(int milliseconds) {
    timespec left = {milliseconds / 1000, milliseconds % 1000 * 1'000'000L};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

}  // namespace

void kro_proc::Sleep(int milliseconds) {
    if (milliseconds < kLongPauseMs) {
        Wait(std::max(milliseconds, 0));
        return;
    }
    for (int waited = 0; waited < milliseconds && access(kEnd, F_OK) != 0; waited += kLookMs) {
        Wait(kLookMs);
    }
}

std::time_t kro_date::SystemNow() noexcept { return std::time(nullptr); }

std::int64_t kro_date::SystemNowMs() noexcept {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::floor<std::chrono::milliseconds>(now).count();
}

kro_date::SteadyClock::time_point kro_date::SteadyClock::now() noexcept {
    const time_point now(std::chrono::steady_clock::now().time_since_epoch());
    return access(kEnd, F_OK) == 0 ? now + std::chrono::hours(24) : now;
}
