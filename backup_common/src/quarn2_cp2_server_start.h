// Making sure that a storage's server runs: the caller's side, and the files both sides meet at.
#pragma once

#include <set>
#include <string>

#include "kro/kro_args.h"
#include "kro/kro_file.h"
#include "kro/res_handle.h"

// The meeting points of one storage's callers and daemon, relative to the install root.
struct ServerFiles {
    explicit ServerFiles(const std::string& storage);

    std::string pid;   // whose lock says that a server runs
    std::string lock;  // which callers hold to keep it alive
};

// Opens a lock file, made when it is missing; nothing, with errno set, when that fails.
ResHandle OpenLockFile(const std::string& path);

// Takes the lock on the file that `path` names at that moment and returns its descriptor.
// std::runtime_error when it cannot be opened or locked.
ResHandle Quarn2Lock(const std::string& path, bool exclusive);

// Takes the exclusive lock of a storage at a moment when no server of it runs. A server that no job
// holds any more ends while this call waits. As long as the lock is held no server can start.
ResHandle LockWithoutServer(const ServerFiles& files);

// Limits and nodes as one text, to tell whether a running server does what a call asks for.
std::string ControlParams(const kro_args::ResultPtr& result, const std::set<std::string>& nodes);

// The same for this call: nodes count on a local storage only.
std::string RequestedParams(const kro_args::ResultPtr& args);

// What the daemon writes into its pid file.
struct PidFile {
    std::string pid;
    std::string date;
    std::string key;
    std::string params;

    std::string Text() const;
    static PidFile Parse(std::string text);
};

// Starts the storage's server if none runs and waits until one serves this call. Closes standard
// output then. The server lives as long as the returned lock is held, by this process or another.
ResHandle SizeControlServerStart(kro_args::ResultPtr args, ResHandle&& handle);

// What the caller gives to the daemon besides its arguments.
struct DaemonStart {
    std::string server_key;
    bool is_storage_checked = false;  // see IsRightStorageAtStart
};

// The daemon's life, from its first step in the grandchild on; ends the process.
[[noreturn]] void RunDaemon(const kro_args::ResultPtr& args, kro_file::Lock& pid_lock,
                            const DaemonStart& start);
