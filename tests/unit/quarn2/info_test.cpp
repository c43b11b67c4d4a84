#include "quarn2/info.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "kro/kro_err.h"
#include "kro/str.h"
#include "local_files.h"
#include "temp_dir.h"

using namespace quarn2;
using kro_err::Kind;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

// --- GetInfo ---

InfoMap InfoOf(const std::string& text) {
    const TempDir dir;
    local_files::Save(dir / "x.info", text);
    return GetInfo(dir / "x.info");
}

struct Failure {
    Kind kind;
    std::string text;
};

std::optional<Failure> FailureOf(const std::string& path) {
    try {
        GetInfo(path);
    } catch (const kro_err::Error& error) {
        return Failure{error.kind(), error.what()};
    }
    return std::nullopt;
}

TEST(GetInfo, ReadsKeysAndValues) {
    EXPECT_EQ(InfoOf("size=12\ntype=full\n"), (InfoMap{{"size", "12"}, {"type", "full"}}));
    EXPECT_EQ(InfoOf("size=12\ntype=full"), (InfoMap{{"size", "12"}, {"type", "full"}}));
    EXPECT_EQ(InfoOf(""), InfoMap());
    EXPECT_EQ(InfoOf("\n\n"), InfoMap());
}

TEST(GetInfo, CutsAtTheFirstEqualsSign) {
    EXPECT_EQ(InfoOf("a=b=c\ndeleted\n=x\ne="),
              (InfoMap{{"", "x"}, {"a", "b=c"}, {"deleted", ""}, {"e", ""}}));
}

TEST(GetInfo, TakesLinesOfOtherSystems) {
    EXPECT_EQ(InfoOf("a=1\r\n\r\nb=2\r\n"), (InfoMap{{"a", "1"}, {"b", "2"}}));
    EXPECT_EQ(InfoOf("a= 1 \nb=x\ry"), (InfoMap{{"a", " 1 "}, {"b", "x\ry"}}));
}

TEST(GetInfo, KeepsTheLastOfARepeatedKey) {
    EXPECT_EQ(InfoOf("b=1\na=2\nb=3\n"), (InfoMap{{"a", "2"}, {"b", "3"}}));
}

TEST(GetInfo, AgreesWithSplitAndJoin) {
    const std::string text = "zz=1\na=2\r\n\n=\nkey\nb=c=d\nzz=3";
    EXPECT_EQ(InfoOf(text), str::Split(text, "\n"));
    EXPECT_EQ(str::Join(InfoOf("b=1\na=2\n"), "\n"), "a=2\nb=1");
}

TEST(GetInfo, ReadsFilesLargerThanOneBuffer) {
    for (const std::size_t size : {8191U, 8192U, 8193U, 20'000U, 500'000U}) {
        const std::string value(size - 2, 'v');
        const InfoMap info = InfoOf("k=" + value);
        ASSERT_EQ(info.size(), 1U);
        EXPECT_TRUE(info.at("k") == value) << size;
    }
}

TEST(GetInfo, FailuresNameThePath) {
    const TempDir dir;
    const std::string missing = dir / "a\nb.info";
    ASSERT_TRUE(FailureOf(missing));
    EXPECT_EQ(FailureOf(missing)->kind, Kind::kNotFound);
    EXPECT_THAT(FailureOf(missing)->text, HasSubstr("/a\\x0ab.info'"));

    ASSERT_TRUE(FailureOf(dir.path()));
    EXPECT_EQ(FailureOf(dir.path())->kind, Kind::kFailed);
    EXPECT_EQ(FailureOf(dir.path())->text,
              "Failed to read info file '" + dir.path() + "': Is a directory");

    local_files::Save(dir / "nul.info", std::string("a=1\0\n", 5));
    ASSERT_TRUE(FailureOf(dir / "nul.info"));
    EXPECT_EQ(FailureOf(dir / "nul.info")->text,
              "'" + (dir / "nul.info") + "' is not an info file: it contains a NUL byte");

    local_files::Save(dir / "large.info", std::string(1024 * 1024 + 1, 'x'));
    ASSERT_TRUE(FailureOf(dir / "large.info"));
    EXPECT_EQ(FailureOf(dir / "large.info")->text,
              "'" + (dir / "large.info") + "' is too large for an info file");
}

TEST(GetInfo, DoesNotWaitForAPipe) {
    const TempDir dir;
    ASSERT_EQ(mkfifo((dir / "x.info").c_str(), 0600), 0);
    EXPECT_EQ(GetInfo(dir / "x.info"), InfoMap());
}

