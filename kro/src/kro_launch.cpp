#include "kro/kro_launch.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <climits>

#include "kro/kro_env.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"

namespace kro_launch {

std::string FindInstallRoot() {
    char self[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self);
    if (length <= 0 || static_cast<std::size_t>(length) == sizeof self) {
        return kro_env::InstallRoot();
    }
    const std::string directory =
        kro_file::Path(std::string(self, static_cast<std::size_t>(length)));
    if (kro_file::Name(directory) != "sbin") return kro_env::InstallRoot();
    return kro_file::Path(directory);
}

void DisableCoreDumps() {
    // RLIMIT_CORE does not stop a core dump that is piped to a program; PR_SET_DUMPABLE does.
    const rlimit none = {0, 0};
    if (prctl(PR_SET_DUMPABLE, 0) != 0 || setrlimit(RLIMIT_CORE, &none) != 0) {
        throw kro_err::FromErrno("cannot switch core dumps off");
    }
}

void OpenMissingStandardStreams() {
    int fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO) fd = open("/dev/null", O_RDWR);
    if (fd >= 0) close(fd);
}

}  // namespace kro_launch
