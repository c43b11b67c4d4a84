// Points at which a program under test can be struck: calls into the C library that change
// something outside of it, and those that can fail in telling ways. The library built from here is
// loaded before the program (LD_PRELOAD). It counts the points of all processes and threads of one
// run in a file that they share, and at the chosen one kills the process or makes the call fail.
//
// QUARN2_FAULT_FILE names the file; tests/system/faults.py writes and reads it. Without it nothing
// is counted, and sleeps take as long as they say.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace fault {

// What a call does; bits of Control::kinds.
enum class Kind : std::uint32_t {
    kOpen = 1U << 0U,      // creates or empties a file
    kWrite = 1U << 1U,     // gives data to a file
    kAllocate = 1U << 2U,  // changes a file's length or blocks
    kRename = 1U << 3U,
    kUnlink = 1U << 4U,  // removes a name
    kMkDir = 1U << 5U,
    kLink = 1U << 6U,  // gives a second name, or makes a symbolic link
    kSync = 1U << 7U,
    kSend = 1U << 8U,     // gives data to a pipe, a socket or a device
    kConnect = 1U << 9U,  // connects, or makes a socket's name
    kLock = 1U << 10U,
    kFork = 1U << 11U,        // makes a process, or replaces it
    kAttributes = 1U << 12U,  // changes mode, owner or times
    kRead = 1U << 13U,        // takes data from a file
    kReceive = 1U << 14U,     // takes data from a pipe, a socket or a device
    kDescriptor = 1U << 15U,  // takes a descriptor without changing anything
};

// Who is struck; bits of Control::roles. What --server starts changes its part from fork to fork.
enum class Role : std::uint32_t {
    kCommand = 1U << 0U,  // a command that does its work and ends
    kCaller = 1U << 1U,   // --server, until it is let go
    kBetween = 1U << 2U,  // the child between caller and daemon
    kDaemon = 1U << 3U,
    kStarter = 1U << 4U,  // a child of the daemon before it becomes a node client
    kClient = 1U << 5U,
};

enum class Action : std::uint32_t {
    kNone = 0,
    kKillBefore = 1,
    kKillAfter = 2,
    kFail = 3,   // with Control::error
    kShort = 4,  // half of the data
    kTorn = 5,   // half of the data, in whole pages, then the kill
};

// The file. Whoever strikes notes nothing else: the entry of the point struck tells which call it
// was.
struct Control {
    std::atomic<std::uint64_t> count;  // points so far
    std::uint64_t strike_at;           // the point to strike, from 1; 0: none
    std::uint32_t kinds;
    std::uint32_t roles;
    Action action;
    std::int32_t error;
    std::uint32_t lasting;  // every point from the chosen one on is struck as well
    std::atomic<std::uint32_t> struck;
    std::uint32_t quick;  // sleeps and waits for events are cut short
    std::uint32_t unused[5];
};
static_assert(sizeof(Control) == 64);

constexpr std::size_t kEntries = 4096;
constexpr std::size_t kEntrySize = 160;

// Where a call works: a path, or a descriptor whose path is looked up.
struct Place {
    const char* path = nullptr;
    int fd = -1;
};

// Counts the call when it is wanted. Does not come back when the process is to be killed before it;
// sets errno for kFail.
Action Reach(Kind kind, const char* call, Place place) noexcept;

// The end of the process, for kKillAfter and kTorn.
[[noreturn]] void Die() noexcept;

// What a process becomes in its child.
void ChangeRoleAfterFork() noexcept;

bool IsQuick() noexcept;

// False in a node client: it would take every command for silent that connects while a wait of
// another thread is cut short.
bool MayAdvanceClock() noexcept;

// True for a plain file: a descriptor of anything else sends and receives.
bool IsFile(int fd) noexcept;

}  // namespace fault
