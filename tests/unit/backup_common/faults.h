// System calls that a test makes fail. The program is linked with --wrap for each of them.
#pragma once

#include <atomic>
#include <functional>

namespace faults {

// How many of the next calls fail, for each system call, and with which errno.
struct Plan {
    int lstat = 0;
    int flock = 0;
    int socket = 0;
    int listen = 0;
    int send_short = 0;         // send sends one byte less than requested
    int rename_to_removed = 0;  // only renames into var/quarn2_cp.removed
    int error = 0;
};
Plan& ThePlan();

// Calls `function` before each flock of this process. A flock inside `function` calls it again.
void OnFlock(std::function<void()> function);

// How often lstat has been called. Upload threads call it too.
std::atomic<int>& LstatCalls();

// The behaviour of fork: the real call, a failure with -1, or a child that exits at once with the
// status.
enum class Fork { kReal, kFails, kChildEnds };
void SetFork(Fork what, int status = 0);

}  // namespace faults
