#include "idle_backends.h"

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

// When more backends are idle, the oldest one is closed.
constexpr std::size_t kMaxIdle = 5;
// Servers close idle connections, and each idle connection takes one of their slots.
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

    // Returns null when there is none.
    std::unique_ptr<StorageBackend> Take(const BackupToken& token) {
        std::vector<Entry> old;
        const std::lock_guard lock(mutex_);
        PutAsideAfterFork();
        TakeOld(old);
        // The most recently used backend is most likely still connected.
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

    // A connection belongs to the process that opened it. Closing it in a forked child would end
    // the session of the parent, so the child only sets it aside.
    void PutAsideAfterFork() {
        if (std::exchange(process_, getpid()) == process_) return;
        std::move(entries_.begin(), entries_.end(), std::back_inserter(of_other_processes_));
        entries_.clear();
    }

    // Moves expired entries to `old`. The entries are sorted by time. The caller destroys `old`,
    // which closes the connections, after it has released the lock.
    void TakeOld(std::vector<Entry>& old) {
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

// Never destroyed, because at process exit the network libraries may already be unloaded.
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
            // Out of memory for the list: close the connection, which loses nothing.
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

std::unique_ptr<StorageBackend> TakeBackend(
    const BackupToken& token, const std::function<std::unique_ptr<StorageBackend>()>& open) {
    std::unique_ptr<StorageBackend> backend = Idle().Take(token);
    if (backend == nullptr) backend = open();
    return std::make_unique<KeptBackend>(token, std::move(backend));
}

}  // namespace quarn2
