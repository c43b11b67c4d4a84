#include "storage/idle_backends.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <utility>
#include <vector>

#include "kro/kro_clock.h"
#include "kro/kro_err.h"

namespace quarn2 {

namespace {

using Clock = kro_date::SteadyClock;

// The maximum number of idle backends in a process. Beyond this number, the oldest backend is
// closed.
constexpr std::size_t kMaxIdle = 5;
// The time after which an idle backend is closed. Servers limit the number of connections and close
// idle connections themselves.
constexpr std::chrono::seconds kMaxIdleTime(30);

class IdleBackends {
  public:
    void Keep(const BackupToken& token, std::unique_ptr<StorageBackend> backend) {
        std::vector<Entry> old;
        const std::lock_guard lock(mutex_);
        PutAsideAfterFork();
        if (entries_.size() >= kMaxIdle) {
            old.push_back(std::move(entries_.front()));
            entries_.erase(entries_.begin());
        }
        entries_.push_back({token, std::move(backend), Clock::now()});
    }

    // Returns an idle backend of the token, or null when no backend of this token is idle.
    std::unique_ptr<StorageBackend> Take(const BackupToken& token) {
        std::vector<Entry> old;
        const std::lock_guard lock(mutex_);
        PutAsideAfterFork();
        CollectOld(old);
        // Search from the end of the list, because the server has most likely not yet closed the
        // most recently used connection.
        const auto found = std::find_if(entries_.rbegin(), entries_.rend(),
                                        [&](const Entry& entry) { return entry.token == token; });
        if (found == entries_.rend()) return nullptr;
        std::unique_ptr<StorageBackend> backend = std::move(found->backend);
        entries_.erase(std::next(found).base());
        return backend;
    }

  private:
    struct Entry {
        BackupToken token;
        std::unique_ptr<StorageBackend> backend;
        Clock::time_point since;
    };

    // In a forked child, moves the backends of the parent process to a separate list, where they
    // stay unused. The child must not close their connections, because that would end the sessions
    // of the parent.
    void PutAsideAfterFork() {
        if (std::exchange(process_, getpid()) == process_) return;
        std::move(entries_.begin(), entries_.end(), std::back_inserter(of_other_processes_));
        entries_.clear();
    }

    // Moves expired idle backends from entries_, which is sorted by time, to `old`. Keep and Take
    // destroy `old`, which closes the connections, after they have released the mutex.
    void CollectOld(std::vector<Entry>& old) {
        const auto first_young = std::find_if(entries_.begin(), entries_.end(), [](const Entry& e) {
            return Clock::now() - e.since < kMaxIdleTime;
        });
        std::move(entries_.begin(), first_young, std::back_inserter(old));
        entries_.erase(entries_.begin(), first_young);
    }

    std::mutex mutex_;
    pid_t process_ = getpid();
    std::vector<Entry> entries_;
    std::vector<Entry> of_other_processes_;
};

// The object is never destroyed, because the network libraries can already be unloaded when the
// process exits.
IdleBackends& Idle() {
    static IdleBackends& idle = *new IdleBackends;
    return idle;
}

class KeptBackend final : public StorageBackend {
  public:
    KeptBackend(BackupToken token, std::unique_ptr<StorageBackend> backend)
        : token_(std::move(token)), backend_(std::move(backend)) {}

    ~KeptBackend() override {
        if (failed_) return;
        try {
            Idle().Keep(token_, std::move(backend_));
        } catch (const std::exception&) {
            // If there is not enough memory to keep the idle backend, close its connection. The
            // next AcquireBackend opens a new one.
            backend_.reset();
        }
    }

    bool Put(const std::string& name, ByteSource& source) override {
        return Watched([&] { return backend_->Put(name, source); });
    }
    void Get(const std::string& name, ByteSink& sink) override {
        Watched([&] { backend_->Get(name, sink); });
    }
    void Remove(const std::string& name) override {
        Watched([&] { backend_->Remove(name); });
    }
    Errors RemoveMany(std::span<const std::string> names) override {
        Errors errors = Watched([&] { return backend_->RemoveMany(names); });
        for (const std::optional<kro_err::Error>& error : errors) {
            failed_ = failed_ || (error && error->kind() != kro_err::Kind::kNotFound);
        }
        return errors;
    }
    std::size_t RemovalBatch() const override { return backend_->RemovalBatch(); }
    void RemoveDir(const std::string& name) override {
        Watched([&] { backend_->RemoveDir(name); });
    }
    void SyncRemovals(const std::string& name) override {
        Watched([&] { backend_->SyncRemovals(name); });
    }
    void MakeDir(const std::string& name) override {
        Watched([&] { backend_->MakeDir(name); });
    }
    std::vector<std::string> List(const std::string& name) override {
        return Watched([&] { return backend_->List(name); });
    }
    std::vector<ListedEntry> ListSizes(const std::string& name) override {
        return Watched([&] { return backend_->ListSizes(name); });
    }
    std::optional<std::vector<ListedEntry>> ListAllFiles() override {
        return Watched([&] { return backend_->ListAllFiles(); });
    }
    void Clear() override {
        Watched([&] { backend_->Clear(); });
    }

  private:
    template <class Action>
    std::invoke_result_t<Action> Watched(const Action& action) {
        try {
            return action();
        } catch (const kro_err::Error& error) {
            failed_ = failed_ || error.kind() != kro_err::Kind::kNotFound;
            throw;
        } catch (...) {
            failed_ = true;
            throw;
        }
    }

    BackupToken token_;
    std::unique_ptr<StorageBackend> backend_;
    bool failed_ = false;
};

}  // namespace

std::unique_ptr<StorageBackend> AcquireBackend(
    const BackupToken& token, const std::function<std::unique_ptr<StorageBackend>()>& open) {
    std::unique_ptr<StorageBackend> backend = Idle().Take(token);
    if (backend == nullptr) backend = open();
    return std::make_unique<KeptBackend>(token, std::move(backend));
}

}  // namespace quarn2
