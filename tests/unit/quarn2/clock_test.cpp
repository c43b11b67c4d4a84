// Code that reads the time uses the test's clock. A wait for descriptors ends even if this clock
// does not advance.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "fake_clock.h"
#include "kro/kro_clock.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "quarn2/expect.h"
#include "temp_dir.h"

namespace {

using kro_date::SteadyClock;

class TestClock : public testing::Test {
  protected:
    TestClock() { fake_clock::Reset(); }
    ~TestClock() override { fake_clock::Reset(); }
};

TEST_F(TestClock, ResetSetsAllClocksBack) {
    const SteadyClock::time_point steady = SteadyClock::now();
    fake_clock::Pass(5000);
    kro_proc::Sleep(2000);
    EXPECT_EQ(SteadyClock::now() - steady, std::chrono::seconds(7));
    EXPECT_EQ(kro_date::SystemNowMs(), (fake_clock::kStart + 7) * 1000);
    fake_clock::Reset();
    EXPECT_EQ(SteadyClock::now(), steady);
    EXPECT_EQ(kro_date::SystemNow(), fake_clock::kStart);
    EXPECT_EQ(kro_date::SystemNowMs(), fake_clock::kStart * 1000);
}

TEST_F(TestClock, ARunOfTheLoopEndsAfterItsWaitEvenIfTheClockStands) {
    quarn2::Expect loop;
    EXPECT_FALSE(loop.Run(20));
}

TEST_F(TestClock, LogLinesHaveItsTime) {
    const std::filesystem::path home = std::filesystem::current_path();
    const TempDir dir;
    std::filesystem::current_path(dir.path());
    std::filesystem::create_directory("var");
    fake_clock::Set(fake_clock::kStart + 90);
    kro_log::Init("prog", 5);
    constexpr kro_log::Module kModule("main");
    KRO_LOG(kModule, 5, "text");
    kro_log::Close();
    const std::string log = kro_file::ReadE("var/prog.log");
    std::filesystem::current_path(home);
    // Local time zones differ from UTC by whole quarters of an hour.
    EXPECT_THAT(log.substr(0, 24), testing::MatchesRegex("2026-11-2. ..:(01|16|31|46):30\\.000 "));
}

}  // namespace
