// Threads and mutexes.
#pragma once

#include <exception>
#include <functional>
#include <mutex>
#include <thread>

namespace kro_thread {

using SafeLock = std::mutex;
using SafeSection = std::lock_guard<std::mutex>;

// A running thread. An exception that leaves its body is logged at level 3 immediately and stored.
class Handle {
  public:
    explicit Handle(std::function<void()> body);
    // Joins the thread and discards a stored exception.
    ~Handle();
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    bool joinable() const noexcept { return thread_.joinable(); }

    // Waits until the thread has ended and rethrows a stored exception. Every call of Join rethrows
    // the exception, so that each caller learns of the failure.
    void Join();

  private:
    std::exception_ptr failure_;
    std::thread thread_;
};

}  // namespace kro_thread
