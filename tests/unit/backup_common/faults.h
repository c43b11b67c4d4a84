// System calls that fail when a test says so. The program is linked with --wrap for each of them.
#pragma once

#include <atomic>

namespace faults {

// How often lstat, flock, socket, listen, send and rename fail from now on, and with which errno.
struct Plan {
    int lstat = 0;
    int flock = 0;
    int socket = 0;
    int listen = 0;
    int send_short = 0;         // send takes one byte less than it was given
    int rename_to_removed = 0;  // only renames into var/quarn2_cp.removed
    int error = 0;
};
Plan& ThePlan();

// How often lstat has been called. Upload threads call it too.
std::atomic<int>& LstatCalls();

// What fork does: the real thing, -1, or a child that ends with this status at once.
enum class Fork { kReal, kFails, kChildEnds };
void SetFork(Fork what, int status = 0);

}  // namespace faults
