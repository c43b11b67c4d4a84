// Starts a storage's server or joins the running one: the caller's side, and the files that callers
// and daemon share.
#pragma once

#include <set>
#include <string>

#include "kro/kro_args.h"
#include "kro/kro_file.h"
#include "kro/res_handle.h"

// The files that the callers and the daemon of one storage share, relative to the install root.
struct ServerFiles {
    explicit ServerFiles(const std::string& storage);

    std::string pid;   // locked while there is a server
    std::string lock;  // callers lock it to keep the server alive
};

// Opens a lock file and creates it when it is missing. When that fails, sets errno and returns an
// empty handle.
ResHandle OpenLockFile(const std::string& path);

// Waits for the lock on the file that `path` names when the lock is granted, and returns its
// descriptor. Throws std::runtime_error when the file cannot be opened or locked.
ResHandle Quarn2Lock(const std::string& path, bool exclusive);

// Waits until the storage has no server, and takes the exclusive lock on its lock file. A server
// without callers ends during this wait. No server can start while the lock is held.
ResHandle LockWithoutServer(const ServerFiles& files);

// Limits and nodes as one text. A call compares it with that of a running server to decide whether
// the server fits.
std::string ControlParams(const kro_args::ResultPtr& result, const std::set<std::string>& nodes);

// ControlParams of this call. Nodes count only for a local storage.
std::string RequestedParams(const kro_args::ResultPtr& args);

// The content of the daemon's pid file.
struct PidFile {
    std::string pid;
    std::string date;
    std::string key;
    std::string params;

    std::string Text() const;
    static PidFile Parse(std::string text);
};

// Starts the storage's server if none runs and waits until one serves this call. Then closes
// standard output. The server runs as long as a process holds the returned lock.
ResHandle SizeControlServerStart(kro_args::ResultPtr args, ResHandle&& handle);

// The data that the caller passes to the daemon besides its arguments.
struct DaemonStart {
    std::string server_key;
    bool is_storage_checked = false;  // see IsRightStorageAtStart
};

// Runs the daemon, from its first step in the grandchild on. Ends the process.
[[noreturn]] void RunDaemon(const kro_args::ResultPtr& args, kro_file::Lock& pid_lock,
                            const DaemonStart& start);
