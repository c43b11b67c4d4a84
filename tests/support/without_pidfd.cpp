// A library for LD_PRELOAD under tools that do not support pidfd_open, such as valgrind 3.19. It
// returns a descriptor that never becomes ready. The program polls the descriptor with a
// timeout, and checks the process itself when the timeout expires.

#include <dlfcn.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>

#include <cstdarg>

namespace {

using Syscall = long (*)(long, ...);

Syscall Real() {
    static const auto real = reinterpret_cast<Syscall>(dlsym(RTLD_NEXT, "syscall"));
    return real;
}

}  // namespace

extern "C" long syscall(long number, ...) noexcept {
    if (number == SYS_pidfd_open) return eventfd(0, EFD_CLOEXEC);
    long given[6];
    va_list arguments;
    va_start(arguments, number);
    for (long& each : given) each = va_arg(arguments, long);
    va_end(arguments);
    return Real()(number, given[0], given[1], given[2], given[3], given[4], given[5]);
}
