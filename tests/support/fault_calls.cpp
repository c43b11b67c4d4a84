// The wrappers of the C library functions that are fault points (see fault_points.h). Each function
// is wrapped under all of its names in the C library.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <poll.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>

#include "fault_points.h"

using fault::Action;
using fault::Kind;
using fault::Place;
using fault::Reach;

namespace {

template <class Function>
Function* Next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// Makes a call that transfers no data. Returns `failed` if the selected action is kFail.
template <class Call, class Result>
Result Point(Kind kind, const char* name, Place place, Result failed, const Call& call) {
    const Action action = Reach(kind, name, place);
    if (action == Action::kFail) return failed;
    const Result result = call();
    if (action == Action::kKillAfter || action == Action::kTorn) fault::Die();
    return result;
}

constexpr std::size_t kPage = 4096;

// Makes a call that transfers data. The actions kShort and kTorn transfer only a part of the data.
template <class Call>
ssize_t Transfer(Kind kind, const char* name, int fd, std::size_t size, const Call& call) {
    const Action action = Reach(kind, name, {nullptr, fd});
    if (action == Action::kFail) return -1;
    std::size_t part = size;
    if (action == Action::kShort && size > 1) part = size / 2;
    // A kill cannot interrupt a write inside a page.
    if (action == Action::kTorn && size > kPage) part = size / 2 / kPage * kPage + kPage;
    const ssize_t result = call(part);
    if (action == Action::kKillAfter || action == Action::kTorn) fault::Die();
    return result;
}

Kind Giving(int fd) noexcept { return fault::IsFile(fd) ? Kind::kWrite : Kind::kSend; }
Kind Taking(int fd) noexcept { return fault::IsFile(fd) ? Kind::kRead : Kind::kReceive; }

Kind Opening(int flags) noexcept {
    return (flags & (O_CREAT | O_TRUNC)) != 0 ? Kind::kOpen : Kind::kDescriptor;
}

mode_t ModeOf(int flags, va_list arguments) noexcept {
    const bool given = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    return given ? va_arg(arguments, mode_t) : 0;
}

constexpr int kMaxWait = 10;
constexpr std::int64_t kMillisecond = 1000000;
constexpr std::int64_t kSecond = 1000 * kMillisecond;
constexpr std::int64_t kMinSleep = 2 * kMillisecond;

// Nanoseconds by which this process's monotonic clock is ahead.
std::atomic<std::int64_t> skipped{0};

std::int64_t Nanoseconds(const timespec& time) noexcept {
    return time.tv_sec * kSecond + time.tv_nsec;
}

void Advance(timespec& time, std::int64_t by) noexcept {
    const std::int64_t sum = Nanoseconds(time) + by;
    time.tv_sec = sum / kSecond;
    time.tv_nsec = sum % kSecond;
}

bool ChangesByStream(const char* mode) noexcept { return strpbrk(mode, "wa") != nullptr; }

}  // namespace

// Declares `next`, the function of the C library that the wrapper replaces.
#define NEXT(function) static auto* const next = Next<decltype(function)>(#function)

