// The files that an info file names, and the backup that a file belongs to.
#include <gtest/gtest.h>

#include <stdexcept>

#include "quarn2_cp2_misc_slices.h"

namespace {

using Names = std::vector<std::string>;

TEST(Slices, AreThoseThatTheInfoFileNames) {
    struct Case {
        quarn2::InfoMap info;
        Names names;
    };
    const std::vector<Case> cases = {
        {{}, {}},
        {{{"type", "full"}}, {}},
        {{{"last-slice", ""}}, {}},
        {{{"last-slice", "F2026-11-15.a.tgz 5"}}, {"F2026-11-15.a.tgz"}},
        {{{"last-slice", "Fa.2.dar"}}, {"Fa.1.dar", "Fa.2.dar"}},
        {{{"last-slice", "a/d/Fa.2.dar"}}, {"a/d/Fa.1.dar", "a/d/Fa.2.dar"}},
        {{{"last-slice", "Fa.tgz.part2"}}, {"Fa.tgz.part1", "Fa.tgz.part2"}},
        {{{"last-slice", "Fa.0.dar"}}, {"Fa.0.dar"}},
        {{{"last-slice", "Fa.x.dar"}}, {"Fa.x.dar"}},
        {{{"last-slice", "Fa.tgz"}, {"role-sql", "Fb.tgz.part1"}}, {"Fa.tgz", "Fb.tgz.part1"}},
        {{{"last-slice", "Fa.tgz"}, {"role-sql", "Fa.tgz"}}, {"Fa.tgz"}}};
    for (const Case& c : cases) EXPECT_EQ(NamedSlices(c.info), c.names);
}

TEST(Slices, ThatNoArchiveHasAreAnError) {
    for (const char* last : {"Fa.100001.dar", "Fa.99999999999999999999.dar"}) {
        EXPECT_THROW(NamedSlices({{"last-slice", last}}), std::runtime_error) << last;
    }
    EXPECT_EQ(NamedSlices({{"last-slice", "Fa.100000.dar"}}).size(), 100000U);
}

TEST(Slices, OfWhichTheFirstBeginsTheBackup) {
    for (const char* name : {"F2026-11-15.a.tgz", "x/I2026-11-15.a.1.dar",
                             "C2026-11-15.a.tgz.part1", "F2026-11-15.a.zip"}) {
        EXPECT_TRUE(IsFirstSlice(name)) << name;
    }
    for (const char* name : {"F2026-11-15.a.2.dar", "2026-11-15.a.tgz", "custom.a.tgz",
                             "F2026-11-15.a.tgz.part10", "Fa.1.dar"}) {
        EXPECT_FALSE(IsFirstSlice(name)) << name;
    }
}

TEST(Slices, AndOtherFilesOfABackupShareItsKey) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"F2026-11-15.a.2.dar", "2026-11-15.a"},
        {"x/I2026-11-15.a.tgz.part2", "2026-11-15.a"},
        {"2026-11-15.a.tgz.aes", "2026-11-15.a"},
        {"2026-11-15.a.info", "2026-11-15.a"},
        {"F2026-11-15.a.info", "2026-11-15.a"},
        {"C2026-11-15.a.tgz", "custom.a"},
        {"C2026-11-15.a", "custom.a"},
        {"custom.a.info", "custom.a"}};
    for (const auto& [path, key] : cases) EXPECT_EQ(LedgerKey(path), key) << path;
}

}  // namespace
