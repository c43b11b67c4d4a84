// The daemon process of the size control server: its start, its event loop and its end.

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "kro/kro_clock.h"
#include "kro/kro_date.h"
#include "kro/kro_err.h"
#include "kro/kro_log.h"
#include "kro/kro_proc.h"
#include "kro/str.h"
#include "quarn2/expect.h"
#include "quarn2/token.h"
#include "quarn2_cp2_ledger.h"
#include "quarn2_cp2_ledger_markers.h"
#include "quarn2_cp2_misc.h"
#include "quarn2_cp2_misc_cleanup.h"
#include "quarn2_cp2_misc_events.h"
#include "quarn2_cp2_misc_identity.h"
#include "quarn2_cp2_misc_storage.h"
#include "quarn2_cp2_server_model.h"
#include "quarn2_cp2_server_nodes.h"
#include "quarn2_cp2_server_start.h"
#include "quarn2_cp2_server_state.h"

namespace {

constexpr kro_log::Module kLog("main");
constexpr std::chrono::milliseconds kMaxRun{1000};

Event ServerEvent(EventKind kind, const GlobalSizeControl& control) {
    Event event;
    event.kind = kind;
    event.used = control.MaxUsedSize();
    event.limit = control.LimitOrNothing();
    return event;
}

StateFigures FiguresOf(const GlobalSizeControl& control) {
    StateFigures figures;
    figures.limit = control.LimitOrNothing();
    figures.used = control.MaxUsedSize();
    figures.max_count = control.max_count;
    for (const auto& [key, desc] : control.storages) {
        figures.reserved = SumOfSizes(figures.reserved, desc.reserved);
        figures.unfinished = std::max(figures.unfinished, desc.unfinished);
    }
    return figures;
}

// Writes the event of a server that ended because of an error.
void WriteFailedServer(const char* error) {
    Event event;
    event.kind = EventKind::kServerEnded;
    event.detail = error;
    WriteEvent(std::move(event));
}

class Daemon {
  public:
    Daemon(kro_args::ResultPtr args, kro_file::Lock& pid_lock, DaemonStart start)
        : args_(std::move(args)),
          files_(args_->Param("storage", -1)),
          state_file_(args_->Param("storage", -1)),
          pid_lock_(pid_lock),
          start_(std::move(start)),
          date_(ReferenceDate(args_->Param("date", -1))) {}

    void Run() {
        auto loop = std::make_unique<quarn2::Expect>();
        auto control = std::make_unique<GlobalSizeControl>(*args_);
        loop->Add(kro_proc::WatchTermination(), POLLIN, signal_);
        control->is_storage_checked = start_.is_storage_checked;
        GlobalSizeControl::StorageDesc& desc = control->AddStorage(GetStorageByEnv());
        auto nodes = std::make_unique<NodeSessions>(desc, *loop, args_);
        nodes->Start(kro_date::SteadyClock::now());
        WritePidFile();
        const std::string path = args_->Param("path", -1);
        MigrateMarkers(args_->Param("storage", -1));
        if (control->is_storage_checked) CleanUp(path);
        control->unfinished =
            UnfinishedBackups(OwnLedger(), StorageIdentity(TokenByEnv()), *desc.storage);
        control->Init(date_);
        control->FinishDeletions();
        control->FitIntoLimits();
        // Writes the state file before AnnounceReady, because --server commands read the state file
        // as soon as the server is ready.
        WriteState(*control);
        AnnounceReady();
        WriteEvent(ServerEvent(EventKind::kServerStarted, *control));
        Serve(*loop, *nodes, *control);
        // Empties the pid file, so that new --server commands wait for the end of this server
        // instead of using it. If this server holds the exclusive lock on the lock file, new
        // --server commands already wait for that lock.
        if (!is_alone_) pid_lock_.Write("");
        control->DropByCount(control->full_limit, control->daily_limit);
        const bool may_delete = control->is_storage_checked;
        const Event ended = ServerEvent(EventKind::kServerEnded, *control);
        nodes.reset();
        control.reset();
        loop.reset();
        if (may_delete) CleanUp(path);
        WriteEvent(ended);
        RemoveFiles();
    }

