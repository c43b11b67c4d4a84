#include "quarn2_cp2_server_start.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <optional>
#include <stdexcept>

#include "kro/kro_err.h"
#include "kro/kro_log.h"
#include "kro/kro_proc.h"
#include "kro/str.h"
#include "quarn2/token.h"
#include "quarn2_cp2_misc.h"
#include "quarn2_cp2_misc_events.h"
#include "quarn2_cp2_misc_identity.h"
#include "quarn2_cp2_misc_storage.h"
#include "quarn2_cp2_server_check.h"
#include "quarn2_cp2_server_notes.h"
#include "quarn2_cp2_server_running.h"
#include "quarn2_cp2_server_state.h"

namespace {

constexpr kro_log::Module kLog("main");
constexpr int kLockAttempts = 100;
constexpr int kStartingPause = 500;
constexpr int kOtherServerPause = 2000;
constexpr std::size_t kKeyBytes = 15;

int FlockWaiting(int fd, int operation) {
    int result = flock(fd, operation);
    while (result != 0 && errno == EINTR) result = flock(fd, operation);
    return result;
}

// Waits for the lock. Prints a message when the lock is not free.
bool LockSayingSo(int fd, const std::string& path, int operation) {
    if (FlockWaiting(fd, operation | LOCK_NB) == 0) return true;
    if (errno != EWOULDBLOCK) return false;
    PrintWaitReason(path + (operation == LOCK_EX
                                ? " is locked by another --server command or a server"
                                : " is locked by a rescan or by a server that is ending"));
    return FlockWaiting(fd, operation) == 0;
}

bool Serves(const PidFile& server, pid_t holder, const kro_args::ResultPtr& args) {
    if (server.pid != str::Str(holder) || server.params != RequestedParams(args)) return false;
    const std::string date = args->Param("date", -1);
    return date.empty() || date == "custom" || server.date == date;
}

// Closes all descriptors except for `kept`, the descriptor of the pid file. Through this
// descriptor, the daemon inherits the lock on the pid file.
bool CloseAllBut(int kept) {
    const auto number = static_cast<unsigned>(kept);
    return (kept == 0 || close_range(0, number - 1, 0) == 0) &&
           close_range(number + 1, ~0U, 0) == 0;
}

void OpenNullStreams() {
    open("/dev/null", O_RDONLY);
    open("/dev/null", O_WRONLY);
    open("/dev/null", O_WRONLY);
}

[[noreturn]] void RunIntermediateChild(const kro_args::ResultPtr& args, ResHandle& handle,
                                       kro_file::Lock& pid_lock, const DaemonStart& start) {
    kro_log::Close();
    CloseEvents();
    setpgid(0, 0);
    handle.Close();
    if (!CloseAllBut(pid_lock.fd())) _exit(1);
    OpenNullStreams();
    const pid_t daemon = fork();
    // Exits without an exception, because an exception would continue the code of the parent
    // process in this child.
    if (daemon < 0) _exit(1);
    if (daemon > 0) _exit(0);
    RunDaemon(args, pid_lock, start);
}

void StartDaemon(const kro_args::ResultPtr& args, ResHandle& handle, kro_file::Lock& pid_lock,
                 const DaemonStart& start) {
    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("Failed to fork");
    if (child == 0) RunIntermediateChild(args, handle, pid_lock, start);
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw std::runtime_error("Waitpid failed ");
    }
}

// Starts the server for one --server command, or finds a running server with the same parameters.
class Starter {
  public:
    Starter(kro_args::ResultPtr args, ResHandle&& handle)
        : args_(std::move(args)), files_(args_->Param("storage", -1)), handle_(std::move(handle)) {}

    ResHandle Run() {
        if (handle_) ShareLock();
        for (;;) {
            if (!handle_) handle_ = Quarn2Lock(files_.lock, false);
            kro_file::Lock pid_lock;
            if (pid_lock.TryLock(files_.pid, true)) {
                Start(pid_lock);
            } else if (const std::optional<pid_t> holder = FindServer(files_.pid)) {
                if (Join(*holder)) return std::move(handle_);
            } else {
                // Another process holds the lock on the pid file, but no server is ready: a server
                // is starting or ending.
                if (server_key_.empty()) PrintWaitReason("another server is starting or ending");
                kro_proc::Sleep(kStartingPause);
            }
        }
    }

  private:
    // Converts the exclusive lock of a rescan to a shared one. The exclusive lock would block every
    // other --server command for as long as this one keeps the server alive.
    void ShareLock() {
        if (FlockWaiting(handle_, LOCK_SH) == 0 && kro_file::IsSameFile(handle_, files_.lock))
            return;
        handle_.Close();
        handle_.Reset();
    }

    void Start(kro_file::Lock& pid_lock) {
        handle_.Close();
        handle_ = Quarn2Lock(files_.lock, false);
        if (!server_key_.empty()) {
            std::fputs(
                "The size control server ended while it was starting; "
                "see var/quarn2_cp.log for the reason.\n",
                stderr);
            throw std::runtime_error("Failed to start size control server");
        }
        server_key_ = str::base64::Encode(str::Random(kKeyBytes));
        const bool is_checked = IsRightStorageAtStart(args_->Param("path", -1));
        StartDaemon(args_, handle_, pid_lock, {server_key_, is_checked});
        pid_lock.Release();
        KRO_LOG(kLog, 5, "Size control started");
    }

