// Records all changes that a program makes to the files below one directory. The program and all
// its child processes load this library. It appends one line per change to a trace, in the order in
// which the changes happened. tests/system/power.py derives from the trace the states that a power
// failure could leave.
//
//   QUARN2_RECORD        directory of the trace ("trace", "lock", "blobs/"); not in the watched one
//   QUARN2_RECORD_BELOW  the watched directory, as realpath(3) returns it
//   QUARN2_RECORD_DROP   "file", "dir" or "file,dir": these syncs report success but do nothing
//
// Lines are PID, operation and arguments with tabs between them:
//
//   C PATH INODE    a file was created       M PATH    a directory was created
//   W INODE BLOB    a file's new content     X PATH    a directory was removed
//   S INODE BLOB    the same, synced         D PATH    a directory was synced
//   R FROM TO       a rename                 U PATH    a file was removed
//   Y               the file system was synced
#include <dlfcn.h>
#include <fcntl.h>
#include <ftw.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

template <class Function>
Function* Next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// The recorder makes system calls directly for its own files, to bypass the functions that it
// replaces.
int RawOpen(const std::string& path, int flags) {
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path.c_str(), flags | O_CLOEXEC, 0600));
}

void RawWrite(int fd, const std::string& text) {
    if (syscall(SYS_write, fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        abort();
    }
}

std::string FromEnvironment(const char* name) {
    const char* const value = getenv(name);
    return value == nullptr ? std::string() : value;
}

struct Recorder {
    std::string directory = FromEnvironment("QUARN2_RECORD");
    std::string below = FromEnvironment("QUARN2_RECORD_BELOW");
    std::string drop = FromEnvironment("QUARN2_RECORD_DROP");
    // The ID of the thread that makes a change, 0 for none. All processes share this memory.
    std::atomic<pid_t>* owner = nullptr;

    Recorder() {
        if (directory.empty() || below.empty()) return;
        const int fd = RawOpen(directory + "/lock", O_RDWR);
        void* const shared =
            mmap(nullptr, sizeof *owner, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        if (shared == MAP_FAILED) abort();
        owner = static_cast<std::atomic<pid_t>*>(shared);
    }

    bool Watches(const std::string& path) const {
        return owner != nullptr && path.starts_with(below) &&
               (path.size() == below.size() || path[below.size()] == '/');
    }

    void Line(const std::string& text) const {
        const int fd = RawOpen(directory + "/trace", O_WRONLY | O_APPEND | O_CREAT);
        RawWrite(fd, std::to_string(getpid()) + "\t" + text + "\n");
        close(fd);
    }
};

Recorder& TheRecorder() {
    static Recorder recorder;
    return recorder;
}

// Lock for a change and its trace line, so that the lines are in the order of the changes.
class Turn {
  public:
    Turn() {
        const auto self = static_cast<pid_t>(syscall(SYS_gettid));
        for (;;) {
            pid_t other = 0;
            if (TheRecorder().owner->compare_exchange_weak(other, self)) return;
            // A killed process cannot release the lock, so the next one releases it.
            if (other != 0 && kill(other, 0) != 0) {
                TheRecorder().owner->compare_exchange_strong(other, 0);
            }
            sched_yield();
        }
    }
    ~Turn() { TheRecorder().owner->store(0); }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
};

std::string LinkTarget(const std::string& link) {
    char target[PATH_MAX];
    const ssize_t length = readlink(link.c_str(), target, sizeof target);
    return length < 0 ? std::string() : std::string(target, static_cast<std::size_t>(length));
}

std::string PathOf(int fd) { return LinkTarget("/proc/self/fd/" + std::to_string(fd)); }

// Returns the absolute path without empty, "." and ".." components. Does not resolve symbolic
// links, because the watched directory contains none.
std::string PathOf(int directory, const char* name) {
    std::string given = name;
    if (!given.starts_with('/')) {
        given.insert(0, "/");
        given.insert(0, directory == AT_FDCWD ? LinkTarget("/proc/self/cwd") : PathOf(directory));
    }
    std::string path;
    for (std::size_t begin = 0; begin < given.size();) {
        std::size_t end = given.find('/', begin);
        if (end == std::string::npos) end = given.size();
        const std::string part = given.substr(begin, end - begin);
        begin = end + 1;
        if (part.empty() || part == ".") continue;
        if (part == "..") {
            path.erase(path.rfind('/'));
        } else {
            path += "/" + part;
        }
    }
    return path;
}

bool IsWatched(int fd) {
    return TheRecorder().owner != nullptr && TheRecorder().Watches(PathOf(fd));
}

bool Exists(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0;
}

std::string Inode(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 ? std::to_string(status.st_ino) : "0";
}

std::string ContentOf(int fd) {
    // Opens the file again, because `fd` may be for writing only.
    const int reader = RawOpen("/proc/self/fd/" + std::to_string(fd), O_RDONLY);
    std::string content;
    char piece[64 * 1024];
    for (ssize_t got = 1; got > 0;) {
        got = read(reader, piece, sizeof piece);
        if (got > 0) content.append(piece, static_cast<std::size_t>(got));
    }
    close(reader);
    return content;
}

// Saves the content under a name made from its hash and size, and returns the name.
std::string Blob(int fd) {
    const std::string content = ContentOf(fd);
    std::uint64_t hash = 14695981039346656037U;
    for (const char byte : content)
        hash = (hash ^ static_cast<unsigned char>(byte)) * 1099511628211U;
    std::string name = std::to_string(hash) + "-" + std::to_string(content.size());
    const int blob =
        RawOpen(TheRecorder().directory + "/blobs/" + name, O_WRONLY | O_CREAT | O_EXCL);
    if (blob >= 0) {
        for (std::size_t done = 0; done < content.size(); done += 64 * 1024) {
            RawWrite(blob, content.substr(done, 64 * 1024));
        }
        close(blob);
    }
    return name;
}

bool IsPlain(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

void RecordContent(const char* operation, int fd) {
    const int error = errno;
    TheRecorder().Line(std::string(operation) + "\t" + Inode(fd) + "\t" + Blob(fd));
    errno = error;
}

// Larger files are skipped. The tests' own files are small, but the program itself is also below
// the watched directory.
constexpr off_t kMaxFileSize = 1 << 20;

int RecordTree(const char* path, const struct stat* status, int type, struct FTW* /*place*/) {
    if (type != FTW_F || status->st_size > kMaxFileSize) return 0;
    const int fd = RawOpen(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    if (fd >= 0 && IsPlain(fd)) RecordContent("W", fd);
    if (fd >= 0) close(fd);
    return 0;
}

// Makes a call that changes the content of an open file, and records the new content.
template <class Call>
auto Writing(int fd, Call call) {
    if (!IsWatched(fd) || !IsPlain(fd)) return call();
    const Turn turn;
    const auto result = call();
    if (result >= 0) RecordContent("W", fd);
    return result;
}

// Makes a call that creates, renames or removes a directory entry, and records the change.
template <class Call>
int Naming(const std::string& path, const std::string& line, Call call) {
    if (!TheRecorder().Watches(path)) return call();
    const Turn turn;
    const int result = call();
    if (result == 0) TheRecorder().Line(line);
    return result;
}

template <class Call>
int Opening(int directory, const char* name, int flags, Call call) {
    const bool changes = (flags & (O_CREAT | O_TRUNC)) != 0;
    if (!changes || TheRecorder().owner == nullptr) return call();
    const std::string path = PathOf(directory, name);
    if (!TheRecorder().Watches(path)) return call();
    const Turn turn;
    const bool existed = Exists(path);
    const int fd = call();
    if (fd < 0) return fd;
    const int error = errno;
    if (!existed) TheRecorder().Line("C\t" + path + "\t" + Inode(fd));
    if ((flags & O_TRUNC) != 0) RecordContent("W", fd);
    errno = error;
    return fd;
}

template <class Call>
int Syncing(int fd, Call call) {
    if (!IsWatched(fd)) return call();
    const bool plain = IsPlain(fd);
    if (TheRecorder().drop.find(plain ? "file" : "dir") != std::string::npos) return 0;
    const Turn turn;
    const int result = call();
    if (result != 0) return result;
    if (plain) {
        RecordContent("S", fd);
    } else {
        TheRecorder().Line("D\t" + PathOf(fd));
    }
    return 0;
}

}  // namespace

extern "C" {

int open(const char* path, int flags, ...) {
    static auto* const next = Next<int(const char*, int, ...)>("open");
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return Opening(AT_FDCWD, path, flags, [&] { return next(path, flags, mode); });
}

int openat(int directory, const char* path, int flags, ...) {
    static auto* const next = Next<int(int, const char*, int, ...)>("openat");
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return Opening(directory, path, flags, [&] { return next(directory, path, flags, mode); });
}

ssize_t write(int fd, const void* data, size_t size) {
    static auto* const next = Next<ssize_t(int, const void*, size_t)>("write");
    return Writing(fd, [&] { return next(fd, data, size); });
}

ssize_t pwrite(int fd, const void* data, size_t size, off_t offset) {
    static auto* const next = Next<ssize_t(int, const void*, size_t, off_t)>("pwrite");
    return Writing(fd, [&] { return next(fd, data, size, offset); });
}

ssize_t copy_file_range(int from, off64_t* from_offset, int to, off64_t* to_offset, size_t size,
                        unsigned flags) {
    static auto* const next =
        Next<ssize_t(int, off64_t*, int, off64_t*, size_t, unsigned)>("copy_file_range");
    return Writing(to, [&] { return next(from, from_offset, to, to_offset, size, flags); });
}

ssize_t sendfile(int to, int from, off_t* offset, size_t size) noexcept {
    static auto* const next = Next<ssize_t(int, int, off_t*, size_t)>("sendfile");
    return Writing(to, [&] { return next(to, from, offset, size); });
}

int ioctl(int fd, unsigned long request, ...) noexcept {
    static auto* const next = Next<int(int, unsigned long, ...)>("ioctl");
    va_list rest;
    va_start(rest, request);
    void* const argument = va_arg(rest, void*);
    va_end(rest);
    return Writing(fd, [&] { return next(fd, request, argument); });
}

int ftruncate(int fd, off_t size) noexcept {
    static auto* const next = Next<int(int, off_t)>("ftruncate");
    return Writing(fd, [&] { return next(fd, size); });
}

int rename(const char* from, const char* to) noexcept {
    static auto* const next = Next<int(const char*, const char*)>("rename");
    const std::string source = PathOf(AT_FDCWD, from);
    return Naming(source, "R\t" + source + "\t" + PathOf(AT_FDCWD, to),
                  [&] { return next(from, to); });
}

int unlink(const char* name) noexcept {
    static auto* const next = Next<int(const char*)>("unlink");
    const std::string path = PathOf(AT_FDCWD, name);
    return Naming(path, "U\t" + path, [&] { return next(name); });
}

int unlinkat(int directory, const char* name, int flags) noexcept {
    static auto* const next = Next<int(int, const char*, int)>("unlinkat");
    const std::string path = PathOf(directory, name);
    const std::string operation = (flags & AT_REMOVEDIR) != 0 ? "X\t" : "U\t";
    return Naming(path, operation + path, [&] { return next(directory, name, flags); });
}

int remove(const char* name) noexcept {
    struct stat status {};
    const bool directory = lstat(name, &status) == 0 && S_ISDIR(status.st_mode);
    return directory ? rmdir(name) : unlink(name);
}

int mkdir(const char* name, mode_t mode) noexcept {
    static auto* const next = Next<int(const char*, mode_t)>("mkdir");
    const std::string path = PathOf(AT_FDCWD, name);
    return Naming(path, "M\t" + path, [&] { return next(name, mode); });
}

int rmdir(const char* name) noexcept {
    static auto* const next = Next<int(const char*)>("rmdir");
    const std::string path = PathOf(AT_FDCWD, name);
    return Naming(path, "X\t" + path, [&] { return next(name); });
}

int fsync(int fd) {
    static auto* const next = Next<int(int)>("fsync");
    return Syncing(fd, [&] { return next(fd); });
}

int fdatasync(int fd) {
    static auto* const next = Next<int(int)>("fdatasync");
    return Syncing(fd, [&] { return next(fd); });
}

int syncfs(int fd) noexcept {
    static auto* const next = Next<int(int)>("syncfs");
    if (!IsWatched(fd)) return next(fd);
    if (TheRecorder().drop.find("file") != std::string::npos) return 0;
    const Turn turn;
    const int result = next(fd);
    if (result != 0) return result;
    nftw(TheRecorder().below.c_str(), RecordTree, 16, FTW_PHYS);
    TheRecorder().Line("Y");
    return 0;
}
}
