// A clock that the test controls. Test programs link it in place of the real clock.
#pragma once

#include <ctime>
#include <functional>
#include <vector>

namespace fake_clock {

// 2026-11-20 12:00:00 UTC, a Friday.
inline constexpr std::time_t kStart = 1795176000;

// Sets the system time to kStart and the steady clock to its own start, clears the list of sleeps
// and removes the hook.
void Reset();
void Set(std::time_t now);

// Advances the system time and the steady clock without a sleep.
void Pass(int milliseconds);

// Sets a hook. Each sleep calls the hook with the length of the sleep in milliseconds, and then
// returns.
void OnSleep(std::function<void(int)> hook);

// Returns the lengths of all sleeps since Reset, in milliseconds. A sleep advances the clock and
// returns without waiting.
std::vector<int> Sleeps();

}  // namespace fake_clock
