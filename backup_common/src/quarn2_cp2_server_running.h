// Finds the running server of a storage. These functions take no lock, so they never delay a job.
// Used by --server commands and quarn2_report.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "quarn2_cp2_server_start.h"

// Returns the process that holds the record lock on the pid file. A server takes this lock when it
// is ready.
std::optional<pid_t> FindServer(const std::string& pid_file);

// True when a process holds the flock on the pid file: a server is starting, ready or ending.
// Searches the kernel's list of locks, which identifies a file by device and inode. On a file
// system whose device number in this list differs from that of stat, such as btrfs, returns false.
bool IsPidFileLocked(const std::string& pid_file);

// The content of the pid file; empty when it cannot be read.
PidFile ReadPidFile(const std::string& path);
