#include "quarn2/expect.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <set>
#include <stdexcept>
#include <string>
#include <tuple>

#include "kro/kro_err.h"
#include "kro/kro_proc.h"

using quarn2::Expect;

namespace {

// A worker that returns the result of the test's function and counts its calls.
struct Probe {
    Expect::Result* operator()(ResHandle handle) {
        ++calls;
        return answer(static_cast<int>(handle));
    }
    Expect::Result* Other(ResHandle) {
        ++other_calls;
        return Expect::erFinish;
    }

    std::function<Expect::Result*(int)> answer = [](int) { return Expect::erFinish; };
    int calls = 0;
    int other_calls = 0;
};

std::shared_ptr<Probe> Answering(std::function<Expect::Result*(int)> answer) {
    auto probe = std::make_shared<Probe>();
    probe->answer = std::move(answer);
    return probe;
}

struct Pipe {
    Pipe() { std::tie(in, out) = kro_proc::Pipe(); }
    void Put() const { EXPECT_EQ(write(out, "x", 1), 1); }
    void Take() const {
        char byte = 0;
        EXPECT_EQ(read(in, &byte, 1), 1);
    }

    ResHandle in;
    ResHandle out;
};

double SecondsOf(const std::function<void()>& action) {
    const auto begin = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

bool IsOpen(int fd) { return fcntl(fd, F_GETFD) >= 0; }

TEST(Expect, ResultsAreFourDifferentOnes) {
    const std::set<Expect::Result*> results = {Expect::erOk, Expect::erSuspend, Expect::erClose,
                                               Expect::erFinish};
    EXPECT_EQ(results.size(), 4U);
    EXPECT_EQ(results.count(nullptr), 0U);
}

TEST(Expect, FinishEndsTheRun) {
    Expect expect;
    const Pipe pipe;
    const auto probe = std::make_shared<Probe>();
    expect.Add(pipe.in, POLLIN, probe);
    pipe.Put();
    expect.Run(-1);
    EXPECT_EQ(probe->calls, 1);
    expect.Run(-1);
    EXPECT_EQ(probe->calls, 2) << "a finished run can be followed by another";
}

TEST(Expect, CallsTheGivenMember) {
    Expect expect;
    const Pipe pipe;
    const auto probe = std::make_shared<Probe>();
    expect.Add(pipe.in, POLLIN, probe, &Probe::Other);
    pipe.Put();
    expect.Run(-1);
    EXPECT_EQ(probe->calls, 0);
    EXPECT_EQ(probe->other_calls, 1);
}

TEST(Expect, OkKeepsWaiting) {
    Expect expect;
    const Pipe pipe;
    int calls = 0;
    expect.Add(pipe.in, POLLIN, Answering([&](int fd) {
                   EXPECT_EQ(fd, static_cast<int>(pipe.in));
                   pipe.Take();
                   return ++calls < 3 ? Expect::erOk : Expect::erFinish;
               }));
    for (int i = 0; i < 3; ++i) pipe.Put();
    expect.Run(-1);
    EXPECT_EQ(calls, 3);
}

TEST(Expect, RunLastsItsTime) {
    Expect expect;
    const Pipe pipe;
    const auto probe = std::make_shared<Probe>();
    expect.Add(pipe.in, POLLIN, probe);
    const double seconds = SecondsOf([&] { expect.Run(60); });
    EXPECT_GE(seconds, 0.06);
    EXPECT_LT(seconds, 30);
    EXPECT_EQ(probe->calls, 0);
}

TEST(Expect, ZeroLooksOnce) {
    Expect expect;
    const Pipe pipe;
    const auto probe = Answering([](int) { return Expect::erOk; });
    expect.Add(pipe.in, POLLIN, probe);
    expect.Run(0);
    EXPECT_EQ(probe->calls, 0);
    pipe.Put();
    expect.Run(0);
    EXPECT_EQ(probe->calls, 1);
}

TEST(Expect, BusyWorkerDoesNotStretchTheTime) {
    Expect expect;
    const Pipe pipe;
    pipe.Put();
    const auto probe = Answering([](int) { return Expect::erOk; });
    expect.Add(pipe.in, POLLIN, probe);
    EXPECT_LT(SecondsOf([&] { expect.Run(50); }), 5);
    EXPECT_GT(probe->calls, 1);
}

// A caller that runs the loop every second must not spin after its last worker has ended.
TEST(Expect, RunWithoutWorkersLastsItsTimeOrEndsAtOnce) {
    Expect expect;
    EXPECT_GE(SecondsOf([&] { expect.Run(40); }), 0.04);
    EXPECT_LT(SecondsOf([&] { expect.Run(-1); }), 5);
}

TEST(Expect, SignalDoesNotEndTheRun) {
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGALRM, &action, &before), 0);
    itimerval timer = {};
    timer.it_value.tv_usec = 10'000;
    timer.it_interval.tv_usec = 10'000;
    ASSERT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);
    Expect expect;
    const Pipe pipe;
    expect.Add(pipe.in, POLLIN, std::make_shared<Probe>());
    EXPECT_GE(SecondsOf([&] { expect.Run(80); }), 0.08);
    const itimerval stop = {};
    setitimer(ITIMER_REAL, &stop, nullptr);
    sigaction(SIGALRM, &before, nullptr);
}

TEST(Expect, SuspendSleepsUntilAskedAgain) {
    Expect expect;
    const Pipe pipe;
    const auto probe = Answering([](int) { return Expect::erSuspend; });
    expect.Add(pipe.out, POLLOUT, probe);
    expect.Run(20);
    expect.Run(20);
    EXPECT_EQ(probe->calls, 1);
    expect.SetEvents(pipe.out, POLLOUT);
    expect.Run(20);
    EXPECT_EQ(probe->calls, 2);
}