    // True when the running server has this command's parameters and date. Otherwise waits a moment
    // and returns false.
    bool Join(pid_t holder) {
        const PidFile server = ReadPidFile(files_.pid);
        if (Serves(server, holder, args_)) {
            CheckSameStorage(server);
            KRO_LOG(kLog, 5, "Size control server is ready. Date: %s",
                    args_->Param("date", -1).c_str());
            CloseStandardOutput();
            return true;
        }
        KRO_LOG(kLog, 4, "Other instanse of size control server is running. Date: %s",
                server.date.c_str());
        PrintWaitReason(
            "process " + str::Str(holder) +
            " is the server of this storage and was started with another date, other limits "
            "or other nodes; this command waits until that server ends");
        handle_.Close();
        handle_.Reset();
        kro_proc::Sleep(kOtherServerPause);
        return false;
    }

    // Throws when the running server serves another storage, because its node clients would store
    // the job's files on that storage.
    void CheckSameStorage(const PidFile& server) const {
        const StateFile state(args_->Param("storage", -1));
        const std::string running = state.IdentityOf(server);
        const std::string asked = StorageIdentity(TokenByEnv());
        if (running.empty()) {
            KRO_LOG(kLog, 4, "Cant determine from '%s' which storage the running server uses",
                    state.path().c_str());
        } else if (running != asked) {
            throw std::runtime_error("the running size control server (process " + server.pid +
                                     ") uses the storage " + running +
                                     ", but BACKUP_TOKEN refers to " + asked +
                                     ": wait until that server has ended, or start a separate "
                                     "server with --storage NAME");
        }
    }

    // Closing standard output reports to the job that the server is ready. /dev/null takes its
    // descriptor number, so that no file opened later gets it.
    static void CloseStandardOutput() {
        const ResHandle null(open("/dev/null", O_WRONLY | O_CLOEXEC));
        if (!null || dup2(null, STDOUT_FILENO) < 0) close(STDOUT_FILENO);
    }

    kro_args::ResultPtr args_;
    ServerFiles files_;
    ResHandle handle_;
    std::string server_key_;
};

}  // namespace

ServerFiles::ServerFiles(const std::string& storage)
    : pid(str::Append("var/quarn2_cp.pid", storage, "#")),
      lock(str::Append("var/quarn2_cp.lock", storage, "#")) {}

ResHandle OpenLockFile(const std::string& path) {
    constexpr mode_t kMode = 0600;
    // O_NOFOLLOW: does not follow a symbolic link. O_NONBLOCK: does not wait for a named pipe.
    constexpr int kFlags = O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    return ResHandle(open(path.c_str(), kFlags, kMode));
}

ResHandle Quarn2Lock(const std::string& path, bool exclusive) {
    for (int attempt = 0; attempt < kLockAttempts; ++attempt) {
        ResHandle file = OpenLockFile(path);
        if (!file) throw std::runtime_error("Failed to open pidfile");
        if (!LockSayingSo(file, path, exclusive ? LOCK_EX : LOCK_SH)) {
            throw std::runtime_error("Failed to set shared lock");
        }
        // Another process may have removed or replaced the file while this one waited.
        if (kro_file::IsSameFile(file, path)) return file;
    }
    throw std::runtime_error("Failed to lock " + path);
}

namespace {

// True while a server runs, because a server holds the lock on the pid file from its start to its
// end.
bool HasServer(const std::string& pid_file) {
    kro_file::Lock lock;
    try {
        return !lock.TryLock(pid_file, false);
    } catch (const kro_err::Error& error) {
        if (error.kind() != kro_err::Kind::kNotFound) throw;
        return false;
    }
}

}  // namespace

ResHandle LockWithoutServer(const ServerFiles& files) {
    for (bool is_first = true;; is_first = false) {
        ResHandle handle = Quarn2Lock(files.lock, true);
        if (!HasServer(files.pid)) return handle;
        if (is_first) KRO_LOG(kLog, 5, "Waiting for the end of the size control server");
        // The server tries to get this lock once a second, and ends when it has the lock.
        handle.Close();
        kro_proc::Sleep(kStartingPause);
    }
}

std::string ControlParams(const kro_args::ResultPtr& result, const std::set<std::string>& nodes) {
    return result->Param("size-limit", -1) + "\n" + result->Param("count-limit", -1) + "\n" +
           str::Join(nodes, "\n");
}

std::string RequestedParams(const kro_args::ResultPtr& args) {
    std::set<std::string> nodes;
    if (TokenByEnv().IsLocal()) {
        const std::vector<std::string> given = args->Params("node");
        nodes.insert(given.begin(), given.end());
    }
    return ControlParams(args, nodes);
}

std::string PidFile::Text() const { return pid + "\n" + date + "\n" + key + "\n" + params; }

PidFile PidFile::Parse(std::string text) {
    PidFile file;
    file.pid = str::GetWord(text, "\n");
    file.date = str::GetWord(text, "\n");
    file.key = str::GetWord(text, "\n");
    file.params = text;
    return file;
}

ResHandle SizeControlServerStart(kro_args::ResultPtr args, ResHandle&& handle) {
    KRO_LOG(kLog, 8, "ResHandle SizeControlServerStart(kro_args::ResultPtr, ResHandle&&)");
    return Starter(std::move(args), std::move(handle)).Run();
}
