// Tests with system calls that fail, are interrupted or transfer only a part of the data. The
// linker replaces the real calls with the functions in this file.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <functional>

#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/kro_new_file.h"
#include "kro/str.h"
#include "temp_dir.h"

namespace {

// A fault of a system call. The first `good` calls are real, and the next `times` calls fail with
// `error` (-1: all later calls).
struct Fault {
    int good = 0;
    int times = 0;
    int error = 0;
    int calls = 0;

    bool TryInject() {
        if (++calls <= good || times == 0) return false;
        if (times > 0) --times;
        errno = error;
        return true;
    }
};

struct Faults {
    Fault fsync, rename, pwrite, copy_file_range, ioctl, ftruncate, fchown, flock, getrandom, write,
        syncfs, fallocate;
    bool remote = true;                   // the file systems are NFS, which copies on the server
    std::size_t most_at_once = SIZE_MAX;  // maximum bytes per call
    int end_of_range_copy = -1;       // after this many calls copy_file_range returns 0; -1: never
    std::function<void()> meanwhile;  // called before each copy_file_range and flock
};

Faults faults;

// Calls a copy, because the action may replace itself.
void Meanwhile() {
    const auto action = faults.meanwhile;
    if (action) action();
}

}  // namespace

extern "C" {

// NOLINTBEGIN: the linker's names
int __real_fsync(int fd);
int __wrap_fsync(int fd);
int __wrap_fsync(int fd) { return faults.fsync.TryInject() ? -1 : __real_fsync(fd); }

int __real_rename(const char* from, const char* to);
int __wrap_rename(const char* from, const char* to);
int __wrap_rename(const char* from, const char* to) {
    return faults.rename.TryInject() ? -1 : __real_rename(from, to);
}

ssize_t __real_pwrite(int fd, const void* data, size_t size, off_t offset);
ssize_t __wrap_pwrite(int fd, const void* data, size_t size, off_t offset);
ssize_t __wrap_pwrite(int fd, const void* data, size_t size, off_t offset) {
    if (faults.pwrite.TryInject()) return -1;
    return __real_pwrite(fd, data, std::min(size, faults.most_at_once), offset);
}

ssize_t __real_copy_file_range(int from, off_t* in, int to, off_t* out, size_t size,
                               unsigned flags);
ssize_t __wrap_copy_file_range(int from, off_t* in, int to, off_t* out, size_t size,
                               unsigned flags);
ssize_t __wrap_copy_file_range(int from, off_t* in, int to, off_t* out, size_t size,
                               unsigned flags) {
    Meanwhile();
    if (faults.copy_file_range.TryInject()) return -1;
    if (faults.end_of_range_copy == 0) return 0;
    if (faults.end_of_range_copy > 0) --faults.end_of_range_copy;
    return __real_copy_file_range(from, in, to, out, std::min(size, faults.most_at_once), flags);
}

int __real_ioctl(int fd, unsigned long request, ...);
int __wrap_ioctl(int fd, unsigned long request, ...);
int __wrap_ioctl(int fd, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    const int argument = va_arg(arguments, int);
    va_end(arguments);
    return faults.ioctl.TryInject() ? -1 : __real_ioctl(fd, request, argument);
}

int __real_fallocate(int fd, int mode, off_t offset, off_t size);
int __wrap_fallocate(int fd, int mode, off_t offset, off_t size);
int __wrap_fallocate(int fd, int mode, off_t offset, off_t size) {
    return faults.fallocate.TryInject() ? -1 : __real_fallocate(fd, mode, offset, size);
}

int __wrap_fstatfs(int fd, struct statfs* status);
int __wrap_fstatfs(int, struct statfs* status) {
    *status = {};
    status->f_type = faults.remote ? NFS_SUPER_MAGIC : EXT4_SUPER_MAGIC;
    return 0;
}

int __real_ftruncate(int fd, off_t size);
int __wrap_ftruncate(int fd, off_t size);
int __wrap_ftruncate(int fd, off_t size) {
    return faults.ftruncate.TryInject() ? -1 : __real_ftruncate(fd, size);
}

int __real_fchown(int fd, uid_t user, gid_t group);
int __wrap_fchown(int fd, uid_t user, gid_t group);
int __wrap_fchown(int fd, uid_t user, gid_t group) {
    return faults.fchown.TryInject() ? -1 : __real_fchown(fd, user, group);
}

int __real_flock(int fd, int operation);
int __wrap_flock(int fd, int operation);
int __wrap_flock(int fd, int operation) {
    Meanwhile();
    return faults.flock.TryInject() ? -1 : __real_flock(fd, operation);
}

ssize_t __real_getrandom(void* data, size_t size, unsigned flags);
ssize_t __wrap_getrandom(void* data, size_t size, unsigned flags);
ssize_t __wrap_getrandom(void* data, size_t size, unsigned flags) {
    if (faults.getrandom.TryInject()) return -1;
    return __real_getrandom(data, std::min(size, faults.most_at_once), flags);
}

int __real_syncfs(int fd);
int __wrap_syncfs(int fd);
int __wrap_syncfs(int fd) { return faults.syncfs.TryInject() ? -1 : __real_syncfs(fd); }

ssize_t __real_write(int fd, const void* data, size_t size);
ssize_t __wrap_write(int fd, const void* data, size_t size);
ssize_t __wrap_write(int fd, const void* data, size_t size) {
    return faults.write.TryInject() ? -1 : __real_write(fd, data, size);
}
// NOLINTEND

}  // extern "C"

