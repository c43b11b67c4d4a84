// The account: limits of the command line, records, sums, and the values of a new and of a cleared
// account.
#include <gtest/gtest.h>

#include "arguments.h"
#include "program_site.h"
#include "quarn2/token.h"
#include "quarn2_cp2_server_model.h"

namespace {

using StorageDesc = GlobalSizeControl::StorageDesc;
using UserDesc = StorageDesc::UserDesc;
using BackupInfo = UserDesc::BackupInfo;

constexpr std::int32_t kNoCount = 2147483647;
constexpr std::int64_t kNoSize = 9223372036854775807;

// --- Limits ---

struct Limits {
    const char* count;
    const char* size;
    std::int32_t full;
    std::int32_t daily;
    std::int64_t bytes;
};

TEST(ServerLimits, OfEveryUsableText) {
    const Limits cases[] = {
        {"", "", kNoCount, 0, kNoSize},
        {"0", "0", kNoCount, 0, kNoSize},
        {"5", "1", 5, 0, 1},
        {"0:7", "0", kNoCount, 7, kNoSize},
        {":7", "0", kNoCount, 7, kNoSize},
        {"5:", "0", 5, 0, kNoSize},
        {"5:0", "0", 5, 0, kNoSize},
        {"5:7", "9223372036854775807", 5, 7, kNoSize},
        {"2147483647:2147483647", "9223372036854775806", kNoCount, kNoCount, kNoSize - 1},
        {"+5:+7", "+100", 5, 7, 100},
        {"007", "0010", 7, 0, 10},
    };
    for (const Limits& limits : cases) {
        SCOPED_TRACE(std::string(limits.count) + " " + limits.size);
        const ServerLimits parsed = ServerLimits::Parse(limits.count, limits.size);
        EXPECT_EQ(parsed.full, limits.full);
        EXPECT_EQ(parsed.daily, limits.daily);
        EXPECT_EQ(parsed.size, limits.bytes);
    }
}

TEST(ServerLimits, CountsThatCannotBeReadAreQuoted) {
    for (const char* count : {"x", "-1", "5:-1", "5:x", "5:7:9", "2147483648", "5:2147483648",
                              "1.5", " 5", "5 ", "5:7 ", "99999999999999999999", "5,7"}) {
        EXPECT_EQ(TextOf<std::runtime_error>([&] { ServerLimits::Parse(count, "0"); }),
                  std::string("--count-limit '") + count +
                      "' cannot be used: expected FULL or FULL:DAILY, two whole numbers (a FULL of "
                      "0 sets no limit)");
    }
}

TEST(ServerLimits, SizesThatCannotBeReadAreQuoted) {
    for (const char* size : {"10G", "-1", "9223372036854775808", "1e9", "0x10", " 1", "1:2"}) {
        EXPECT_EQ(TextOf<std::runtime_error>([&] { ServerLimits::Parse("0", size); }),
                  std::string("--size-limit '") + size +
                      "' cannot be used: expected a whole number of bytes (0 sets no limit)");
    }
}

// --- Sums ---

TEST(Sums, StayAtTheEndsOfTheRange) {
    constexpr std::int64_t kMinSize = std::numeric_limits<std::int64_t>::min();
    EXPECT_EQ(SumOfSizes(2, 3), 5);
    EXPECT_EQ(SumOfSizes(kNoSize, 1), kNoSize);
    EXPECT_EQ(SumOfSizes(kMinSize, -1), kMinSize);
    EXPECT_EQ(LessSize(2, 3), -1);
    EXPECT_EQ(LessSize(kMinSize, 1), kMinSize);
    EXPECT_EQ(LessSize(kNoSize, -1), kNoSize);
    EXPECT_EQ(LessSize(0, kMinSize), kNoSize);
}

// --- Records ---

UserDesc User(const std::vector<std::pair<std::int64_t, int>>& records) {
    UserDesc user;
    int day = 10;
    for (const auto& [size, type] : records) {
        user.backups["2026-11-" + std::to_string(day++)] = BackupInfo{size, type, false};
    }
    return user;
}

TEST(LockedSize, IsTheNewestChainsFirstAndLast) {
    EXPECT_EQ(User({{10, 0}, {2, 1}, {3, 1}}).GetLockedSize(), 13);
    EXPECT_EQ(User({{10, 0}, {20, 0}}).GetLockedSize(), 20);
    EXPECT_EQ(User({{2, 1}, {3, 1}}).GetLockedSize(), 3);
    EXPECT_EQ(User({{10, 0}}).GetLockedSize(), 10);
    EXPECT_EQ(User({{7, 1}}).GetLockedSize(), 7);
    EXPECT_EQ(User({{10, 0}, {20, 0}, {1, 1}}).GetLockedSize(), 21);
    EXPECT_EQ(User({{10, 0}, {5, 2}}).GetLockedSize(), 15) << "another type is no full backup";
    EXPECT_EQ(User({{kNoSize, 0}, {5, 1}}).GetLockedSize(), kNoSize);
}

TEST(Records, MadeByTheIndexOperatorAreEmptyDailies) {
    UserDesc user;
    const BackupInfo& backup = user.backups["2026-11-20"];
    EXPECT_EQ(backup.size, 0);
    EXPECT_EQ(backup.type, 1);
    EXPECT_FALSE(backup.locked);
}

TEST(Records, AreFullByTheirTypeAlone) {
    EXPECT_TRUE(UserDesc::IsFull({"d", BackupInfo{0, 0, true}}));
    EXPECT_FALSE(UserDesc::IsFull({"d", BackupInfo{0, 1, false}}));
    EXPECT_FALSE(UserDesc::IsFull({"d", BackupInfo{0, 2, false}}));
}

TEST(Records, ANewStorageIsAllZero) {
    const StorageDesc storage;
    EXPECT_EQ(storage.owner, nullptr);
    EXPECT_EQ(storage.limit, 0);
    EXPECT_EQ(storage.free_size, 0);
    EXPECT_EQ(storage.reserved, 0);
    EXPECT_TRUE(storage.users.empty());
    EXPECT_EQ(storage.storage, nullptr);
}

// --- The account ---

class Account : public ProgramSite {};

TEST_F(Account, TakesItsLimitsFromTheCommandLineAndSaysSo) {
    const GlobalSizeControl control(
        *Arguments({"--count-limit", "5:7", "--size-limit", "100", "--path", "var/b"}));
    EXPECT_EQ(control.full_limit, 5);
    EXPECT_EQ(control.daily_limit, 7);
    EXPECT_EQ(control.size_limit, 100);
    EXPECT_EQ(control.path, "var/b");
    EXPECT_FALSE(control.common_storage);
    EXPECT_EQ(control.max_count, 0);
    EXPECT_EQ(control.date, "");
    EXPECT_TRUE(control.storages.empty());
    EXPECT_EQ(Log(),
              (Lines{"5: Global size control. Size limit: 100, limit full: 5, limit daily: 7"}));
}

TEST_F(Account, WithoutLimitsHasTheLargestNumbers) {
    const GlobalSizeControl control(*Arguments({}));
    EXPECT_EQ(control.path, "var/backup/tovarn");
    EXPECT_EQ(Log(), (Lines{"5: Global size control. Size limit: 9223372036854775807, limit full: "
                            "2147483647, limit daily: 0"}));
}

TEST_F(Account, RegistersItsOneStorage) {
    GlobalSizeControl control(*Arguments({"--size-limit", "100"}));
    ClearLog();
    const auto storage = quarn2::GetStorage(quarn2::BackupToken("memory:site"));
    StorageDesc& desc = control.AddStorage(storage);
    EXPECT_TRUE(control.common_storage);
    EXPECT_EQ(control.storages.size(), 1U);
    EXPECT_EQ(&control.storages.at(""), &desc);
    EXPECT_EQ(desc.owner, &control);
    EXPECT_EQ(desc.storage, storage);
    EXPECT_EQ(desc.limit, 100);
    EXPECT_EQ(desc.free_size, 100);
    EXPECT_EQ(desc.reserved, 0);
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<void*>(&desc));
    EXPECT_EQ(Log(), (Lines{std::string("5: Add node '', size limit: 100, ") + address}));
}

