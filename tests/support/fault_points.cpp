#include "fault_points.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace fault {

namespace {

Control* control = nullptr;
Role role = Role::kCommand;

bool Has(std::uint32_t set, std::uint32_t bit) noexcept { return (set & bit) != 0; }

// Derives the role of the process from argv[1]: "--server", "--client" or another command.
Role RoleOfCommandLine() noexcept {
    char line[4096] = {};
    const auto fd = syscall(SYS_openat, AT_FDCWD, "/proc/self/cmdline", O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) return Role::kCommand;
    const auto got = syscall(SYS_read, fd, line, sizeof line - 1);
    syscall(SYS_close, fd);
    if (got <= 0) return Role::kCommand;
    const char* const second = line + strlen(line) + 1;
    if (strcmp(second, "--server") == 0) return Role::kCaller;
    if (strcmp(second, "--client") == 0) return Role::kClient;
    return Role::kCommand;
}

const char* NameOf(Role who) noexcept {
    switch (who) {
        case Role::kCommand:
            return "command";
        case Role::kCaller:
            return "caller";
        case Role::kBetween:
            return "between";
        case Role::kDaemon:
            return "daemon";
        case Role::kStarter:
            return "starter";
        case Role::kClient:
            return "client";
    }
    return "?";
}

// Makes system calls directly, because calls of the wrapped functions would be counted.
__attribute__((constructor)) void Begin() noexcept {
    const char* const path = getenv("QUARN2_FAULT_FILE");
    if (path == nullptr || *path == '\0') return;
    const auto fd = syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC, 0);
    if (fd < 0) return;
    constexpr std::size_t kSize = sizeof(Control) + kEntries * kEntrySize;
    void* const memory =
        mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, static_cast<int>(fd), 0);
    syscall(SYS_close, fd);
    if (memory == MAP_FAILED) return;
    role = RoleOfCommandLine();
    control = static_cast<Control*>(memory);
}

void Note(std::uint64_t number, const char* call, Place place) noexcept {
    if (number > kEntries) return;
    char found[128] = "";
    if (place.path == nullptr && place.fd >= 0) {
        char link[32];
        snprintf(link, sizeof link, "/proc/self/fd/%d", place.fd);
        const ssize_t length = readlink(link, found, sizeof found - 1);
        found[length < 0 ? 0 : length] = '\0';
        place.path = found;
    }
    auto* const entries = reinterpret_cast<char*>(control + 1);
    snprintf(entries + (number - 1) * kEntrySize, kEntrySize, "%s %s %s", NameOf(role), call,
             place.path == nullptr ? "-" : place.path);
}

}  // namespace

Action Reach(Kind kind, const char* call, Place place) noexcept {
    if (control == nullptr || !Has(control->kinds, static_cast<std::uint32_t>(kind)) ||
        !Has(control->roles, static_cast<std::uint32_t>(role))) {
        return Action::kNone;
    }
    const int before = errno;
    const std::uint64_t number = control->count.fetch_add(1) + 1;
    Note(number, call, place);
    errno = before;
    const bool hit =
        control->fault_at != 0 &&
        (number == control->fault_at || (control->lasting != 0 && number > control->fault_at));
    if (!hit) return Action::kNone;
    control->injected.fetch_add(1);
    if (control->action == Action::kKillBefore) Die();
    if (control->action == Action::kFail) errno = control->error;
    return control->action;
}

void Die() noexcept {
    for (;;) syscall(SYS_kill, getpid(), SIGKILL);
}

void ChangeRoleAfterFork() noexcept {
    if (role == Role::kCaller) {
        role = Role::kBetween;
    } else if (role == Role::kBetween) {
        role = Role::kDaemon;
    } else if (role == Role::kDaemon) {
        role = Role::kStarter;
    }
}

bool IsQuick() noexcept { return control != nullptr && control->quick != 0; }

bool MayAdvanceClock() noexcept { return role != Role::kClient; }

bool IsFile(int fd) noexcept {
    const int before = errno;
    struct stat status {};
    const bool is_file = fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
    errno = before;
    return is_file;
}

}  // namespace fault
