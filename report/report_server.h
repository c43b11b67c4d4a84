// The server of a storage as other processes see it: the pid file and its locks, and the state
// file.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "quarn2_cp2_server_start.h"

enum class ServerStatus {
    kNone,      // no server
    kChanging,  // a server is starting or ending
    kRuns,      // a server is ready
};

// The content of a server's files, and the locks on them.
struct ServerFacts {
    std::optional<pid_t> holder;  // the process that holds the pid file's record lock
    bool is_locked = false;       // a process holds the pid file's flock
    PidFile pid_file;
    std::string pid_file_time;                 // when the pid file was written; "" when missing
    std::map<std::string, std::string> state;  // the state file; empty when missing
    std::string state_fault;                   // why the state file cannot be read
};

// The conclusions from ServerFacts.
struct ServerReport {
    ServerStatus status = ServerStatus::kNone;
    std::string pid;
    std::string since;
    std::string date;
    std::string storage;     // the identity; "" when the state file is not the server's
    std::string size_limit;  // given at the start of the server; "" when no server is ready
    std::string count_limit;
    std::optional<std::int64_t> reserved;  // set only if the state file contains it
    // Describes a state file of a server that no longer runs; empty when there is none.
    std::string stale;
};

// Reads the files, relative to the install root. Takes no lock.
ServerFacts ReadServerFacts(const std::string& storage);

ServerReport Conclude(const ServerFacts& facts);
