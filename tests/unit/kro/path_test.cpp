#include <gtest/gtest.h>

#include "kro/kro_args.h"
#include "kro/kro_file.h"

namespace {

using StringPair = std::pair<std::string, std::string>;

TEST(ConcatPath, JoinsWithExactlyOneSlash) {
    EXPECT_EQ(kro_file::ConcatPath("a", "b"), "a/b");
    EXPECT_EQ(kro_file::ConcatPath("a/", "b"), "a/b");
    EXPECT_EQ(kro_file::ConcatPath("a//", "//b"), "a/b");
    EXPECT_EQ(kro_file::ConcatPath("/", "b"), "/b");
    EXPECT_EQ(kro_file::ConcatPath("/a", "b/c"), "/a/b/c");
}

TEST(ConcatPath, GivesTheOtherSideOfAnEmptyOne) {
    EXPECT_EQ(kro_file::ConcatPath("", "b"), "b");
    EXPECT_EQ(kro_file::ConcatPath("a", ""), "a");
    EXPECT_EQ(kro_file::ConcatPath("a/", ""), "a/");
    EXPECT_EQ(kro_file::ConcatPath("", "/b"), "/b");
    EXPECT_EQ(kro_file::ConcatPath("", ""), "");
}

TEST(SplitPath, GivesDirectoryAndLastComponent) {
    EXPECT_EQ(kro_file::SplitPath("a/b/c"), StringPair("a/b", "c"));
    EXPECT_EQ(kro_file::SplitPath("/a"), StringPair("/", "a"));
    EXPECT_EQ(kro_file::SplitPath("a"), StringPair("", "a"));
    EXPECT_EQ(kro_file::SplitPath("a//b"), StringPair("a", "b"));
    EXPECT_EQ(kro_file::SplitPath("a/b/"), StringPair("a", "b"));
    EXPECT_EQ(kro_file::SplitPath("/"), StringPair("/", ""));
    EXPECT_EQ(kro_file::SplitPath(""), StringPair("", ""));
    EXPECT_EQ(kro_file::Path("var/backup/x.info"), "var/backup");
    EXPECT_EQ(kro_file::Name("var/backup/x.info"), "x.info");
}

TEST(GoodPath, Normalises) {
    EXPECT_EQ(kro_file::GoodPath("a//b/./c/"), "a/b/c");
    EXPECT_EQ(kro_file::GoodPath("/a/../b"), "/b");
    EXPECT_EQ(kro_file::GoodPath("a/b/../../c"), "c");
    EXPECT_EQ(kro_file::GoodPath("../a"), "../a");
    EXPECT_EQ(kro_file::GoodPath("a/../../b"), "../b");
    EXPECT_EQ(kro_file::GoodPath("../../a"), "../../a");
    EXPECT_EQ(kro_file::GoodPath("/../a"), "/a");
    EXPECT_EQ(kro_file::GoodPath("//"), "/");
    EXPECT_EQ(kro_file::GoodPath("/.."), "/");
    EXPECT_EQ(kro_file::GoodPath("..."), "...");
}

TEST(GoodPath, FoldsARelativePathToNothing) {
    EXPECT_EQ(kro_file::GoodPath(""), "");
    EXPECT_EQ(kro_file::GoodPath("."), "");
    EXPECT_EQ(kro_file::GoodPath("a/.."), "");
}

TEST(GetArgPath, NormalisesAndStaysRelative) {
    EXPECT_EQ(GetArgPath("var/backup/tovarn/"), "var/backup/tovarn");
    EXPECT_EQ(GetArgPath("/srv//backup/./x"), "/srv/backup/x");
}

}  // namespace
