// Handles, errors, the environment, threads, line reading and waiting.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include "kro/kro_env.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/kro_proc.h"
#include "kro/kro_stream.h"
#include "kro/kro_thread.h"
#include "kro/res_handle.h"
#include "temp_dir.h"

namespace {

bool IsOpen(int fd) { return ::fcntl(fd, F_GETFD) >= 0; }

int OpenNull() { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }

TEST(ResHandle, ClosesWithTheLastCopy) {
    const int fd = OpenNull();
    ResHandle first(fd);
    {
        const ResHandle second = first;
        first.Reset();
        EXPECT_EQ(first, -1);
        EXPECT_EQ(second, fd);
        EXPECT_TRUE(second);
        EXPECT_TRUE(IsOpen(fd));
    }
    EXPECT_FALSE(IsOpen(fd));
}

TEST(ResHandle, ClosesForEveryCopy) {
    ResHandle first(OpenNull());
    const ResHandle second = first;
    const int fd = first;
    first.Close();
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_FALSE(second);
    // Another file now has the same number. It must stay open when the copy is destroyed.
    const ResHandle other(OpenNull());
    first = ResHandle();
    EXPECT_TRUE(IsOpen(other));
}

TEST(ResHandle, IsNotOpenByDefault) {
    ResHandle handle;
    EXPECT_FALSE(handle);
    EXPECT_EQ(handle, -1);
    EXPECT_FALSE(ResHandle(-1));
    handle.Close();
    handle.Reset();
    EXPECT_EQ(ResHandle(-5), -1);
}

TEST(ResHandle, CopiesMayLiveOnSeveralThreads) {
    ResHandle handle(OpenNull());
    const int fd = handle;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([copy = handle]() mutable {
            const ResHandle more = copy;
            copy.Close();
        });
    }
    handle.Reset();
    for (std::thread& thread : threads) thread.join();
    EXPECT_FALSE(IsOpen(fd));
}

TEST(Error, NamesItsKind) {
    using kro_err::Error;
    using kro_err::Kind;
    EXPECT_EQ(Error(Kind::kUnauthorized, "x").type(), "unauthorized");
    EXPECT_EQ(Error(Kind::kNotFound, "x").type(), "not_found");
    EXPECT_EQ(Error(Kind::kUnavailable, "x").type(), "unavailable");
    EXPECT_EQ(Error(Kind::kFailed, "x").type(), "failed");
    EXPECT_STREQ(Error(Kind::kFailed, "the text").what(), "the text");
}

TEST(Error, MissingIsAPathWithoutAFile) {
    for (const int error : {ENOENT, ENOTDIR}) EXPECT_TRUE(kro_err::IsMissing(error));
    for (const int error : {0, EACCES, ELOOP, EISDIR}) EXPECT_FALSE(kro_err::IsMissing(error));
    errno = ENOENT;
    EXPECT_TRUE(kro_err::IsMissing());
}

TEST(Error, ComesFromErrno) {
    errno = ENOENT;
    const kro_err::Error missing = kro_err::FromErrno("Failed to open 'x'");
    EXPECT_STREQ(missing.what(), "Failed to open 'x': No such file or directory");
    EXPECT_EQ(missing.kind(), kro_err::Kind::kNotFound);
    EXPECT_EQ(kro_err::FromErrno("x", EROFS).error(), EROFS);
    EXPECT_EQ(kro_err::FromErrno("x", ENOTDIR).kind(), kro_err::Kind::kNotFound);
    for (const int error : {EACCES, EPERM, EIO, ENOSPC}) {
        EXPECT_EQ(kro_err::FromErrno("x", error).kind(), kro_err::Kind::kFailed);
    }
}

TEST(Env, ReadsVariables) {
    ::setenv("KRO_TEST_VARIABLE", "value", 1);
    EXPECT_EQ(kro_env::GetEnv("KRO_TEST_VARIABLE"), "value");
    ::unsetenv("KRO_TEST_VARIABLE");
    EXPECT_EQ(kro_env::GetEnv("KRO_TEST_VARIABLE"), "");
}

