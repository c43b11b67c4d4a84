// The attempts of a transfer: their number, the pauses and the log.
#include "program_site.h"
#include "quarn2_cp2_misc_attempts.h"

namespace {

using kro_err::Error;
using kro_err::Kind;

class Attempts : public ProgramSite {
  protected:
    // Runs a transfer whose first attempts fail with errors of these kinds.
    std::optional<FailedTransfer> Run(std::vector<Kind> kinds, bool may_retry = true) {
        return RunAttempts(
            "Cant move: x",
            [&, next = std::size_t{0}]() mutable {
                ++transfers_;
                if (next < kinds.size()) throw Error(kinds[next++], "the line broke");
            },
            [&, may_retry](const Error&) {
                ++asked_;
                return may_retry;
            });
    }

    int transfers_ = 0;
    int asked_ = 0;
};

constexpr const char* kWait = "6: Wait 60 seconds before next attempt";

TEST_F(Attempts, ASuccessEndsThem) {
    EXPECT_FALSE(Run({}));
    EXPECT_EQ(transfers_, 1);
    EXPECT_FALSE(Run({Kind::kUnavailable, Kind::kFailed}));
    EXPECT_EQ(transfers_, 4);
    EXPECT_EQ(fake_clock::Sleeps(), (std::vector<int>{60000, 60000}));
    EXPECT_EQ(Log(), (Lines{"4: Cant move: x. What: the line broke. Attempt: 1 of 3", kWait,
                            "4: Cant move: x. What: the line broke. Attempt: 2 of 3", kWait}));
}

TEST_F(Attempts, TheThirdFailureIsTheLast) {
    const auto failed = Run({Kind::kUnavailable, Kind::kNotFound, Kind::kFailed});
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->kind, Kind::kFailed);
    EXPECT_EQ(failed->reason, "the line broke");
    EXPECT_EQ(TextOf<Error>([&] { std::rethrow_exception(failed->error); }), "the line broke");
    EXPECT_EQ(transfers_, 3);
    EXPECT_EQ(fake_clock::Sleeps().size(), 2U);
    EXPECT_EQ(Log().back(), "4: Cant move: x. What: the line broke. Attempt: 3 of 3");
}

TEST_F(Attempts, UnauthorizedIsNotRetriedAndNotLogged) {
    const auto failed = Run({Kind::kUnauthorized});
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->kind, Kind::kUnauthorized);
    EXPECT_EQ(transfers_, 1);
    EXPECT_EQ(asked_, 0);
    EXPECT_EQ(Log(), Lines());
}

TEST_F(Attempts, TheCallerCanEndThem) {
    ASSERT_TRUE(Run({Kind::kUnavailable}, false));
    EXPECT_EQ(transfers_, 1);
    EXPECT_EQ(Log(), Lines());
    EXPECT_EQ(fake_clock::Sleeps(), std::vector<int>());
}

TEST_F(Attempts, OtherExceptionsPass) {
    const auto logic = [] { throw std::logic_error("no storage error"); };
    const auto lost = [] { throw Error(Kind::kUnavailable, "the line broke"); };
    const auto yes = [](const Error&) { return true; };
    const auto refuses = [](const Error&) -> bool { throw Error(Kind::kFailed, "no list"); };
    EXPECT_EQ(TextOf<std::logic_error>([&] { RunAttempts("x", logic, yes); }), "no storage error");
    EXPECT_EQ(TextOf<Error>([&] { RunAttempts("x", lost, refuses); }), "no list");
    EXPECT_EQ(Log(), Lines());
}

}  // namespace
