// Holds a thread up at a place until the test lets it go on.
#pragma once

#include <condition_variable>
#include <mutex>

class Gate {
  public:
    // The thread's side: says that it is here and waits.
    void Pass() {
        std::unique_lock section(mutex_);
        ++arrived_;
        changed_.notify_all();
        changed_.wait(section, [this] { return open_; });
    }
    // The test's side.
    void WaitForArrival() {
        std::unique_lock section(mutex_);
        changed_.wait(section, [this] { return arrived_ > 0; });
    }
    void Open() {
        const std::lock_guard section(mutex_);
        open_ = true;
        changed_.notify_all();
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int arrived_ = 0;
    bool open_ = false;
};