extern "C" {

// --- Opening ---

#define OPEN(name)                                                                                \
    int name(const char* path, int flags, ...) {                                                  \
        NEXT(name);                                                                               \
        va_list arguments;                                                                        \
        va_start(arguments, flags);                                                               \
        const mode_t mode = ModeOf(flags, arguments);                                             \
        va_end(arguments);                                                                        \
        return Point(Opening(flags), #name, {path}, -1, [&] { return next(path, flags, mode); }); \
    }
OPEN(open)
OPEN(open64)

#define OPENAT(name)                                                      \
    int name(int directory, const char* path, int flags, ...) {           \
        NEXT(name);                                                       \
        va_list arguments;                                                \
        va_start(arguments, flags);                                       \
        const mode_t mode = ModeOf(flags, arguments);                     \
        va_end(arguments);                                                \
        return Point(Opening(flags), #name, {path}, -1,                   \
                     [&] { return next(directory, path, flags, mode); }); \
    }
OPENAT(openat)
OPENAT(openat64)

#define CREAT(name)                                                                     \
    int name(const char* path, mode_t mode) {                                           \
        NEXT(name);                                                                     \
        return Point(Kind::kOpen, #name, {path}, -1, [&] { return next(path, mode); }); \
    }
CREAT(creat)
CREAT(creat64)

#define FOPEN(name)                                                                          \
    FILE* name(const char* path, const char* mode) {                                         \
        NEXT(name);                                                                          \
        return Point(ChangesByStream(mode) ? Kind::kOpen : Kind::kDescriptor, #name, {path}, \
                     static_cast<FILE*>(nullptr), [&] { return next(path, mode); });         \
    }
FOPEN(fopen)
FOPEN(fopen64)

DIR* opendir(const char* path) {
    NEXT(opendir);
    return Point(Kind::kDescriptor, "opendir", {path}, static_cast<DIR*>(nullptr),
                 [&] { return next(path); });
}

int socket(int domain, int type, int protocol) noexcept {
    NEXT(socket);
    return Point(Kind::kDescriptor, "socket", {}, -1, [&] { return next(domain, type, protocol); });
}

int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
    NEXT(accept4);
    return Point(Kind::kDescriptor, "accept4", {nullptr, fd}, -1,
                 [&] { return next(fd, address, length, flags); });
}

int pipe2(int* ends, int flags) noexcept {
    NEXT(pipe2);
    return Point(Kind::kDescriptor, "pipe2", {}, -1, [&] { return next(ends, flags); });
}

// --- Data ---

ssize_t write(int fd, const void* data, size_t size) {
    NEXT(write);
    return Transfer(Giving(fd), "write", fd, size,
                    [&](size_t part) { return next(fd, data, part); });
}

#define PWRITE(name)                                                                \
    ssize_t name(int fd, const void* data, size_t size, off_t offset) {             \
        NEXT(name);                                                                 \
        return Transfer(Kind::kWrite, #name, fd, size,                              \
                        [&](size_t part) { return next(fd, data, part, offset); }); \
    }
PWRITE(pwrite)
PWRITE(pwrite64)

ssize_t writev(int fd, const iovec* pieces, int count) {
    NEXT(writev);
    return Transfer(Giving(fd), "writev", fd, static_cast<size_t>(count),
                    [&](size_t part) { return next(fd, pieces, static_cast<int>(part)); });
}

ssize_t copy_file_range(int from, off64_t* from_offset, int to, off64_t* to_offset, size_t size,
                        unsigned flags) {
    NEXT(copy_file_range);
    return Transfer(Kind::kWrite, "copy_file_range", to, size, [&](size_t part) {
        return next(from, from_offset, to, to_offset, part, flags);
    });
}

#define SENDFILE(name)                                                              \
    ssize_t name(int to, int from, off_t* offset, size_t size) noexcept {           \
        NEXT(name);                                                                 \
        return Transfer(Giving(to), #name, to, size,                                \
                        [&](size_t part) { return next(to, from, offset, part); }); \
    }
SENDFILE(sendfile)
SENDFILE(sendfile64)

ssize_t read(int fd, void* data, size_t size) {
    NEXT(read);
    return Transfer(Taking(fd), "read", fd, size,
                    [&](size_t part) { return next(fd, data, part); });
}

#define PREAD(name)                                                                 \
    ssize_t name(int fd, void* data, size_t size, off_t offset) {                   \
        NEXT(name);                                                                 \
        return Transfer(Kind::kRead, #name, fd, size,                               \
                        [&](size_t part) { return next(fd, data, part, offset); }); \
    }
PREAD(pread)
PREAD(pread64)

ssize_t send(int fd, const void* data, size_t size, int flags) {
    NEXT(send);
    return Transfer(Kind::kSend, "send", fd, size,
                    [&](size_t part) { return next(fd, data, part, flags); });
}

ssize_t sendto(int fd, const void* data, size_t size, int flags, const sockaddr* address,
               socklen_t length) {
    NEXT(sendto);
    return Transfer(Kind::kSend, "sendto", fd, size,
                    [&](size_t part) { return next(fd, data, part, flags, address, length); });
}

ssize_t sendmsg(int fd, const msghdr* message, int flags) {
    NEXT(sendmsg);
    return Point(Kind::kSend, "sendmsg", {nullptr, fd}, static_cast<ssize_t>(-1),
                 [&] { return next(fd, message, flags); });
}

ssize_t recv(int fd, void* data, size_t size, int flags) {
    NEXT(recv);
    return Transfer(Kind::kReceive, "recv", fd, size,
                    [&](size_t part) { return next(fd, data, part, flags); });
}

// --- Calls that return 0 or -1 ---

#define SIMPLE(kind, name, place, parameters, arguments)                                  \
    int name parameters {                                                                 \
        NEXT(name);                                                                       \
        return Point(Kind::kind, #name, Place place, -1, [&] { return next arguments; }); \
    }
#define SIMPLE_NOEXCEPT(kind, name, place, parameters, arguments)                         \
    int name parameters noexcept {                                                        \
        NEXT(name);                                                                       \
        return Point(Kind::kind, #name, Place place, -1, [&] { return next arguments; }); \
    }

SIMPLE(kAllocate, fallocate, ({nullptr, fd}), (int fd, int mode, off_t offset, off_t size),
       (fd, mode, offset, size))
SIMPLE(kAllocate, fallocate64, ({nullptr, fd}), (int fd, int mode, off64_t offset, off64_t size),
       (fd, mode, offset, size))
SIMPLE_NOEXCEPT(kAllocate, ftruncate, ({nullptr, fd}), (int fd, off_t size), (fd, size))
SIMPLE_NOEXCEPT(kAllocate, ftruncate64, ({nullptr, fd}), (int fd, off64_t size), (fd, size))
SIMPLE_NOEXCEPT(kAllocate, truncate, ({path}), (const char* path, off_t size), (path, size))
SIMPLE_NOEXCEPT(kAllocate, truncate64, ({path}), (const char* path, off64_t size), (path, size))

SIMPLE_NOEXCEPT(kRename, rename, ({to}), (const char* from, const char* to), (from, to))
SIMPLE_NOEXCEPT(kRename, renameat, ({to}),
                (int from_directory, const char* from, int to_directory, const char* to),
                (from_directory, from, to_directory, to))
SIMPLE_NOEXCEPT(kRename, renameat2, ({to}),
                (int from_directory, const char* from, int to_directory, const char* to,
                 unsigned flags),
                (from_directory, from, to_directory, to, flags))

SIMPLE_NOEXCEPT(kUnlink, unlink, ({path}), (const char* path), (path))
SIMPLE_NOEXCEPT(kUnlink, unlinkat, ({path}), (int directory, const char* path, int flags),
                (directory, path, flags))
SIMPLE_NOEXCEPT(kUnlink, remove, ({path}), (const char* path), (path))
SIMPLE_NOEXCEPT(kUnlink, rmdir, ({path}), (const char* path), (path))

SIMPLE_NOEXCEPT(kMkDir, mkdir, ({path}), (const char* path, mode_t mode), (path, mode))
SIMPLE_NOEXCEPT(kMkDir, mkdirat, ({path}), (int directory, const char* path, mode_t mode),
                (directory, path, mode))

SIMPLE_NOEXCEPT(kLink, link, ({to}), (const char* from, const char* to), (from, to))
SIMPLE_NOEXCEPT(kLink, linkat, ({to}),
                (int from_directory, const char* from, int to_directory, const char* to, int flags),
                (from_directory, from, to_directory, to, flags))
SIMPLE_NOEXCEPT(kLink, symlink, ({path}), (const char* target, const char* path), (target, path))
SIMPLE_NOEXCEPT(kLink, symlinkat, ({path}), (const char* target, int directory, const char* path),
                (target, directory, path))

SIMPLE(kSync, fsync, ({nullptr, fd}), (int fd), (fd))
SIMPLE(kSync, fdatasync, ({nullptr, fd}), (int fd), (fd))
SIMPLE_NOEXCEPT(kSync, syncfs, ({nullptr, fd}), (int fd), (fd))

SIMPLE_NOEXCEPT(kConnect, bind, ({nullptr, fd}),
                (int fd, const sockaddr* address, socklen_t length), (fd, address, length))
SIMPLE(kConnect, connect, ({nullptr, fd}), (int fd, const sockaddr* address, socklen_t length),
       (fd, address, length))

SIMPLE_NOEXCEPT(kLock, flock, ({nullptr, fd}), (int fd, int operation), (fd, operation))

SIMPLE_NOEXCEPT(kAttributes, chmod, ({path}), (const char* path, mode_t mode), (path, mode))
SIMPLE_NOEXCEPT(kAttributes, fchmod, ({nullptr, fd}), (int fd, mode_t mode), (fd, mode))
SIMPLE_NOEXCEPT(kAttributes, fchmodat, ({path}),
                (int directory, const char* path, mode_t mode, int flags),
                (directory, path, mode, flags))
SIMPLE_NOEXCEPT(kAttributes, chown, ({path}), (const char* path, uid_t owner, gid_t group),
                (path, owner, group))
SIMPLE_NOEXCEPT(kAttributes, lchown, ({path}), (const char* path, uid_t owner, gid_t group),
                (path, owner, group))
SIMPLE_NOEXCEPT(kAttributes, fchown, ({nullptr, fd}), (int fd, uid_t owner, gid_t group),
                (fd, owner, group))
SIMPLE_NOEXCEPT(kAttributes, utimensat, ({path}),
                (int directory, const char* path, const timespec times[2], int flags),
                (directory, path, times, flags))
SIMPLE_NOEXCEPT(kAttributes, futimens, ({nullptr, fd}), (int fd, const timespec times[2]),
                (fd, times))

// --- Calls with many operations ---

static Kind KindOfFcntl(int command) noexcept {
    switch (command) {
        case F_SETLK:
        case F_SETLKW:
        case F_OFD_SETLK:
        case F_OFD_SETLKW:
            return Kind::kLock;
        case F_DUPFD:
        case F_DUPFD_CLOEXEC:
            return Kind::kDescriptor;
        default:
            return Kind{};
    }
}

#define FCNTL(name)                                                  \
    int name(int fd, int command, ...) {                             \
        NEXT(name);                                                  \
        va_list arguments;                                           \
        va_start(arguments, command);                                \
        void* const argument = va_arg(arguments, void*);             \
        va_end(arguments);                                           \
        return Point(KindOfFcntl(command), #name, {nullptr, fd}, -1, \
                     [&] { return next(fd, command, argument); });   \
    }
FCNTL(fcntl)
FCNTL(fcntl64)

int ioctl(int fd, unsigned long request, ...) noexcept {
    NEXT(ioctl);
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return Point(request == FICLONE ? Kind::kWrite : Kind{}, "ioctl", {nullptr, fd}, -1,
                 [&] { return next(fd, request, argument); });
}

// --- Processes ---

pid_t fork() noexcept {
    NEXT(fork);
    const Action action = Reach(Kind::kFork, "fork", {});
    if (action == Action::kFail) return -1;
    const pid_t child = next();
    if (child == 0) {
        fault::ChangeRoleAfterFork();
    } else if (action == Action::kKillAfter) {
        fault::Die();
    }
    return child;
}

SIMPLE_NOEXCEPT(kFork, execve, ({path}),
                (const char* path, char* const* arguments, char* const* environment),
                (path, arguments, environment))
SIMPLE_NOEXCEPT(kFork, execvp, ({path}), (const char* path, char* const* arguments),
                (path, arguments))
SIMPLE_NOEXCEPT(kFork, execvpe, ({path}),
                (const char* path, char* const* arguments, char* const* environment),
                (path, arguments, environment))

// --- Time ---

// These calls are not fault points. In quick mode they shorten waits that need no real time. They
// then advance the monotonic clock by the skipped time, except in a node client.

int clock_gettime(clockid_t clock, timespec* now) noexcept {
    NEXT(clock_gettime);
    const int result = next(clock, now);
    if (result == 0 && clock == CLOCK_MONOTONIC) Advance(*now, skipped.load());
    return result;
}

int clock_nanosleep(clockid_t clock, int flags, const timespec* wanted, timespec* left) {
    NEXT(clock_nanosleep);
    if (!fault::IsQuick()) return next(clock, flags, wanted, left);
    timespec now{};
    if (flags == TIMER_ABSTIME) clock_gettime(clock, &now);
    const std::int64_t rest = Nanoseconds(*wanted) - Nanoseconds(now);
    if (rest <= 0) return 0;
    const std::int64_t quick = std::min(rest, std::max(rest / 1000, kMinSleep));
    timespec pause{};
    Advance(pause, quick);
    next(CLOCK_MONOTONIC, 0, &pause, nullptr);
    if (fault::MayAdvanceClock()) skipped += rest - quick;
    return 0;
}

int poll(pollfd* states, nfds_t count, int timeout) {
    NEXT(poll);
    if (!fault::IsQuick() || timeout <= kMaxWait) return next(states, count, timeout);
    const int ready = next(states, count, kMaxWait);
    if (ready == 0 && fault::MayAdvanceClock()) {
        skipped += (timeout - kMaxWait) * kMillisecond;
    }
    return ready;
}
}
