// Performs many storage operations with several backends in parallel.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "kro/kro_thread.h"
#include "quarn2/storage.h"
#include "quarn2_backend/storage_backend.h"
#include "storage/outage.h"

namespace quarn2 {

struct ManyTask {
    // Performs the operation with this backend, on any thread. Throws kro_err::Error when the
    // operation fails. The observer is null when the caller does not observe the progress.
    std::function<void(StorageBackend&, TransferObserver*)> run;
    // Receives the result on the thread of the caller.
    std::function<void(const FileError&)> report;
};

// The tasks of one call of DownloadMany, RemoveMany or ListMany; storage.h describes how they are
// performed. Starts threads only for a long list. If the list is short or the limit is one request,
// performs the tasks on the caller's thread. All threads end before Run returns or throws.
class ManyTasks {
  public:
    using Next = std::function<std::optional<ManyTask>()>;
    using Open = std::function<std::unique_ptr<StorageBackend>()>;

    struct Workers {
        StorageBackend& own;  // the backend for the thread of the caller
        // Opens a backend for a thread, on that thread. May be null when `max` is 1.
        Open open;
        std::size_t max = 1;
        // True when the first thread uses `own`, false when every thread opens a backend.
        bool share_own = true;
    };

    ManyTasks(Workers workers, TransferObserver* observer, Next next);
    ~ManyTasks();
    ManyTasks(const ManyTasks&) = delete;
    ManyTasks& operator=(const ManyTasks&) = delete;

    void Run();

  private:
    class Relay;
    struct Finished {
        ManyTask task;
        FileError error;
    };
    // Calls of the observer that the worker threads queue and the caller's thread executes.
    struct Observed {
        std::vector<std::int64_t> begun;
        std::int64_t bytes = 0;
        bool any() const noexcept { return !begun.empty() || bytes > 0; }
    };

    void Fill();
    void StartThreads();
    void RunHere();
    void Collect();

    void Work(bool is_first);
    void PerformAll(bool is_first);
    std::optional<ManyTask> Take();
    std::optional<ManyTask> NextForCaller();
    void Add(ManyTask task);
    void Finish(ManyTask task, FileError error);
    void Requeue(ManyTask task);
    void Stop() noexcept;

    Workers workers_;
    TransferObserver* observer_;
    Next next_;
    std::size_t outstanding_ = 0;  // tasks that are not reported yet
    std::list<kro_thread::Handle> threads_;
    bool no_more_threads_ = false;

    // The mutex protects all following members.
    std::mutex mutex_;
    std::condition_variable for_threads_;
    std::condition_variable for_caller_;
    std::deque<ManyTask> queue_;
    std::vector<Finished> finished_;
    Observed observed_;
    Outage outage_;
    std::size_t active_ = 0;  // threads that have not ended
    bool stopped_ = false;
    std::exception_ptr failure_;
};

}  // namespace quarn2