namespace {

class FaultTest : public testing::Test {
  protected:
    FaultTest() {
        faults = Faults();
        arm = [] {};
    }
    ~FaultTest() override { faults = Faults(); }

    // The errno of the CopyError that the call throws.
    template <class Call>
    static int CopyErrorOf(Call call) {
        try {
            call();
        } catch (const kro_file::CopyError& error) {
            return error.error();
        }
        return 0;
    }

    static kro_file::Copied CopyText(const TempDir& dir, const std::string& text) {
        kro_file::Write(dir / "from", text);
        const ResHandle from(::open((dir / "from").c_str(), O_RDONLY | O_CLOEXEC));
        const ResHandle to(
            ::open((dir / "to").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        // Sets the fault after the source was written, because only the copy must fail.
        faults.ioctl = Fault{0, -1, EOPNOTSUPP, 0};
        arm();
        return kro_file::CopyData(from, to, static_cast<std::int64_t>(text.size()));
    }

    // Sets the faults for CopyText.
    inline static std::function<void()> arm;

    TempDir dir_;
};

TEST_F(FaultTest, AFailedSyncLeavesTheOldFile) {
    kro_file::Write(dir_ / "a", "old");
    faults.fsync = {0, 1, EIO, 0};
    EXPECT_EQ(CopyErrorOf([&] { kro_file::Write(dir_ / "a", "new"); }), EIO);
    EXPECT_EQ(kro_file::Read(dir_ / "a"), "old");
    EXPECT_FALSE(kro_file::Exists(dir_ / ".a.part~"));
}

TEST_F(FaultTest, AFailedRenameLeavesTheOldFile) {
    kro_file::Write(dir_ / "a", "old");
    faults.rename = {0, 1, EDQUOT, 0};
    EXPECT_EQ(CopyErrorOf([&] { kro_file::Write(dir_ / "a", "new"); }), EDQUOT);
    EXPECT_EQ(kro_file::Read(dir_ / "a"), "old");
    EXPECT_FALSE(kro_file::Exists(dir_ / ".a.part~"));
}

TEST_F(FaultTest, AFailedSyncOfTheDirectoryIsToldThoughTheFileAppeared) {
    kro_file::Write(dir_ / "a", "old");
    faults.fsync = {1, 1, EIO, 0};
    EXPECT_EQ(CopyErrorOf([&] { kro_file::Write(dir_ / "a", "new"); }), EIO);
    EXPECT_EQ(kro_file::Read(dir_ / "a"), "new");
}

TEST_F(FaultTest, AFullDiskLeavesTheOldFile) {
    kro_file::Write(dir_ / "a", "old");
    faults.pwrite = {1, -1, ENOSPC, 0};
    faults.most_at_once = 2;
    EXPECT_EQ(CopyErrorOf([&] { kro_file::Write(dir_ / "a", "new"); }), ENOSPC);
    EXPECT_EQ(kro_file::Read(dir_ / "a"), "old");
    EXPECT_FALSE(kro_file::Exists(dir_ / ".a.part~"));
}

TEST_F(FaultTest, WritingSyncsTheFileAndItsDirectory) {
    kro_file::Write(dir_ / "a", "x");
    EXPECT_EQ(faults.fsync.calls, 2);
}

TEST_F(FaultTest, ACommitForLaterSyncsNothing) {
    kro_file::NewFile(dir_ / "a").Commit(kro_file::NewFile::Durability::kLater);
    EXPECT_EQ(faults.fsync.calls, 0);
    EXPECT_TRUE(kro_file::Exists(dir_ / "a"));
    faults.rename = {0, 1, EDQUOT, 0};
    EXPECT_EQ(CopyErrorOf([&] {
                  kro_file::NewFile(dir_ / "b").Commit(kro_file::NewFile::Durability::kLater);
              }),
              EDQUOT);
    EXPECT_FALSE(kro_file::Exists(dir_ / "b"));
    EXPECT_FALSE(kro_file::Exists(dir_ / ".b.part~"));
}

TEST_F(FaultTest, AFileSystemThatCannotBeSyncedIsTold) {
    const auto sync = [](const std::string& path) {
        try {
            kro_file::SyncFileSystem(path);
        } catch (const kro_err::Error& error) {
            return std::string(error.what());
        }
        return std::string("(no error)");
    };
    EXPECT_EQ(sync(dir_.path()), "(no error)");
    EXPECT_EQ(sync(dir_ / "no"), "Failed to sync the file system of '" + (dir_ / "no") +
                                     "': No such file or directory");
    faults.syncfs = {0, 2, EINTR, 0};
    EXPECT_EQ(sync(dir_.path()), "(no error)");
    EXPECT_EQ(faults.syncfs.calls, 3);
    faults.syncfs = {0, 1, EIO, 0};
    EXPECT_EQ(sync(dir_.path()),
              "Failed to sync the file system of '" + dir_.path() + "': Input/output error");
}

TEST_F(FaultTest, CopyProgressAddsUpWhereverTheKernelStops) {
    const std::string text = str::Random(100000);
    for (const int calls : {0, 1, 2}) {
        faults = Faults();
        kro_file::Write(dir_ / "from", text);
        const ResHandle from(::open((dir_ / "from").c_str(), O_RDONLY | O_CLOEXEC));
        const ResHandle to(
            ::open((dir_ / "to").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        faults.ioctl = {0, -1, EOPNOTSUPP, 0};
        faults.most_at_once = 30000;
        faults.end_of_range_copy = calls;
        std::int64_t sum = 0;
        kro_file::CopyData(from, to, 100000, [&sum](std::int64_t bytes) { sum += bytes; });
        EXPECT_EQ(sum, 100000);
    }
}

TEST_F(FaultTest, WritingGoesOnAfterPartsAndInterruptions) {
    faults.most_at_once = 3;
    faults.pwrite = {1, 2, EINTR, 0};
    faults.fsync = {0, 1, EINTR, 0};
    faults.flock = {0, 2, EINTR, 0};
    kro_file::Write(dir_ / "a", "a longer text");
    EXPECT_EQ(kro_file::Read(dir_ / "a"), "a longer text");
}

TEST_F(FaultTest, AnOwnerThatCannotBeKeptIsNoFailure) {
    kro_file::Write(dir_ / "a", "old", 0640);
    kro_file::Attrs(dir_ / "a", 0640);
    faults.fchown = {0, -1, EPERM, 0};
    kro_file::Write(dir_ / "a", "new");
    EXPECT_EQ(kro_file::Read(dir_ / "a"), "new");
    struct stat status {};
    ASSERT_EQ(::stat((dir_ / "a").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U);
    faults.fchown = {0, -1, EIO, 0};
    EXPECT_THROW(kro_file::Write(dir_ / "a", "newer"), kro_err::Error);
    EXPECT_EQ(kro_file::Read(dir_ / "a"), "new");
}

TEST_F(FaultTest, ALockSurvivesInterruptionsAndTellsFailures) {
    kro_file::Lock lock;
    faults.flock = {0, 3, EINTR, 0};
    lock.DoLock(dir_ / "lock", true);
    EXPECT_FALSE(kro_file::Lock().TryLock(dir_ / "lock", false));
    faults.fsync = {0, 1, EIO, 0};
    EXPECT_THROW(lock.Write("x"), kro_err::Error);
    faults.pwrite = {faults.pwrite.calls, 1, ENOSPC, faults.pwrite.calls};
    EXPECT_THROW(lock.Write("x"), kro_err::Error);
    faults.ftruncate = {0, 1, EIO, 0};
    EXPECT_THROW(lock.Write("x"), kro_err::Error);
    lock.Write("after all");
    EXPECT_EQ(lock.Read(), "after all");
    faults.flock = {0, 1, ENOLCK, 0};
    EXPECT_THROW(kro_file::Lock().TryLock(dir_ / "other", true), kro_err::Error);
}

TEST_F(FaultTest, ALockOnAFileThatIsReplacedAllTheTimeIsGivenUp) {
    faults.meanwhile = [this] {
        faults.meanwhile = nullptr;  // prevents a recursion, because Write() calls flock too
        kro_file::Write(dir_ / "lock", "another");
    };
    kro_file::Lock once;
    once.DoLock(dir_ / "lock", true);
    EXPECT_EQ(once.Read(), "another");
    once.Release();

    faults.flock.calls = 0;
    faults.meanwhile = [this] { kro_file::RemoveFile(dir_ / "lock"); };
    EXPECT_THROW(kro_file::Lock().DoLock(dir_ / "lock", true), kro_err::Error);
    EXPECT_EQ(faults.flock.calls, 100);
}

TEST_F(FaultTest, AFileSystemWithoutLocksIsTold) {
    kro_file::Write(dir_ / ".b.part~", "leftover");
    faults.flock = {0, -1, ENOLCK, 0};
    EXPECT_THROW(kro_file::NewFile(dir_ / "a"), kro_err::Error);
    EXPECT_THROW(kro_file::NewFile(dir_ / "b"), kro_err::Error);
    kro_file::RemoveTemporary(dir_ / "b");
    EXPECT_TRUE(kro_file::Exists(dir_ / ".b.part~"));
}

TEST_F(FaultTest, ACopyOnThisMachinesDiskDoesNotAskTheKernel) {
    const std::string text = str::Random(3000001);
    arm = [] { faults.remote = false; };
    EXPECT_EQ(CopyText(dir_, text), kro_file::Copied::kAll);
    EXPECT_EQ(kro_file::Read(dir_ / "to"), text);
    EXPECT_EQ(faults.copy_file_range.calls, 0);
    EXPECT_EQ(faults.fallocate.calls, 0) << "too small to be worth it";
}

TEST_F(FaultTest, AFullDiskShowsBeforeALargeCopyBegins) {
    const std::string text(5000000, 'x');
    for (const int error : {ENOSPC, EDQUOT}) {
        arm = [error] { faults.fallocate = {0, -1, error, 0}; };
        try {
            CopyText(dir_, text);
            FAIL();
        } catch (const kro_file::CopyError& failure) {
            EXPECT_EQ(failure.error(), error);
        }
        EXPECT_EQ(faults.copy_file_range.calls, 0);
        faults = {};
    }
}

TEST_F(FaultTest, AFileSystemThatCannotAllocateIsCopiedTo) {
    const std::string text(5000000, 'x');
    arm = [] { faults.fallocate = {0, -1, EOPNOTSUPP, 0}; };
    EXPECT_EQ(CopyText(dir_, text), kro_file::Copied::kAll);
    EXPECT_EQ(kro_file::Read(dir_ / "to"), text);
}

class CopyFault : public FaultTest, public testing::WithParamInterface<int> {};

TEST_P(CopyFault, CopiesThePlainWayWhenTheKernelCannot) {
    const std::string text = str::Random(3000001);
    arm = [] { faults.copy_file_range = {0, -1, GetParam(), 0}; };
    EXPECT_EQ(CopyText(dir_, text), kro_file::Copied::kAll);
    EXPECT_EQ(kro_file::Read(dir_ / "to"), text);
    EXPECT_EQ(faults.copy_file_range.calls, 1);
}

TEST_P(CopyFault, GoesOnThePlainWayWhereTheKernelStopped) {
    const std::string text = str::Random(3000001);
    arm = [] {
        faults.most_at_once = 700000;
        faults.copy_file_range = {2, -1, GetParam(), 0};
    };
    EXPECT_EQ(CopyText(dir_, text), kro_file::Copied::kAll);
    EXPECT_EQ(kro_file::Read(dir_ / "to"), text);
    EXPECT_EQ(faults.copy_file_range.calls, 3);
}

INSTANTIATE_TEST_SUITE_P(Errors, CopyFault,
                         testing::Values(EXDEV, EINVAL, ENOSYS, EOPNOTSUPP, EPERM, EBADF, EIO));

TEST_F(FaultTest, CopiesThePlainWayWhenTheKernelCopiesNothing) {
    const std::string text = str::Random(100000);
    for (const int calls : {0, 1}) {
        arm = [calls] {
            faults.most_at_once = 30000;
            faults.end_of_range_copy = calls;
        };
        EXPECT_EQ(CopyText(dir_, text), kro_file::Copied::kAll);
        EXPECT_EQ(kro_file::Read(dir_ / "to"), text);
        faults = Faults();
    }
}

TEST_F(FaultTest, CopyGoesOnAfterInterruptions) {
    const std::string text = str::Random(100000);
    arm = [] {
        faults.most_at_once = 30000;
        faults.copy_file_range = {1, 2, EINTR, 0};
    };
    EXPECT_EQ(CopyText(dir_, text), kro_file::Copied::kAll);
    EXPECT_EQ(kro_file::Read(dir_ / "to"), text);
    EXPECT_EQ(faults.copy_file_range.calls, 6);
}

TEST_F(FaultTest, CopyTellsASourceThatChangesMeanwhile) {
    const std::string text = str::Random(100000);
    for (const unsigned size : {40000U, 99999U, 100001U}) {
        arm = [this, size] {
            faults.most_at_once = 30000;
            faults.meanwhile = [this, size] { std::filesystem::resize_file(dir_ / "from", size); };
        };
        EXPECT_EQ(CopyText(dir_, text), size < 100000 ? kro_file::Copied::kSourceShorter
                                                      : kro_file::Copied::kSourceLonger);
        faults = Faults();
    }
}

TEST_F(FaultTest, CopyTellsAFullDisk) {
    arm = [] {
        faults.copy_file_range = {0, -1, ENOSPC, 0};
        faults.pwrite = {0, -1, ENOSPC, 0};
    };
    EXPECT_EQ(CopyErrorOf([&] { CopyText(dir_, "text"); }), ENOSPC);
}

TEST_F(FaultTest, RandomGoesOnAfterPartsAndTellsFailures) {
    faults.most_at_once = 4;
    faults.getrandom = {1, 1, EINTR, 0};
    EXPECT_EQ(str::Random(15).size(), 15U);
    EXPECT_EQ(faults.getrandom.calls, 5);
    faults.getrandom = {0, 1, ENOSYS, 0};
    EXPECT_THROW(str::Random(15), kro_err::Error);
}

TEST_F(FaultTest, LogLosesOnlyTheLineThatTheDiskRefused) {
    constexpr kro_log::Module kMain("main");
    const auto home = std::filesystem::current_path();
    std::filesystem::current_path(dir_.path());
    std::filesystem::create_directory("var");
    kro_log::Init("prog", 5);
    faults.write = {1, 1, ENOSPC, 0};
    for (const char* text : {"one", "two", "three"}) kMain.Text(5, text);
    kro_log::Close();
    const std::string log = kro_file::Read("var/prog.log");
    std::filesystem::current_path(home);
    EXPECT_NE(log.find(": one\n"), log.npos);
    EXPECT_EQ(log.find(": two\n"), log.npos);
    EXPECT_NE(log.find(": three\n"), log.npos);
    EXPECT_EQ(faults.write.calls, 3);
}

}  // namespace