TEST(Expect, SuspendedWorkerIsNotCalledForAHangUp) {
    Expect expect;
    Pipe pipe;
    const auto probe = Answering([](int) { return Expect::erSuspend; });
    expect.Add(pipe.in, POLLIN, probe);
    pipe.out.Close();
    EXPECT_GE(SecondsOf([&] { expect.Run(30); }), 0.03);
    EXPECT_EQ(probe->calls, 1);
}

TEST(Expect, HangUpIsTold) {
    Expect expect;
    Pipe pipe;
    const auto probe = std::make_shared<Probe>();
    expect.Add(pipe.in, POLLIN, probe);
    pipe.out.Close();
    expect.Run(-1);
    EXPECT_EQ(probe->calls, 1);
}

TEST(Expect, CloseDropsTheWorkerAndItsDescriptor) {
    Expect expect;
    const Pipe pipe;
    const int fd = pipe.in;
    auto probe = Answering([](int) { return Expect::erClose; });
    const std::weak_ptr<Probe> watched = probe;
    expect.Add(pipe.in, POLLIN, std::move(probe));
    pipe.Put();
    expect.Run(-1);
    EXPECT_TRUE(watched.expired());
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_FALSE(static_cast<bool>(pipe.in)) << "every copy of the handle knows";
}

TEST(Expect, KeepsTheWorkerAliveUntilItIsDropped) {
    const Pipe pipe;
    std::weak_ptr<Probe> watched;
    {
        Expect expect;
        auto probe = std::make_shared<Probe>();
        watched = probe;
        expect.Add(pipe.in, POLLIN, std::move(probe));
        EXPECT_FALSE(watched.expired());
    }
    EXPECT_TRUE(watched.expired());
    EXPECT_TRUE(IsOpen(pipe.in)) << "only erClose closes";
}

TEST(Expect, WorkersMayAddWorkers) {
    Expect expect;
    const Pipe first;
    const Pipe second;
    const auto added = std::make_shared<Probe>();
    expect.Add(first.in, POLLIN, Answering([&](int) {
                   for (int i = 0; i < 100; ++i) expect.Add(kro_proc::Pipe().first, POLLIN, added);
                   expect.Add(second.in, POLLIN, added);
                   return Expect::erClose;
               }));
    first.Put();
    second.Put();
    expect.Run(1000);
    EXPECT_EQ(added->calls, 1);
}

TEST(Expect, WorkerThatReplacesItselfRunsToItsEnd) {
    Expect expect;
    const Pipe pipe;
    const auto next = std::make_shared<Probe>();
    struct Replaced {
        Expect::Result* operator()(ResHandle handle) {
            loop.Add(std::move(handle), POLLIN, successor);
            // `marks` is freed memory if the loop does not keep this worker alive.
            marks += "still here";
            return Expect::erOk;
        }
        Expect& loop;
        std::shared_ptr<Probe> successor;
        std::string marks;
    };
    expect.Add(pipe.in, POLLIN, std::make_shared<Replaced>(Replaced{expect, next, {}}));
    pipe.Put();
    expect.Run(-1);
    EXPECT_EQ(next->calls, 1);
}

TEST(Expect, WorkerDroppedInTheSameTurnIsNotCalled) {
    Expect expect;
    Pipe first;
    Pipe second;
    const auto late = std::make_shared<Probe>();
    expect.Add(first.in, POLLIN, Answering([&](int) {
                   second.in.Close();
                   return Expect::erClose;
               }));
    expect.Add(second.in, POLLIN, late);
    first.Put();
    second.Put();
    expect.Run(-1);
    EXPECT_EQ(late->calls, 0);
}

TEST(Expect, DescriptorClosedElsewhereIsDropped) {
    Expect expect;
    const Pipe pipe;
    auto probe = std::make_shared<Probe>();
    const std::weak_ptr<Probe> watched = probe;
    const int fd = dup(pipe.in);
    expect.Add(ResHandle(fd), POLLIN, std::move(probe));
    close(fd);
    expect.Run(10);
    EXPECT_TRUE(watched.expired());
}

TEST(Expect, TwoDescriptorsOfOneObject) {
    Expect expect;
    const Pipe in;
    const Pipe out;
    const auto probe = Answering([](int) { return Expect::erSuspend; });
    expect.Add(in.in, POLLIN, probe);
    expect.Add(out.out, POLLOUT, probe, &Probe::Other);
    expect.Run(1000);
    EXPECT_EQ(probe->calls, 0);
    EXPECT_EQ(probe->other_calls, 1);
}

TEST(Expect, ExceptionLeavesTheRunAndTheLoopStaysUsable) {
    Expect expect;
    const Pipe pipe;
    bool broken = true;
    expect.Add(pipe.in, POLLIN, Answering([&](int) {
                   if (broken) throw std::runtime_error("broken");
                   return Expect::erFinish;
               }));
    pipe.Put();
    EXPECT_THROW(expect.Run(-1), std::runtime_error);
    broken = false;
    expect.Run(-1);
}

TEST(Expect, RefusesAHandleThatIsNotOpen) {
    Expect expect;
    EXPECT_THROW(expect.Add(ResHandle(), POLLIN, std::make_shared<Probe>()), kro_err::Error);
    expect.SetEvents(-1, POLLIN);
    expect.SetEvents(12345, POLLIN);
}

}  // namespace