// --- GetInfoFile ---

TEST(GetInfoFile, IsTheBareNameWithoutADirectory) {
    EXPECT_EQ(GetInfoFile("", "web1", "2026-11-20"), "2026-11-20.web1.info");
    EXPECT_EQ(GetInfoFile("", "web1", "custom"), "custom.web1.info");
}

TEST(GetInfoFile, IsTheFirstThatExistsElseTheFirst) {
    const TempDir dir;
    const std::string name = "2026-11-20.web1.info";
    const auto find = [&] { return GetInfoFile(dir.path(), "web1", "2026-11-20"); };
    EXPECT_EQ(find(), dir / name);
    std::filesystem::create_directories(dir / "web1/2026-11-20");
    local_files::Save(dir / ("web1/2026-11-20/" + name), "");
    EXPECT_EQ(find(), dir / ("web1/2026-11-20/" + name));
    std::filesystem::create_directories(dir / "2026-11-20");
    local_files::Save(dir / ("2026-11-20/" + name), "");
    EXPECT_EQ(find(), dir / ("2026-11-20/" + name));
    local_files::Save(dir / name, "");
    EXPECT_EQ(find(), dir / name);
}

// Names come from storage listings, the master link and other machines, so they may be hostile.
TEST(GetInfoFile, NeverLooksAboveItsDirectory) {
    const TempDir dir;
    std::filesystem::create_directories(dir / "root/x");
    std::filesystem::create_directories(dir / "x");
    local_files::Save(dir / "x/x....info", "");
    local_files::Save(dir / "...web1.info", "");
    EXPECT_EQ(GetInfoFile(dir / "root", "..", "x"), dir / "root/x....info");
    EXPECT_EQ(GetInfoFile(dir / "root", "web1", ".."), dir / "root/...web1.info");
    local_files::Save(dir / "root/x/x....info", "");
    EXPECT_EQ(GetInfoFile(dir / "root", "..", "x"), dir / "root/x/x....info");
}

// --- GetInfoFiles ---

class GetInfoFilesTest : public testing::Test {
  protected:
    void Make(const std::string& name) {
        const std::filesystem::path path = dir_ / name;
        std::filesystem::create_directories(path.parent_path());
        local_files::Save(path, "");
    }
    std::vector<std::string> Find(bool deep = false, const std::string& user = "",
                                  const std::string& date = "") const {
        std::list<std::string> list = {"left from before"};
        GetInfoFiles(list, dir_.path(), deep, user, date);
        std::vector<std::string> names;
        for (const std::string& path : list) {
            EXPECT_EQ(path.find(dir_.path() + "/"), 0U) << path;
            names.push_back(path.substr(dir_.path().size() + 1));
        }
        return names;
    }

    TempDir dir_;
};

TEST_F(GetInfoFilesTest, FindsBothForms) {
    for (const char* const name :
         {"2026-11-20.web2.info", "custom.web1.info", "2026-11-19/2026-11-19.web1.info",
          "web1/2026-11-18/2026-11-18.web1.info", "web1/custom/custom.web1.info",
          // The following files are not at a path of a backup, or are no info files.
          "web1/2026-11-17.web1.info", "web1/other/2026-11-17.web1.info",
          "2026-11-19/deeper/x.info", "web1/2026-11-18/deeper/x.info", "2026-11-20.web2.tgz",
          "2026-11-20.web2.info.attempts", ".2026-11-20.web2.info.part~", "info"}) {
        Make(name);
    }
    std::filesystem::create_directories(dir_ / "2026-11-16.web1.info");
    EXPECT_THAT(Find(), ElementsAre("2026-11-19/2026-11-19.web1.info", "2026-11-20.web2.info",
                                    "custom.web1.info", "web1/2026-11-18/2026-11-18.web1.info",
                                    "web1/custom/custom.web1.info"));
}

TEST_F(GetInfoFilesTest, DeepDescendsEverywhere) {
    for (const char* const name : {"a.info", "b/c/d/e.info", "b/x.info", "2026-11-20/z/y.info"}) {
        Make(name);
    }
    EXPECT_THAT(Find(true),
                ElementsAre("2026-11-20/z/y.info", "a.info", "b/c/d/e.info", "b/x.info"));
    EXPECT_THAT(Find(false), ElementsAre("a.info"));
}

