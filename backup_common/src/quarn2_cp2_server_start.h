// Starts the size control server of a storage, or uses the running one. The --server command uses
// this code. The server itself is a daemon process, which shares the files below with the --server
// commands.
#pragma once

#include <set>
#include <string>

#include "kro/kro_args.h"
#include "kro/kro_file.h"
#include "kro/res_handle.h"

// The files that the --server commands and the daemon of one storage share, relative to the install
// root.
struct ServerFiles {
    explicit ServerFiles(const std::string& storage);

    std::string pid;   // locked while a server runs
    std::string lock;  // --server commands lock it to keep the server alive
};

// Opens a lock file and creates it when it is missing. When that fails, sets errno and returns an
// empty handle.
ResHandle OpenLockFile(const std::string& path);

// Waits for the lock on the file at `path` and returns the descriptor that has the lock. If the
// file is replaced during the wait, locks the new file. Throws std::runtime_error when the file
// cannot be opened or locked.
ResHandle Quarn2Lock(const std::string& path, bool exclusive);

// Waits until the storage has no server, and takes the exclusive lock on its lock file. A server
// that no --server command keeps alive ends during this wait. No server can start while the lock is
// held.
ResHandle LockWithoutServer(const ServerFiles& files);

// The limits and nodes of a command line as one text. A --server command uses a running server only
// if this text is the same for both.
std::string ControlParams(const kro_args::ResultPtr& result, const std::set<std::string>& nodes);

// ControlParams of this --server command. Contains the nodes only when the storage is local.
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

// Starts the storage's server if none runs, and waits until a server with the requested parameters
// is ready. Then closes standard output. The server runs as long as a process holds the returned
// lock.
ResHandle SizeControlServerStart(kro_args::ResultPtr args, ResHandle&& handle);

// The data that the --server command passes to the daemon besides the command line.
struct DaemonStart {
    std::string server_key;
    bool is_storage_checked = false;  // see IsRightStorageAtStart
};

// Runs the daemon in the grandchild process of the --server command. Ends the process when the
// daemon has finished.
[[noreturn]] void RunDaemon(const kro_args::ResultPtr& args, kro_file::Lock& pid_lock,
                            const DaemonStart& start);
