// Injects faults into a program under test, which loads this library with LD_PRELOAD. A fault point
// is a call of a C library function that has an effect outside of the process or that can fail. The
// library counts the fault points of all processes and threads of one run in a shared file. At the
// selected point it kills the process or makes the call fail.
//
// QUARN2_FAULT_FILE contains the path of the file; tests/system/faults.py writes and reads it.
// Without this variable the library counts nothing and shortens no sleep.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace fault {

// The effect of a call; bits of Control::kinds.
enum class Kind : std::uint32_t {
    kOpen = 1U << 0U,      // creates or truncates a file
    kWrite = 1U << 1U,     // writes data to a file
    kAllocate = 1U << 2U,  // changes a file's length or blocks
    kRename = 1U << 3U,
    kUnlink = 1U << 4U,  // removes a file or a directory
    kMkDir = 1U << 5U,
    kLink = 1U << 6U,  // creates a hard link or a symbolic link
    kSync = 1U << 7U,
    kSend = 1U << 8U,     // writes to a pipe, a socket or a device
    kConnect = 1U << 9U,  // connects or binds a socket
    kLock = 1U << 10U,
    kFork = 1U << 11U,        // creates a process or executes a program
    kAttributes = 1U << 12U,  // changes mode, owner or times
    kRead = 1U << 13U,        // reads data from a file
    kReceive = 1U << 14U,     // reads from a pipe, a socket or a device
    kDescriptor = 1U << 15U,  // opens a descriptor and changes nothing else
};

// The role of the process that makes the call; bits of Control::roles. The children of --server get
// another role at each fork.
enum class Role : std::uint32_t {
    kCommand = 1U << 0U,  // any other command than --server and --client
    kCaller = 1U << 1U,   // the process that was started with --server
    kBetween = 1U << 2U,  // the intermediate child that forks the daemon
    kDaemon = 1U << 3U,
    kStarter = 1U << 4U,  // a child of the daemon before it becomes a node client
    kClient = 1U << 5U,
};

enum class Action : std::uint32_t {
    kNone = 0,
    kKillBefore = 1,
    kKillAfter = 2,
    kFail = 3,   // the call fails with Control::error
    kShort = 4,  // the call transfers half of the data
    kTorn = 5,   // the call transfers about half of the data, in whole pages; then the process dies
};

// The header of the shared file. kEntries texts of kEntrySize bytes follow, one for each point:
// role, call and path. So the entry of the selected point identifies the call that failed.
struct Control {
    std::atomic<std::uint64_t> count;  // fault points reached so far
    std::uint64_t fault_at;            // point of the fault, counted from 1; 0: no fault
    std::uint32_t kinds;
    std::uint32_t roles;
    Action action;
    std::int32_t error;
    std::uint32_t lasting;  // nonzero: a fault at every later point too
    std::atomic<std::uint32_t> injected;
    std::uint32_t quick;  // nonzero: shortens sleeps and poll()
    std::uint32_t unused[5];
};
static_assert(sizeof(Control) == 64);

constexpr std::size_t kEntries = 4096;
constexpr std::size_t kEntrySize = 160;

// The file that a call works on: a path, or a descriptor whose path the library looks up.
struct Place {
    const char* path = nullptr;
    int fd = -1;
};

// Counts the call if its kind and the role of the process are selected, and returns the action for
// it. Sets errno for kFail. Does not return for kKillBefore, because it kills the process.
Action Reach(Kind kind, const char* call, Place place) noexcept;

// Kills the process. A wrapper calls this for kKillAfter and kTorn after the system call.
[[noreturn]] void Die() noexcept;

// Sets the role of the child after a fork.
void ChangeRoleAfterFork() noexcept;

bool IsQuick() noexcept;

// False in a node client. A shortened wait of one thread would advance the clock for all threads,
// and the node client would disconnect each connected command because of its silence.
bool MayAdvanceClock() noexcept;

// True for a regular file. Transfers through other descriptors are kSend and kReceive.
bool IsFile(int fd) noexcept;

}  // namespace fault
