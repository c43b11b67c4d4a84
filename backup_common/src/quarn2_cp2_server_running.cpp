#include "quarn2_cp2_server_running.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstdio>
#include <vector>

#include "kro/kro_file.h"
#include "kro/res_handle.h"
#include "kro/str.h"
#include "quarn2_cp2_misc.h"

std::optional<pid_t> FindServer(const std::string& pid_file) {
    const ResHandle file(open(pid_file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) return std::nullopt;
    struct flock query {};
    query.l_type = F_WRLCK;
    query.l_whence = SEEK_SET;
    if (fcntl(file, F_GETLK, &query) != 0 || query.l_type != F_WRLCK) return std::nullopt;
    return query.l_pid;
}

bool IsPidFileLocked(const std::string& pid_file) {
    struct stat status {};
    if (stat(pid_file.c_str(), &status) != 0) return false;
    // Example of a line of /proc/locks: "1: FLOCK  ADVISORY  WRITE 1234 08:01:131 0 EOF".
    char place[64];
    std::snprintf(place, sizeof place, " %02x:%02x:%llu ", major(status.st_dev),
                  minor(status.st_dev), static_cast<unsigned long long>(status.st_ino));
    std::string locks = kro_file::ReadE("/proc/locks");
    while (!locks.empty()) {
        const std::string line = str::GetWord(locks, "\n");
        if (line.find("FLOCK") != line.npos && line.find(place) != line.npos) return true;
    }
    return false;
}

PidFile ReadPidFile(const std::string& path) {
    const ResHandle file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return file ? PidFile::Parse(Read(file)) : PidFile();
}
