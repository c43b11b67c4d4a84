// A clock that tests set by hand: linked in place of the real one.
#pragma once

#include <ctime>
#include <functional>
#include <vector>

namespace fake_clock {

// 2026-11-20 12:00:00 UTC, a Friday.
inline constexpr std::time_t kStart = 1795176000;

// The time is kStart again, nobody has slept, no hook is set.
void Reset();
void Set(std::time_t now);

// Time passes in which nobody sleeps.
void Pass(int milliseconds);

// Called at every sleep with its milliseconds, before the sleeper goes on.
void OnSleep(std::function<void(int)> hook);

// The lengths of all sleeps so far. A sleep takes no time but moves the clock.
std::vector<int> Sleeps();

}  // namespace fake_clock
