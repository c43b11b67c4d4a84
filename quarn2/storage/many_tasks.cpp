#include "storage/many_tasks.h"

#include <algorithm>
#include <system_error>

#include "kro/kro_err.h"

namespace quarn2 {

namespace {

using kro_err::Error;
using kro_err::Kind;

// The number of tasks per thread. A new connection costs several round trips, so an additional
// thread saves time only if it performs several tasks.
constexpr std::size_t kTasksPerThread = 4;

// Performs the task and returns its error.
FileError Perform(const ManyTask& task, StorageBackend& backend, TransferObserver* observer) {
    try {
        task.run(backend, observer);
        return std::nullopt;
    } catch (const Error& error) {
        return error;
    }
}

// Returns true for the errors that a server may report when its connection limit is reached.
bool MayRefuseConnection(const FileError& error) {
    return error && (error->kind() == Kind::kUnavailable || error->kind() == Kind::kUnauthorized);
}

bool HasAnswered(const FileError& error) { return !error || error->kind() == Kind::kNotFound; }

}  // namespace

// Passes the progress of a transfer to the thread of the caller, and ends the transfer when the
// call was cancelled.
class ManyTasks::Relay final : public TransferObserver {
  public:
    explicit Relay(ManyTasks& owner) : owner_(owner) {}

    void Begin(std::int64_t size) override {
        Pass([size](Observed& observed) { observed.begun.push_back(size); });
    }
    void Advance(std::int64_t bytes) override {
        Pass([bytes](Observed& observed) { observed.bytes += bytes; });
    }

  private:
    template <class Add>
    void Pass(const Add& add) {
        {
            const std::lock_guard lock(owner_.mutex_);
            if (owner_.stopped_) throw Error(Kind::kFailed, "cancelled");
            if (owner_.observer_ == nullptr) return;
            add(owner_.observed_);
        }
        owner_.for_caller_.notify_one();
    }

    ManyTasks& owner_;
};

ManyTasks::ManyTasks(Workers workers, TransferObserver* observer, Next next)
    : workers_(std::move(workers)), observer_(observer), next_(std::move(next)) {}

ManyTasks::~ManyTasks() { Stop(); }

void ManyTasks::Run() {
    Fill();
    while (outstanding_ > 0) {
        StartThreads();
        if (threads_.empty()) {
            RunHere();
        } else {
            Collect();
        }
        Fill();
    }
}

// Fetches tasks from next_ until there are enough for all threads.
void ManyTasks::Fill() {
    const std::size_t capacity = workers_.max == 1 ? 1 : workers_.max * kTasksPerThread;
    while (outstanding_ < capacity) {
        std::optional<ManyTask> task = next_();
        if (!task) return;
        ++outstanding_;
        const std::lock_guard lock(mutex_);
        Add(std::move(*task));
    }
}

void ManyTasks::StartThreads() {
    const std::size_t wanted =
        std::min(workers_.max, (outstanding_ + kTasksPerThread - 1) / kTasksPerThread);
    if (wanted < 2) return;
    while (!no_more_threads_ && threads_.size() < wanted) {
        const bool is_first = threads_.empty();
        try {
            threads_.emplace_back([this, is_first] { Work(is_first); });
            const std::lock_guard lock(mutex_);
            ++active_;
        } catch (const std::system_error&) {
            // If the system cannot create another thread, the existing threads perform all tasks.
            no_more_threads_ = true;
        }
    }
}

// Performs one task on the thread of the caller.
void ManyTasks::RunHere() {
    std::optional<ManyTask> task = NextForCaller();
    if (task) {
        FileError error = Perform(*task, workers_.own, observer_);
        Finish(std::move(*task), std::move(error));
    }
    Collect();
}

// Waits for results or progress from the threads. Reports results to the tasks and progress to the
// observer.
void ManyTasks::Collect() {
    std::vector<Finished> finished;
    Observed observed;
    {
        std::unique_lock lock(mutex_);
        for_caller_.wait(lock,
                         [this] { return !finished_.empty() || observed_.any() || failure_; });
        if (failure_) std::rethrow_exception(failure_);
        finished.swap(finished_);
        std::swap(observed, observed_);
    }
    for (const std::int64_t size : observed.begun) observer_->Begin(size);
    if (observed.bytes > 0) observer_->Advance(observed.bytes);
    for (const Finished& each : finished) {
        --outstanding_;
        each.task.report(each.error);
    }
}

// --- The worker threads and their queue ---

void ManyTasks::Work(bool is_first) {
    try {
        PerformAll(is_first);
    } catch (...) {
        const std::lock_guard lock(mutex_);
        if (!failure_) failure_ = std::current_exception();
        for_caller_.notify_one();
    }
}

void ManyTasks::PerformAll(bool is_first) {
    std::unique_ptr<StorageBackend> opened;
    StorageBackend* backend = is_first && workers_.share_own ? &workers_.own : nullptr;
    bool has_answered = false;
    Relay relay(*this);
    while (std::optional<ManyTask> task = Take()) {
        FileError error;
        try {
            if (backend == nullptr) opened = workers_.open();
            if (backend == nullptr) backend = opened.get();
            error = Perform(*task, *backend, &relay);
        } catch (const Error& failure) {
            error = failure;
        }
        // The server may have refused this thread's connection because of a limit on the number of
        // connections. End this thread and let another thread perform the task. The first thread
        // never returns a task to the queue, so every task is eventually reported.
        if (!is_first && !has_answered && MayRefuseConnection(error)) {
            return Requeue(std::move(*task));
        }
        has_answered = has_answered || HasAnswered(error);
        Finish(std::move(*task), std::move(error));
    }
}

std::optional<ManyTask> ManyTasks::Take() {
    std::unique_lock lock(mutex_);
    for_threads_.wait(lock, [this] { return stopped_ || !queue_.empty(); });
    if (stopped_) return std::nullopt;
    ManyTask task = std::move(queue_.front());
    queue_.pop_front();
    return task;
}

std::optional<ManyTask> ManyTasks::NextForCaller() {
    const std::lock_guard lock(mutex_);
    if (queue_.empty()) return std::nullopt;
    ManyTask task = std::move(queue_.front());
    queue_.pop_front();
    return task;
}

// Adds a task to the queue. After an outage, reports the task as failed without performing it. The
// caller must hold mutex_.
void ManyTasks::Add(ManyTask task) {
    if (outage_.is_certain()) {
        finished_.push_back({std::move(task), outage_.ErrorOfRest()});
        for_caller_.notify_one();
    } else {
        queue_.push_back(std::move(task));
        for_threads_.notify_one();
    }
}

void ManyTasks::Finish(ManyTask task, FileError error) {
    const std::lock_guard lock(mutex_);
    outage_.Count(error, std::max<std::size_t>(1, active_));
    finished_.push_back({std::move(task), std::move(error)});
    for_caller_.notify_one();
    if (!outage_.is_certain()) return;
    for (ManyTask& rest : std::exchange(queue_, {})) Add(std::move(rest));
}

// Returns a task to the queue because its thread ends.
void ManyTasks::Requeue(ManyTask task) {
    const std::lock_guard lock(mutex_);
    --active_;
    Add(std::move(task));
}

// Ends all threads. A running transfer is cancelled when it next reports its progress.
void ManyTasks::Stop() noexcept {
    {
        const std::lock_guard lock(mutex_);
        stopped_ = true;
    }
    for_threads_.notify_all();
    threads_.clear();
}

}  // namespace quarn2
