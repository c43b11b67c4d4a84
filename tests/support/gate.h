// Blocks a thread at a point in its code until the test opens the gate.
#pragma once

#include <condition_variable>
#include <mutex>

class Gate {
  public:
    // Blocks the calling thread until the test calls Open.
    void Pass() {
        std::unique_lock section(mutex_);
        ++arrived_;
        changed_.notify_all();
        changed_.wait(section, [this] { return open_; });
    }
    // Called by the test. Waits until a thread is blocked in Pass.
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