  private:
    // Reads the current date only once, so that the pid file and the scan have the same date even
    // around midnight.
    static std::string ReferenceDate(const std::string& date) {
        return date.empty() || date == "custom" ? kro_date::Date::Today().AsDate() : date;
    }

    PidFile Myself() const {
        return {str::Str(getpid()), date_, start_.server_key, RequestedParams(args_)};
    }

    void WritePidFile() { pid_lock_.Write(Myself().Text()); }

    // Writes the state file if the figures have changed or the last write has failed. After a
    // failure, for example on a full disk, the next call tries again.
    void WriteState(const GlobalSizeControl& control) {
        if (identity_.empty()) identity_ = StorageIdentity(TokenByEnv());
        state_file_.Update(Myself(), identity_, FiguresOf(control));
    }

    // Takes the record lock, by which --server commands recognize that this server is ready.
    void AnnounceReady() const {
        struct flock lock {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        while (fcntl(pid_lock_.fd(), F_SETLKW, &lock) != 0) {
            if (errno != EINTR) throw kro_err::FromErrno("cannot lock " + files_.pid);
        }
    }

    // Serves until no --server command holds a lock on the lock file. Also returns when a
    // termination signal arrives, or when the attempt to lock the file fails with an error.
    void Serve(quarn2::Expect& loop, NodeSessions& nodes, const GlobalSizeControl& control) {
        lock_file_ = OpenLockFile(files_.lock);
        if (!lock_file_) throw kro_err::FromErrno("cannot open " + files_.lock);
        while (!signal_->arrived()) {
            is_alone_ = flock(lock_file_, LOCK_EX | LOCK_NB) == 0;
            if (is_alone_) return;
            if (errno != EAGAIN && errno != EINTR) return LogUnknownCallers(errno);
            const auto next = nodes.Poll(kro_date::SteadyClock::now());
            WriteState(control);
            loop.Run(static_cast<int>(std::min(next, kMaxRun).count()));
        }
    }

    void LogUnknownCallers(int error) const {
        const std::string reason = kro_err::FromErrno("cannot lock " + files_.lock, error).what();
        KRO_LOG(kLog, 3,
                "Size control server error: %s. The server cannot determine whether a job still "
                "needs it, so it ends. Start it again for the running jobs",
                reason.c_str());
    }

    // If this process holds the exclusive lock on the lock file, new --server commands wait for
    // that lock, so the lock file is removed last. Without the exclusive lock, new --server
    // commands get a shared lock at once, so the pid file is removed last. A new server can start
    // as soon as the pid file is removed, and this process must not remove the new server's lock
    // file.
    void RemoveFiles() {
        kro_log::Close();
        state_file_.Remove();
        if (is_alone_) {
            kro_file::RemoveFile(files_.pid);
            kro_file::RemoveFile(files_.lock);
        } else {
            kro_file::RemoveFile(files_.lock);
            kro_file::RemoveFile(files_.pid);
        }
        kro_log::Close();
    }

    kro_args::ResultPtr args_;
    ServerFiles files_;
    StateFile state_file_;
    std::string identity_;  // of the storage
    kro_file::Lock& pid_lock_;
    DaemonStart start_;
    std::string date_;
    std::shared_ptr<FinishOnSignal> signal_ = std::make_shared<FinishOnSignal>();
    ResHandle lock_file_;
    bool is_alone_ = false;  // no --server command has a lock on the lock file
};

}  // namespace

void RunDaemon(const kro_args::ResultPtr& args, kro_file::Lock& pid_lock,
               const DaemonStart& start) {
    kro_log::Init("quarn2_cp", 5);
    SetOwnLedger(args->Param("storage", -1));
    try {
        // The Daemon object is static, because its lock on the lock file must last until the
        // process ends.
        static std::unique_ptr<Daemon> daemon;
        daemon = std::make_unique<Daemon>(args, pid_lock, start);
        daemon->Run();
    } catch (const std::exception& error) {
        KRO_LOG(kLog, 3, "Size control server error: %s", error.what());
        WriteFailedServer(error.what());
    }
    std::exit(0);  // NOLINT(concurrency-mt-unsafe): the daemon has no thread but this one
}
