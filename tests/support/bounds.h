// Checks that an operation stays within limits of memory and time, even against a hostile peer.
#pragma once

#include <gtest/gtest.h>
#include <time.h>

#include <chrono>
#include <fstream>
#include <string>

#include "kro/kro_err.h"

// Sanitizers need several times more memory and time.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr int kSanitizerFactor = 8;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr int kSanitizerFactor = 8;
#else
inline constexpr int kSanitizerFactor = 1;
#endif
#else
inline constexpr int kSanitizerFactor = 1;
#endif

// Checks the resources that the process uses during the lifetime of the object: the growth of its
// peak resident memory, and its processor time. The limit for elapsed time is much higher, because
// other processes compete for the processors. It only proves that the operation ends.
class Bounds {
  public:
    explicit Bounds(long mebibytes = 300, int seconds = 20)
        : mebibytes_(mebibytes), seconds_(seconds) {
        std::ofstream("/proc/self/clear_refs") << "5";  // resets VmHWM, the peak
        before_ = Status("VmRSS:");
    }
    ~Bounds() {
        const auto taken = std::chrono::steady_clock::now() - begin_;
        EXPECT_LE(taken, std::chrono::seconds(seconds_ * kSanitizerFactor) * kClockFactor);
        EXPECT_LE(ProcessorTime() - processor_begin_,
                  std::chrono::seconds(seconds_ * kSanitizerFactor));
        EXPECT_LE((Status("VmHWM:") - before_) / 1024, mebibytes_ * kSanitizerFactor) << "MiB";
    }
    Bounds(const Bounds&) = delete;
    Bounds& operator=(const Bounds&) = delete;

  private:
    static constexpr int kClockFactor = 6;

    // Returns the processor time of all threads of the process.
    static std::chrono::nanoseconds ProcessorTime() {
        timespec time{};
        EXPECT_EQ(clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time), 0);
        return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
    }

    // Returns an entry of /proc/self/status, in KiB.
    static long Status(const std::string& name) {
        std::ifstream status("/proc/self/status");
        std::string word;
        long value = 0;
        while (status >> word) {
            if (word == name) status >> value;
        }
        EXPECT_GT(value, 0) << name;
        return value;
    }

    long mebibytes_;
    int seconds_;
    std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
    std::chrono::nanoseconds processor_begin_ = ProcessorTime();
    long before_ = 0;
};

// Calls the function and returns the text of the kro_err::Error that the function throws. Fails the
// test if the text contains the password of the test's token.
template <class Operation>
std::string ErrorOf(const Operation& operation) {
    try {
        operation();
    } catch (const kro_err::Error& error) {
        const std::string text = error.what();
        EXPECT_EQ(text.find("hidden"), std::string::npos) << text;
        return text;
    }
    return "(no error)";
}