TEST_F(GetInfoFilesTest, NarrowsToUserAndDate) {
    for (const char* const name :
         {"2026-11-19.web1.info", "2026-11-20.web1.info", "2026-11-20.web11.info",
          "web1/2026-11-21/2026-11-21.web1.info"}) {
        Make(name);
    }
    EXPECT_THAT(Find(false, "web1"), ElementsAre("2026-11-19.web1.info", "2026-11-20.web1.info",
                                                 "web1/2026-11-21/2026-11-21.web1.info"));
    EXPECT_THAT(Find(false, "", "2026-11-20"),
                ElementsAre("2026-11-20.web1.info", "2026-11-20.web11.info"));
    EXPECT_THAT(Find(false, "web1", "2026-11-21"),
                ElementsAre("web1/2026-11-21/2026-11-21.web1.info"));
    EXPECT_THAT(Find(false, "web2", ""), IsEmpty());
}

TEST_F(GetInfoFilesTest, FollowsLinksToFilesOnly) {
    const TempDir outside;
    local_files::Save(outside / "2026-11-20.web1.info", "");
    std::filesystem::create_symlink(outside / "2026-11-20.web1.info", dir_ / "2026-11-20.l.info");
    std::filesystem::create_symlink(outside / "missing", dir_ / "2026-11-21.l.info");
    std::filesystem::create_directory_symlink(outside.path(), dir_ / "2026-11-20");
    std::filesystem::create_directory_symlink(dir_.path(), dir_ / "loop");
    EXPECT_THAT(Find(), ElementsAre("2026-11-20.l.info"));
    EXPECT_THAT(Find(true), ElementsAre("2026-11-20.l.info"));
}

TEST_F(GetInfoFilesTest, AUserMayBeNamedLikeADate) {
    for (const char* const name :
         {"custom/custom.web1.info", "custom/2026-11-20/2026-11-20.custom.info",
          "custom/custom/custom.custom.info", "2026-11-19/2026-11-20/2026-11-20.2026-11-19.info",
          "custom/other/x.info", "custom/2026-11-20/deeper/x.info"}) {
        Make(name);
    }
    EXPECT_THAT(Find(), ElementsAre("2026-11-19/2026-11-20/2026-11-20.2026-11-19.info",
                                    "custom/2026-11-20/2026-11-20.custom.info",
                                    "custom/custom.web1.info", "custom/custom/custom.custom.info"));
}

TEST_F(GetInfoFilesTest, FollowsALinkToAUsersDirectoryUnlessItIsAnotherUsers) {
    const TempDir outside;
    for (const char* const date : {"2026-11-20", "2026-11-21"}) {
        std::filesystem::create_directory(outside / date);
        local_files::Save(outside / (std::string(date) + "/x.info"), "");
    }
    // Links below the user's directory are not followed.
    std::filesystem::create_directory_symlink(outside / "2026-11-20", outside / "2026-11-22");
    for (const char* const user : {"web1", "web2"}) {
        std::filesystem::create_directory_symlink(outside.path(), dir_ / user);
    }
    const std::string foreign = dir_ / "web2";
    ASSERT_EQ(lchown(foreign.c_str(), 12345, 12345), 0);
    EXPECT_THAT(Find(), ElementsAre("web1/2026-11-20/x.info", "web1/2026-11-21/x.info"));
    EXPECT_THAT(Find(true), IsEmpty());
}

TEST_F(GetInfoFilesTest, MissingDirectoryHasNone) {
    std::filesystem::remove_all(dir_.path());
    EXPECT_THAT(Find(), IsEmpty());
}

// --- GetLastSliceLocalPath ---

TEST(GetLastSliceLocalPath, ReadsTheInfoFileOfTheBackup) {
    const TempDir dir;
    local_files::Save(dir / "2026-11-20.web1.info", "last-slice=web1/F2026-11-20.web1.2.dar 17\n");
    local_files::Save(dir / "custom.web1.info", "last-slice=C2026-11-20.web1.tgz\n");
    local_files::Save(dir / "2026-11-21.web1.info", "size=1\n");
    for (const char* const name : {"2026-11-20.web1.info", "F2026-11-20.web1.1.dar",
                                   "2026-11-20.web1.tgz.aes", "I2026-11-20.web1.tgz.part1"}) {
        EXPECT_EQ(GetLastSliceLocalPath(dir / name), "web1/F2026-11-20.web1.2.dar") << name;
    }
    EXPECT_EQ(GetLastSliceLocalPath(dir / "C2026-11-20.web1.tgz"), "C2026-11-20.web1.tgz");
    EXPECT_EQ(GetLastSliceLocalPath(dir / "2026-11-21.web1.info"), "");
    EXPECT_THROW(GetLastSliceLocalPath(dir / "2026-11-22.web1.info"), kro_err::Error);
}

}  // namespace
