#include "faults.h"

#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace {

faults::Fork fork_kind = faults::Fork::kReal;
int fork_status = 0;
std::function<void()> on_flock;

bool Take(int& count) {
    if (count <= 0) return false;
    --count;
    errno = faults::ThePlan().error;
    return true;
}

}  // namespace

faults::Plan& faults::ThePlan() {
    static Plan plan;
    return plan;
}

void faults::OnFlock(std::function<void()> function) { on_flock = std::move(function); }

std::atomic<int>& faults::LstatCalls() {
    static std::atomic<int> calls{0};
    return calls;
}

void faults::SetFork(Fork what, int status) {
    fork_kind = what;
    fork_status = status;
}

extern "C" {

int __real_lstat(const char* path, struct stat* status);
int __real_flock(int fd, int operation);
int __real_socket(int domain, int type, int protocol);
int __real_listen(int fd, int backlog);
ssize_t __real_send(int fd, const void* data, size_t size, int flags);
pid_t __real_fork(void);
int __real_rename(const char* from, const char* to);

int __wrap_lstat(const char* path, struct stat* status) {
    ++faults::LstatCalls();
    return Take(faults::ThePlan().lstat) ? -1 : __real_lstat(path, status);
}

int __wrap_flock(int fd, int operation) {
    if (on_flock) on_flock();
    return Take(faults::ThePlan().flock) ? -1 : __real_flock(fd, operation);
}

int __wrap_socket(int domain, int type, int protocol) {
    return Take(faults::ThePlan().socket) ? -1 : __real_socket(domain, type, protocol);
}

int __wrap_listen(int fd, int backlog) {
    return Take(faults::ThePlan().listen) ? -1 : __real_listen(fd, backlog);
}

ssize_t __wrap_send(int fd, const void* data, size_t size, int flags) {
    const bool cut = Take(faults::ThePlan().send_short);
    return __real_send(fd, data, cut ? size - 1 : size, flags);
}

int __wrap_rename(const char* from, const char* to) {
    const bool fails = std::strstr(to, "/quarn2_cp.removed") != nullptr &&
                       Take(faults::ThePlan().rename_to_removed);
    return fails ? -1 : __real_rename(from, to);
}

pid_t __wrap_fork(void) {
    if (fork_kind == faults::Fork::kFails) return -1;
    const pid_t child = __real_fork();
    if (child == 0 && fork_kind == faults::Fork::kChildEnds) _exit(fork_status);
    return child;
}

}  // extern "C"