TEST_F(Account, ClearedKeepsItsUsersAndItsCount) {
    GlobalSizeControl control;
    control.size_limit = 100;
    control.max_count = 9;
    control.path = "p";
    control.date = "2026-11-20";
    StorageDesc& desc = control.storages[""];
    desc.storage = quarn2::GetStorage(quarn2::BackupToken("memory:site"));
    desc.limit = 1;
    desc.free_size = 2;
    desc.reserved = 3;
    desc.users["web1"] = User({{10, 0}});
    control.ClearBackupInfo();
    EXPECT_EQ(desc.limit, 100);
    EXPECT_EQ(desc.free_size, 100);
    EXPECT_EQ(desc.reserved, 0);
    ASSERT_EQ(desc.users.size(), 1U);
    EXPECT_TRUE(desc.users.at("web1").backups.empty());
    EXPECT_EQ(control.max_count, 9);
    EXPECT_EQ(control.path, "p");
    EXPECT_EQ(control.date, "2026-11-20");
    EXPECT_NE(desc.storage, nullptr);
    EXPECT_EQ(Log(), (Lines{"8: void GlobalSizeControl::ClearBackupInfo()"}));
}

TEST_F(Account, GreatestUsedSizeIsThatOfTheFullestStorage) {
    GlobalSizeControl control;
    EXPECT_EQ(control.MaxUsedSize(), 0);
    control.size_limit = 100;
    control.storages["a"].free_size = 70;
    control.storages["b"].free_size = -20;
    EXPECT_EQ(control.MaxUsedSize(), 120);
    control.storages["b"].free_size = 150;
    EXPECT_EQ(control.MaxUsedSize(), 30);
}

}  // namespace
