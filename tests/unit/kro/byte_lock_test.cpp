// Locks on single bytes of a file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <memory>

#include "kro/kro_byte_lock.h"
#include "kro/kro_err.h"
#include "temp_dir.h"

namespace {

using kro_file::ByteLock;

class ByteLocks : public testing::Test {
  protected:
    TempDir dir_;
    const std::string path_ = dir_.path() + "/lock";
};

TEST_F(ByteLocks, OfOneByteExcludeEachOtherAlsoInOneProcess) {
    auto first = std::make_unique<ByteLock>(path_, 7);
    EXPECT_FALSE(ByteLock::Try(path_, 7));
    EXPECT_TRUE(ByteLock::Try(path_, 8)) << "another byte is another lock";
    auto second = std::async(std::launch::async, [this] { const ByteLock lock(path_, 7); });
    EXPECT_EQ(second.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    first.reset();
    second.get();
    EXPECT_TRUE(ByteLock::Try(path_, 7));
}

TEST_F(ByteLocks, AreExaminedWithoutALock) {
    EXPECT_FALSE(ByteLock::IsLocked(path_, 7));
    EXPECT_FALSE(std::filesystem::exists(path_)) << "the file is not made";
    auto lock = std::make_unique<ByteLock>(path_, 7);
    EXPECT_TRUE(ByteLock::IsLocked(path_, 7));
    EXPECT_FALSE(ByteLock::IsLocked(path_, 8));
    lock.reset();
    EXPECT_FALSE(ByteLock::IsLocked(path_, 7));
}

TEST_F(ByteLocks, AreForThisUserAlone) {
    const ByteLock lock(path_, 0);
    EXPECT_EQ(std::filesystem::status(path_).permissions(), std::filesystem::perms(0600));
}

TEST_F(ByteLocks, FollowNoLinkAndNeedAPlainFile) {
    std::filesystem::create_symlink("elsewhere", path_);
    EXPECT_THROW(ByteLock(path_, 0), kro_err::Error);
    std::filesystem::remove(path_);
    std::filesystem::create_directory(path_);
    EXPECT_THROW(ByteLock(path_, 0), kro_err::Error);
    EXPECT_THROW(ByteLock("/no/such/directory/lock", 0), kro_err::Error);
}

}  // namespace
