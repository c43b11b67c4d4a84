// Threads and the lock they share.
#pragma once

#include <exception>
#include <functional>
#include <mutex>
#include <thread>

namespace kro_thread {

using SafeLock = std::mutex;
using SafeSection = std::lock_guard<std::mutex>;

// A running thread. An exception that leaves it is logged at level 3 when it happens and kept.
class Handle {
  public:
    explicit Handle(std::function<void()> body);
    // Joins; a kept exception is dropped.
    ~Handle();
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    bool joinable() const noexcept { return thread_.joinable(); }

    // Waits for the end, then rethrows what left the thread: at every call, so that a failure is
    // not forgotten once somebody has seen it.
    void Join();

  private:
    std::exception_ptr failure_;
    std::thread thread_;
};

}  // namespace kro_thread
