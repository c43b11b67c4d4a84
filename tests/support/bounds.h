// Holds a piece of work to a bound of memory and time, whatever a peer sends meanwhile.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <string>

#include "kro/kro_err.h"

// Sanitizers take many times as much of both.
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

// From its making to its end the process may grow by so much, at its peak, and take so long.
class Bounds {
  public:
    explicit Bounds(long mebibytes = 300, int seconds = 20)
        : mebibytes_(mebibytes), seconds_(seconds) {
        std::ofstream("/proc/self/clear_refs") << "5";  // the peak begins anew
        before_ = Status("VmRSS:");
    }
    ~Bounds() {
        const auto taken = std::chrono::steady_clock::now() - begin_;
        EXPECT_LE(taken, std::chrono::seconds(seconds_ * kSanitizerFactor));
        EXPECT_LE((Status("VmHWM:") - before_) / 1024, mebibytes_ * kSanitizerFactor) << "MiB";
    }
    Bounds(const Bounds&) = delete;
    Bounds& operator=(const Bounds&) = delete;

  private:
    // In KiB.
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
    long before_ = 0;
};

// The deed's error, which must not show the secret that these tests log in with.
template <class Deed>
std::string ErrorOf(const Deed& deed) {
    try {
        deed();
    } catch (const kro_err::Error& error) {
        const std::string text = error.what();
        EXPECT_EQ(text.find("hidden"), std::string::npos) << text;
        return text;
    }
    return "(no error)";
}
