#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "child.h"
#include "kro/kro_file.h"
#include "temp_dir.h"

namespace {

bool IsFree(const std::string& path) { return kro_file::Lock().TryLock(path, false); }

TEST(Lock, KeepsASecondOneOutUntilItIsReleased) {
    const TempDir dir;
    kro_file::Lock lock;
    lock.DoLock(dir / "lock", true);
    EXPECT_GE(lock.fd(), 0);
    EXPECT_FALSE(IsFree(dir / "lock"));
    lock.Release();
    EXPECT_EQ(lock.fd(), -1);
    EXPECT_TRUE(IsFree(dir / "lock"));
}

TEST(Lock, MakesTheFilePrivateWhenAskedTo) {
    const TempDir dir;
    kro_file::Lock lock;
    EXPECT_THROW(lock.DoLock(dir / "lock", false), kro_err::Error);
    EXPECT_THROW(lock.TryLock(dir / "lock", false), kro_err::Error);
    EXPECT_TRUE(lock.TryLock(dir / "lock", true));
    struct stat status {};
    ASSERT_EQ(::fstat(lock.fd(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
    EXPECT_NE(::fcntl(lock.fd(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST(Lock, CanTakeItsOwnFileAgain) {
    const TempDir dir;
    kro_file::Lock lock;
    lock.DoLock(dir / "lock", true);
    lock.DoLock(dir / "lock", true);
    EXPECT_TRUE(lock.TryLock(dir / "lock", true));
    EXPECT_FALSE(IsFree(dir / "lock"));
}

TEST(Lock, ReplacesTheContentOfTheVeryFile) {
    const TempDir dir;
    kro_file::Write(dir / "lock", "a long old text");
    kro_file::Lock lock;
    lock.DoLock(dir / "lock", false);
    EXPECT_EQ(lock.Read(), "a long old text");
    struct stat before {};
    ASSERT_EQ(::fstat(lock.fd(), &before), 0);
    lock.Write("12\n2026-11-20");
    struct stat after {};
    ASSERT_EQ(::stat((dir / "lock").c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(lock.Read(), "12\n2026-11-20");
    EXPECT_EQ(kro_file::Read(dir / "lock"), "12\n2026-11-20");
    lock.Write("");
    EXPECT_EQ(kro_file::Size(dir / "lock"), 0);
}

TEST(Lock, BelongsToAForkedChildToo) {
    const TempDir dir;
    const Gate end;
    kro_file::Lock lock;
    lock.DoLock(dir / "lock", true);
    Child child([&] { end.Wait(); });
    lock.Release();
    Child third([&] {
        if (IsFree(dir / "lock")) throw std::runtime_error("free");
    });
    EXPECT_EQ(third.Wait(), 0) << "the child's lock did not outlive the parent's";
    child.Kill();
    EXPECT_EQ(child.Wait(), 128 + SIGKILL);
    EXPECT_TRUE(IsFree(dir / "lock")) << "the child's death did not free the lock";
}

TEST(Lock, WaitsForItsTurn) {
    const TempDir dir;
    kro_file::Lock lock;
    lock.DoLock(dir / "lock", true);
    Child child([&] {
        lock.Release();  // Closes the inherited descriptor, or the child would wait for itself.
        kro_file::Lock().DoLock(dir / "lock", true);
    });
    EXPECT_TRUE(child.StillRuns());
    lock.Release();
    EXPECT_EQ(child.Wait(), 0);
}

TEST(Lock, TakesTheNewFileWhenTheOldOneWasReplacedMeanwhile) {
    const TempDir dir;
    const Gate locked;
    const Gate end;
    kro_file::Lock lock;
    lock.DoLock(dir / "lock", true);
    Child child([&] {
        lock.Release();
        kro_file::Lock own;
        own.DoLock(dir / "lock", true);
        own.Write("new");
        locked.Open();
        end.Wait();
    });
    ASSERT_TRUE(child.StillRuns());
    kro_file::RemoveFile(dir / "lock");
    kro_file::Write(dir / "lock", "replaced");
    lock.Release();
    locked.Wait();
    EXPECT_EQ(kro_file::Read(dir / "lock"), "new");
    EXPECT_FALSE(IsFree(dir / "lock"));
    end.Open();
    EXPECT_EQ(child.Wait(), 0);
}

TEST(Lock, MakesTheFileAgainWhenItWasRemovedMeanwhile) {
    const TempDir dir;
    kro_file::Lock lock;
    lock.DoLock(dir / "lock", true);
    Child child([&] {
        lock.Release();
        kro_file::Lock own;
        own.DoLock(dir / "lock", true);
        own.Write("made again");
    });
    ASSERT_TRUE(child.StillRuns());
    kro_file::RemoveFile(dir / "lock");
    lock.Release();
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(kro_file::Read(dir / "lock"), "made again");
}

}  // namespace
