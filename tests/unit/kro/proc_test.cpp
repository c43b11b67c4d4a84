#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <csignal>

#include "child.h"
#include "kro/kro_err.h"
#include "kro/kro_proc.h"

namespace {

std::string ReadToEnd(int fd) {
    std::string text;
    char buffer[256];
    for (ssize_t got = 0; (got = ::read(fd, buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<std::size_t>(got));
    }
    return text;
}

// Returns what the program writes to its standard output.
std::string OutputOf(std::vector<std::string> arguments) {
    kro_proc::Execute program(std::move(arguments));
    auto [read, write] = kro_proc::Pipe();
    program.RedirectOutTo(std::move(write));
    program.Run();
    const std::string text = ReadToEnd(read);
    program.Result();
    return text;
}

void Require(bool condition, const char* what) {
    if (!condition) throw std::runtime_error(what);
}

TEST(Pipe, IsCloseOnExec) {
    const auto [read, write] = kro_proc::Pipe();
    EXPECT_NE(::fcntl(read, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(::fcntl(write, F_GETFD) & FD_CLOEXEC, 0);
    kro_proc::SetNonBlocking(read);
    char c = 0;
    EXPECT_EQ(::read(read, &c, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_THROW(kro_proc::SetNonBlocking(-1), kro_err::Error);
}

TEST(Execute, GivesTheExitStatus) {
    kro_proc::Execute program({"/bin/sh", "-c", "exit 7"});
    EXPECT_EQ(program.Result(), -1);
    program.Run();
    EXPECT_GT(program.pid(), 0);
    EXPECT_EQ(program.Result(), 7);
    EXPECT_EQ(program.Result(), 7);
}

TEST(Execute, GivesTheSignalThatEndedIt) {
    kro_proc::Execute program({"/bin/sh", "-c", "kill -9 $$"});
    program.Run();
    EXPECT_EQ(program.Result(), 128 + SIGKILL);
}

TEST(Execute, PassesArgumentsAsTheyAre) {
    EXPECT_EQ(OutputOf({"printf", "%s|", "a b", "", "$HOME", "*"}), "a b||$HOME|*|");
}

TEST(Execute, TellsWhyAProgramDidNotStart) {
    kro_proc::Execute program({"/no/such/program", "x"});
    try {
        program.Run();
        FAIL();
    } catch (const kro_err::Error& error) {
        EXPECT_STREQ(error.what(), "Failed to start '/no/such/program': No such file or directory");
        EXPECT_EQ(error.type(), "not_found");
    }
    EXPECT_EQ(program.pid(), -1);
    EXPECT_EQ(program.Result(), -1);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child was left";
    EXPECT_THROW(kro_proc::Execute({"/"}).Run(), kro_err::Error);
    EXPECT_THROW(kro_proc::Execute({}).Run(), kro_err::Error);
}

TEST(Execute, RedirectsAndLetsGo) {
    auto [in, to_child] = kro_proc::Pipe();
    auto [from_child, out] = kro_proc::Pipe();
    const int in_fd = in;
    const int out_fd = out;
    kro_proc::Execute program({"tr", "a-z", "A-Z"});
    program.RedirectInTo(std::move(in));
    program.RedirectOutTo(std::move(out));
    program.Run();
    EXPECT_EQ(::fcntl(in_fd, F_GETFD), -1);
    EXPECT_EQ(::fcntl(out_fd, F_GETFD), -1);
    ASSERT_EQ(::write(to_child, "hello", 5), 5);
    to_child.Close();
    EXPECT_EQ(ReadToEnd(from_child), "HELLO");
    EXPECT_EQ(program.Result(), 0);
}

TEST(Execute, RedirectsErrors) {
    kro_proc::Execute program({"/bin/sh", "-c", "echo out; echo wrong >&2"});
    auto [read, write] = kro_proc::Pipe();
    auto [out_read, out_write] = kro_proc::Pipe();
    program.RedirectErrTo(std::move(write));
    program.RedirectOutTo(std::move(out_write));
    program.Run();
    EXPECT_EQ(ReadToEnd(read), "wrong\n");
    EXPECT_EQ(ReadToEnd(out_read), "out\n");
    EXPECT_EQ(program.Result(), 0);
}

TEST(Execute, ChangesTheEnvironmentOfTheChildAlone) {
    ::setenv("KRO_TEST_GONE", "1", 1);
    ::setenv("KRO_TEST_GONE_NOT", "2", 1);
    ::setenv("KRO_TEST_CHANGED", "3", 1);
    kro_proc::Execute program({"env"});
    program.ChangeEnvironment({"KRO_TEST_GONE", "KRO_TEST_CHANGED=4=5", "KRO_TEST_NEW=", "KRO_NO"});
    auto [read, write] = kro_proc::Pipe();
    program.RedirectOutTo(std::move(write));
    program.Run();
    const std::string text = "\n" + ReadToEnd(read);
    EXPECT_EQ(program.Result(), 0);
    EXPECT_EQ(text.find("\nKRO_TEST_GONE="), text.npos);
    EXPECT_NE(text.find("\nKRO_TEST_GONE_NOT=2\n"), text.npos);
    EXPECT_NE(text.find("\nKRO_TEST_CHANGED=4=5\n"), text.npos);
    EXPECT_EQ(text.find("\nKRO_TEST_CHANGED=3\n"), text.npos);
    EXPECT_NE(text.find("\nKRO_TEST_NEW=\n"), text.npos);
    EXPECT_EQ(text.find("KRO_NO"), text.npos);
    EXPECT_STREQ(::getenv("KRO_TEST_GONE"), "1");
    for (const char* name : {"KRO_TEST_GONE", "KRO_TEST_GONE_NOT", "KRO_TEST_CHANGED"}) {
        ::unsetenv(name);
    }
}

TEST(Execute, WaitsNoLongerThanItIsTold) {
    kro_proc::Execute program({"sleep", "1000"});
    EXPECT_TRUE(program.Wait(0)) << "never run";
    program.Run();
    EXPECT_FALSE(program.Wait(0));
    EXPECT_FALSE(program.Wait(20));
    program.Signal(SIGTERM);
    EXPECT_TRUE(program.Wait(60000));
    EXPECT_TRUE(program.Wait(0));
    EXPECT_EQ(program.Result(), 128 + SIGTERM);
    program.Signal(SIGTERM);  // sends no signal, because another process may have the PID by now
}

TEST(Execute, LeavesTheTerminalWhenItIsToldTo) {
    kro_proc::Execute stays({"sleep", "1000"});
    kro_proc::Execute leaves({"sleep", "1000"});
    leaves.LeaveTerminal();
    stays.Run();
    leaves.Run();
    EXPECT_EQ(::getsid(stays.pid()), ::getsid(0));
    EXPECT_EQ(::getsid(leaves.pid()), leaves.pid());
    for (auto* program : {&stays, &leaves}) {
        program->Signal(SIGKILL);
        program->Result();
    }
}

TEST(Execute, LeaksNoDescriptor) {
    const int leak = ::open("/dev/null", O_RDONLY);  // without close-on-exec
    const ResHandle guard(leak);
    const auto pipe = kro_proc::Pipe();
    ASSERT_LE(leak, 15) << "the child does not look that far";
    const std::string count = OutputOf({"/bin/sh", "-c",
                                        "for fd in 3 4 5 6 7 8 9 10 11 12 13 14 15; do "
                                        "test -e /proc/$$/fd/$fd && echo $fd; done; echo end"});
    EXPECT_EQ(count, "end\n");
}

TEST(Execute, StartsWithDefaultSignals) {
    Child child([] {
        ::signal(SIGPIPE, SIG_IGN);
        ::signal(SIGTERM, SIG_IGN);
        const ResHandle watch = kro_proc::WatchTermination();
        const std::string status = OutputOf({"grep", "-E", "^Sig(Blk|Ign)", "/proc/self/status"});
        Require(status.find("SigBlk:\t0000000000000000\n") != status.npos, "blocked");
        const auto at = status.find("SigIgn:\t");
        Require(at != status.npos, "no SigIgn");
        const auto ignored = std::stoull(status.substr(at + 8, 16), nullptr, 16);
        for (const int signal : {SIGPIPE, SIGTERM, SIGINT}) {
            Require((ignored >> (signal - 1) & 1U) == 0, "ignored");
        }
    });
    EXPECT_EQ(child.Wait(), 0);
}

TEST(Execute, WorksWithClosedStandardDescriptors) {
    Child child([] {
        for (int fd = 0; fd < 3; ++fd) ::close(fd);
        // This pipe and the pipe that Run opens get the numbers of standard descriptors.
        auto [read, write] = kro_proc::Pipe();
        Require(read == 0 && write == 1, "numbers");
        kro_proc::Execute program({"readlink", "/proc/self/fd/0", "/proc/self/fd/2"});
        program.RedirectOutTo(std::move(write));
        program.Run();
        Require(ReadToEnd(read) == "/dev/null\n/dev/null\n", "output");
        Require(program.Result() == 0, "status");
    });
    EXPECT_EQ(child.Wait(), 0);
}

TEST(Execute, RedirectsSwappedStandardDescriptors) {
    Child child([] {
        auto [in, to_child] = kro_proc::Pipe();
        auto [from_child, out] = kro_proc::Pipe();
        Require(::dup2(in, 1) == 1 && ::dup2(out, 0) == 0, "dup2");
        in.Reset();
        out.Reset();
        kro_proc::Execute program({"cat"});
        program.RedirectInTo(ResHandle(1));
        program.RedirectOutTo(ResHandle(0));
        program.Run();
        Require(::write(to_child, "swapped", 7) == 7, "write");
        to_child.Close();
        Require(ReadToEnd(from_child) == "swapped", "output");
        Require(program.Result() == 0, "status");
    });
    EXPECT_EQ(child.Wait(), 0);
}

TEST(Execute, TellsAFailedStartWithClosedStandardDescriptors) {
    Child child([] {
        for (int fd = 0; fd < 3; ++fd) ::close(fd);
        try {
            kro_proc::Execute({"/no/such/program"}).Run();
        } catch (const kro_err::Error& error) {
            Require(error.kind() == kro_err::Kind::kNotFound, "kind");
            return;
        }
        throw std::runtime_error("started");
    });
    EXPECT_EQ(child.Wait(), 0);
}

TEST(WatchTermination, ReportsSignalsInsteadOfEnding) {
    for (const int signal : {SIGTERM, SIGINT}) {
        Child child([signal] {
            const ResHandle watch = kro_proc::WatchTermination();
            pollfd poll{watch, POLLIN, 0};
            Require(::poll(&poll, 1, 0) == 0, "readable too early");
            Require(::kill(::getpid(), signal) == 0, "kill");
            Require(::poll(&poll, 1, 5000) == 1, "not readable");
            Require((::fcntl(watch, F_GETFD) & FD_CLOEXEC) != 0, "cloexec");
            Require((::fcntl(watch, F_GETFL) & O_NONBLOCK) != 0, "nonblock");
        });
        EXPECT_EQ(child.Wait(), 0);
    }
}

}  // namespace