TEST(Env, KnowsTheInstallRoot) {
    EXPECT_EQ(kro_env::InstallRoot(), "/usr/local/kro5");
    kro_env::SetInstallRoot("/srv/root");
    EXPECT_EQ(kro_env::InstallRoot(), "/srv/root");
    kro_env::SetInstallRoot("/usr/local/kro5");
}

TEST(Thread, RunsAndJoins) {
    std::atomic<int> ran{0};
    kro_thread::Handle thread([&ran] { ++ran; });
    EXPECT_TRUE(thread.joinable());
    thread.Join();
    EXPECT_EQ(ran, 1);
    EXPECT_FALSE(thread.joinable());
    thread.Join();
    {
        const kro_thread::Handle joined([&ran] { ++ran; });
    }
    EXPECT_EQ(ran, 2);
}

TEST(Thread, RethrowsAtEveryJoin) {
    kro_thread::Handle thread([] { throw std::runtime_error("Upload failed"); });
    for (int i = 0; i < 3; ++i) {
        try {
            thread.Join();
            FAIL();
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), "Upload failed");
        }
    }
}

TEST(Thread, DropsAFailureThatNobodyAskedFor) {
    const kro_thread::Handle thread([] { throw std::runtime_error("dropped"); });
}

TEST(Thread, LogsAFailureWhenItHappens) {
    const TempDir dir;
    const auto home = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    std::filesystem::create_directory("var");
    kro_log::Init("prog", 3);
    {
        const kro_thread::Handle thread([] { throw std::runtime_error("100%s wrong\n"); });
    }
    {
        const kro_thread::Handle thread([] { throw 5; });
    }
    kro_log::Close();
    const std::string log = kro_file::ReadE("var/prog.log");
    std::filesystem::current_path(home);
    EXPECT_THAT(log, testing::HasSubstr(" prog main 3: 100%s wrong\\n\n"));
    EXPECT_THAT(log, testing::EndsWith(" prog main 3: A thread ended with an unknown error\n"));
}

std::vector<std::string> Lines(const std::string& path, char separator = '\n') {
    kro_stream::Input input(path);
    std::vector<std::string> lines;
    std::string line;
    while (kro_stream::GetLine(input, line, separator)) lines.push_back(line);
    EXPECT_FALSE(kro_stream::GetLine(input, line, separator));
    return lines;
}

TEST(Stream, ReadsLines) {
    const TempDir dir;
    kro_file::Write(dir / "a", std::string("one\n\nthree\0x\nlast", 17));
    EXPECT_EQ(Lines(dir / "a"),
              (std::vector<std::string>{"one", "", std::string("three\0x", 7), "last"}));
    kro_file::Write(dir / "a", "one\n");
    EXPECT_EQ(Lines(dir / "a"), std::vector<std::string>{"one"});
    kro_file::Write(dir / "a", "a;b\n;");
    EXPECT_EQ(Lines(dir / "a", ';'), (std::vector<std::string>{"a", "b\n"}));
}

TEST(Stream, ReadsLinesLongerThanItsBuffer) {
    const TempDir dir;
    for (const std::size_t size : {65535U, 65536U, 65537U, 200000U}) {
        const std::string line(size, 'x');
        kro_file::Write(dir / "a", line + "\n" + line);
        EXPECT_EQ(Lines(dir / "a"), (std::vector<std::string>{line, line}));
    }
}

TEST(Stream, TakesAMissingFileAsEmpty) {
    const TempDir dir;
    EXPECT_TRUE(Lines(dir / "none").empty());
    kro_file::Write(dir / "empty", "");
    EXPECT_TRUE(Lines(dir / "empty").empty());
    EXPECT_THROW(Lines(dir.path()), kro_err::Error);
}

TEST(Sleep, WaitsAtLeastThatLong) {
    const auto start = std::chrono::steady_clock::now();
    kro_proc::Sleep(30);
    kro_proc::Sleep(0);
    kro_proc::Sleep(-1);
    const auto passed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(passed, std::chrono::milliseconds(30));
    EXPECT_LT(passed, std::chrono::seconds(30));
}

}  // namespace
