#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kro/kro_file.h"
#include "kro/str.h"
#include "temp_dir.h"

namespace {

using kro_file::Copied;

ResHandle OpenNew(const std::string& path) {
    return ResHandle(::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
}

ResHandle OpenOld(const std::string& path) {
    return ResHandle(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

struct stat StatusOf(int fd) {
    struct stat status {};
    EXPECT_EQ(::fstat(fd, &status), 0);
    return status;
}

TEST(CopyData, CopiesWhatItIsGiven) {
    const TempDir dir;
    for (const std::size_t size : {0U, 1U, 4096U, 3000001U}) {
        const std::string text = str::Random(size);
        kro_file::Write(dir / "from", text);
        const ResHandle to = OpenNew(dir / "to");
        EXPECT_EQ(kro_file::CopyData(OpenOld(dir / "from"), to, static_cast<std::int64_t>(size)),
                  Copied::kAll);
        EXPECT_EQ(kro_file::Read(dir / "to"), text);
    }
}

TEST(CopyData, TellsASourceThatIsNotAsLongAsSaid) {
    const TempDir dir;
    kro_file::Write(dir / "from", std::string(1000, 'x'));
    EXPECT_EQ(kro_file::CopyData(OpenOld(dir / "from"), OpenNew(dir / "to"), 1001),
              Copied::kSourceShorter);
    EXPECT_EQ(kro_file::CopyData(OpenOld(dir / "from"), OpenNew(dir / "to"), 999),
              Copied::kSourceLonger);
    EXPECT_EQ(kro_file::CopyData(OpenOld(dir / "from"), OpenNew(dir / "to"), 0),
              Copied::kSourceLonger);
}

TEST(CopyData, KeepsHoles) {
    const TempDir dir;
    constexpr off_t kSize = off_t{4} << 30;
    const ResHandle from = OpenNew(dir / "from");
    const std::string block = str::Random(100000);
    const auto put = [&](off_t offset) {
        ASSERT_EQ(::pwrite(from, block.data(), block.size(), offset), 100000);
    };
    put(8 << 20);
    put(off_t{3} << 30);
    ASSERT_EQ(::ftruncate(from, kSize), 0);
    const ResHandle to = OpenNew(dir / "to");
    EXPECT_EQ(kro_file::CopyData(from, to, kSize), Copied::kAll);
    EXPECT_EQ(StatusOf(to).st_size, kSize);
    EXPECT_LT(StatusOf(to).st_blocks * 512, 4 << 20);
    for (const off_t offset : {off_t{8} << 20, off_t{3} << 30}) {
        std::string copy(block.size(), '\0');
        ASSERT_EQ(::pread(to, copy.data(), copy.size(), offset), 100000);
        EXPECT_EQ(copy, block);
    }
}

TEST(CopyData, KeepsAFileThatIsOneHole) {
    const TempDir dir;
    const ResHandle from = OpenNew(dir / "from");
    ASSERT_EQ(::ftruncate(from, 5000000), 0);
    const ResHandle to = OpenNew(dir / "to");
    EXPECT_EQ(kro_file::CopyData(from, to, 5000000), Copied::kAll);
    EXPECT_EQ(kro_file::Read(dir / "to"), std::string(5000000, '\0'));
    EXPECT_EQ(StatusOf(to).st_blocks, 0);
}

// Returns the sum of the bytes that a copy reports as progress; -1 if a report was not positive.
std::int64_t Reported(int from, int to, std::int64_t size) {
    std::int64_t sum = 0;
    bool empty = false;
    kro_file::CopyData(from, to, size, [&](std::int64_t bytes) {
        empty = empty || bytes <= 0;
        sum += bytes;
    });
    return empty ? -1 : sum;
}

TEST(CopyData, ProgressAddsUp) {
    const TempDir dir;
    for (const std::size_t size : {0U, 1U, 4096U, (40U << 20) + 1}) {
        kro_file::Write(dir / "from", str::Random(size));
        EXPECT_EQ(
            Reported(OpenOld(dir / "from"), OpenNew(dir / "to"), static_cast<std::int64_t>(size)),
            static_cast<std::int64_t>(size));
    }
}

TEST(CopyData, ProgressCountsHoles) {
    const TempDir dir;
    constexpr off_t kSize = 64 << 20;
    const ResHandle from = OpenNew(dir / "from");
    ASSERT_EQ(::ftruncate(from, kSize), 0);
    EXPECT_EQ(Reported(from, OpenNew(dir / "to"), kSize), kSize);
    for (const off_t offset : {off_t{8} << 20, off_t{40} << 20}) {
        ASSERT_EQ(::pwrite(from, "data", 4, offset), 4);
        EXPECT_EQ(Reported(from, OpenNew(dir / "to"), kSize), kSize);
    }
}

TEST(CopyData, TellsAnErrorByItsNumber) {
    const TempDir dir;
    kro_file::Write(dir / "from", "text");
    try {
        kro_file::CopyData(OpenOld(dir / "from"), OpenOld(dir / "from"), 4);
        FAIL();
    } catch (const kro_file::CopyError& error) {
        EXPECT_EQ(error.error(), EBADF);
        EXPECT_EQ(error.type(), "failed");
    }
    try {
        kro_file::CopyData(-1, OpenNew(dir / "to"), 4);
        FAIL();
    } catch (const kro_file::CopyError& error) {
        EXPECT_EQ(error.error(), EBADF);
    }
}

TEST(CopyData, TellsAFullDisk) {
    const TempDir dir;
    kro_file::Write(dir / "from", "text");
    const ResHandle full(::open("/dev/full", O_RDWR | O_CLOEXEC));
    ASSERT_TRUE(full);
    try {
        kro_file::CopyData(OpenOld(dir / "from"), full, 4);
        FAIL();
    } catch (const kro_file::CopyError& error) {
        EXPECT_EQ(error.error(), ENOSPC);
    }
}

}  // namespace
