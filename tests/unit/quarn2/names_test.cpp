#include "quarn2/names.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "local_files.h"
#include "temp_dir.h"

using namespace quarn2;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

struct Row {
    std::string name;
    std::string expected;
};

TEST(StripSliceNumber, TakesOneArchiveEndingOffTheLastComponent) {
    for (const Row& row : std::vector<Row>{
             {"F2026-11-20.web1.tgz.part2", "F2026-11-20.web1"},
             {"2026-11-20.web1.1.dar", "2026-11-20.web1"},
             {"F2026-11-20.web1.12.dar", "F2026-11-20.web1"},
             {"F2026-11-20.web1.3.dar.part1", "F2026-11-20.web1"},
             {"F2026-11-20.web1.tgz", "F2026-11-20.web1"},
             {"F2026-11-20.web1.tgz.aes", "F2026-11-20.web1"},
             {"F2026-11-20.web1.tar.zst.aes.part7", "F2026-11-20.web1"},
             {"F2026-11-20.web1.tar", "F2026-11-20.web1"},
             {"F2026-11-20.web1.tar.gz", "F2026-11-20.web1"},
             {"F2026-11-20.web1.tar.bz2", "F2026-11-20.web1"},
             {"F2026-11-20.web1.tar.xz", "F2026-11-20.web1"},
             {"F2026-11-20.web1.zip", "F2026-11-20.web1"},
             {"F2026-11-20.web1.part3", "F2026-11-20.web1"},
             {"F2026-11-20.web.tar.1.dar", "F2026-11-20.web.tar"},
             {"F2026-11-20.web.tgz.tgz", "F2026-11-20.web.tgz"},
             {"F2026-11-20.web.1.tgz", "F2026-11-20.web.1"},
             {"dir.tgz/file", "dir.tgz/file"},
             {"/a/b.1.dar/F2026-11-20.web1.tgz", "/a/b.1.dar/F2026-11-20.web1"},
             {"dir.tgz/", "dir.tgz/"},
             {"x.part", "x.part"},
             {"x.part1a", "x.part1a"},
             {"x.partial.part2", "x.partial"},
             {"x.dar", "x.dar"},
             {"x.a.dar", "x.a.dar"},
             {"x.aes", "x.aes"},
             {"x.info", "x.info"},
             {"", ""},
         }) {
        EXPECT_EQ(StripSliceNumber(row.name), row.expected) << row.name;
    }
}

TEST(GetExtByInfo, ReadsTheLastSlice) {
    for (const Row& row : std::vector<Row>{
             {"F2026-11-20.web1.tgz", ".tgz"},
             {"F2026-11-20.web1.tgz.part3", ".tgz"},
             {"u/2026-11-20/F2026-11-20.web1.tar.gz.aes.part3 extra words", ".tar.gz.aes"},
             {"x.tar", ".tar"},
             {"x.tar.bz2", ".tar.bz2"},
             {"x.tar.xz", ".tar.xz"},
             {"x.tar.zst", ".tar.zst"},
             {"x.zip.aes", ".zip.aes"},
             {"x.12.dar", ".tgz"},
             {"x.gz", ".tgz"},
             {"", ".tgz"},
         }) {
        EXPECT_EQ(GetExtByInfo({{"last-slice", row.name}}), row.expected) << row.name;
    }
    EXPECT_EQ(GetExtByInfo({}), ".tgz");
}

TEST(GetDateAndUserName, ReadEveryFileOfABackup) {
    struct Backup {
        std::string name;
        std::string date;
        std::string user;
    };
    for (const Backup& backup : std::vector<Backup>{
             {"2026-11-20.web1.info", "2026-11-20", "web1"},
             {"2026-11-20.web.1.example.info", "2026-11-20", "web.1.example"},
             {"2026-11-20.web.tgz.info", "2026-11-20", "web.tgz"},
             {"2026-11-20.web1.tgz", "2026-11-20", "web1"},
             {"2026-11-20.web1.tgz.aes", "2026-11-20", "web1"},
             {"2026-11-20.web1.1.dar", "2026-11-20", "web1"},
             {"F2026-11-20.web1.3.dar", "2026-11-20", "web1"},
             {"I2026-11-20.web1.tgz.part2", "2026-11-20", "web1"},
             {"C2026-11-20.web1.tgz.part2", "custom", "web1"},
             {"custom.web1.info", "custom", "web1"},
             {"custom.web.1.tgz", "custom", "web.1"},
             {"/a/b/F2026-11-20.web1.tgz", "2026-11-20", "web1"},
             {"Fred.info", "Fred", ""},
             {"Custom.info", "Custom", ""},
             {"Cats2026-1.x.info", "Cats2026-1", "x"},
             {"2026-13-45.web1.info", "2026-13-45", "web1"},
             {"foo.info", "foo", ""},
             {"F.x.info", "F", "x"},
             {".info", "", ""},
             {"", "", ""},
         }) {
        EXPECT_EQ(GetDate(backup.name), backup.date) << backup.name;
        EXPECT_EQ(GetUserName(backup.name), backup.user) << backup.name;
    }
}

TEST(GetPath, IsNormalisedWithoutALeadingSlash) {
    EXPECT_EQ(GetPath("web1/2026-11-20/x"), "web1/2026-11-20/x");
    EXPECT_EQ(GetPath("//web1//./x/"), "web1/x");
    EXPECT_EQ(GetPath("/"), "");
    EXPECT_EQ(GetPath(""), "");
}

TEST(GetStoredName, KeepsTheDirectoryFormOnly) {
    for (const Row& row : std::vector<Row>{
             {"/var/tmp/F2026-11-20.web1.tgz", "F2026-11-20.web1.tgz"},
             {"F2026-11-20.web1.tgz", "F2026-11-20.web1.tgz"},
             {"/var/backup/web1/2026-11-20/F2026-11-20.web1.tgz",
              "web1/2026-11-20/F2026-11-20.web1.tgz"},
             {"web1/2026-11-20/x", "web1/2026-11-20/x"},
             {"/a/web1//2026-11-20/./x", "web1/2026-11-20/x"},
             {"/a/web1/custom/x", "web1/custom/x"},
             {"/a/web1/2026-11-31/x", "x"},
             {"/a/web1/2026-11-2/x", "x"},
             {"/2026-11-20/x", "x"},
             {"2026-11-20/x", "x"},
         }) {
        EXPECT_EQ(GetStoredName(row.name), row.expected) << row.name;
    }
}

TEST(GetStoredName, RefusesNamesThatALineCannotCarry) {
    for (const std::string name : {"/a/b c", "/a/b\nc", "/a/b\tc", "/a/web 1/2026-11-20/x", "", "/",
                                   "..", "../2026-11-20/x", "/a/.x.part~"}) {
        EXPECT_THROW(GetStoredName(name), kro_err::Error) << name;
    }
}

TEST(IsAdminData, KnowsTheUsersDirectories) {
    for (const char* const users :
         {"var/backup", "/usr/local/kro5/var/backup", "/usr/local/kro5/var/backup/",
          "var/backup/users", "/x/var/backup/tovarn2", "/x//var/./backup/a"}) {
        EXPECT_FALSE(IsAdminData(users)) << users;
    }
    for (const char* const admin :
         {"var/backup/tovarn", "/usr/local/kro5/var/backup/tovarn", "var/backup/tovarn.private",
          "var/backup/users/deeper", "/srv/backup", "/srv/var/backups", "xvar/backup", "/", "",
          "var", "backup/users"}) {
        EXPECT_TRUE(IsAdminData(admin)) << admin;
    }
}

TEST(IsBackupFile, KnowsInfoFilesIndexesAndArchives) {
    for (const char* const name :
         {"2026-11-20.web1.info", "custom.web1.info", "2026-11-20.web1.tgz", "custom.web1.tgz",
          "2026-11-20.web1.tgz.aes", "2026-11-20.web1.1.dar", "F2026-11-20.web1.3.dar",
          "I2026-11-20.a.b.c.tgz.part2", "C2026-11-20.web1.tar.zst",
          "F2026-11-20.web1.3.dar.attempts", "2026-11-20.web1.info.attempts"}) {
        EXPECT_TRUE(IsBackupFile(name)) << name;
    }
    for (const char* const name :
         {"", ".", ".info", "web1.info", "notes.txt", "2026-11-20.web1", "2026-11-20.info",
          "2026-11-20..info", "2026-13-20.web1.info", "X2026-11-20.web1.tgz", "custom.info",
          "customer.tgz", "photos.tgz", "2026-11-20.web1.jpg", ".attempts",
          "web1/2026-11-20.web1.info", "2026-11-20.web1\n.info"}) {
        EXPECT_FALSE(IsBackupFile(name)) << name;
    }
}

TEST(IsSafeName, TakesOneComponent) {
    for (const char* const good : {"a", "web.1", "..a", "a b", "\xc3\xa4", ".hidden", "-rf"}) {
        EXPECT_TRUE(IsSafeName(good)) << good;
    }
    for (const std::string& bad :
         {std::string(), std::string("."), std::string(".."), std::string("a/b"), std::string("/"),
          std::string("a\nb"), std::string("a\0b", 3), std::string(256, 'x'),
          std::string("\x7f")}) {
        EXPECT_FALSE(IsSafeName(bad)) << bad;
    }
}

TEST(MkLocalDir, LiesBelowAdminDataElseBesideIt) {
    const TempDir dir;
    EXPECT_EQ(MkLocalDir(dir / "root", "web1", "2026-11-20"), dir / "root/web1/2026-11-20");
    EXPECT_TRUE(std::filesystem::is_directory(dir / "root/web1/2026-11-20"));
    EXPECT_EQ(MkLocalDir(dir / "var/backup/users", "web1", "2026-11-20"),
              dir / "var/backup/web1/2026-11-20");
    EXPECT_TRUE(std::filesystem::is_directory(dir / "var/backup/web1/2026-11-20"));
}

TEST(MkLocalDir, RefusesNamesThatLeadElsewhere) {
    const TempDir dir;
    for (const char* const bad : {"..", "", "a/b", "a\nb"}) {
        EXPECT_THROW(MkLocalDir(dir.path(), bad, "2026-11-20"), kro_err::Error) << bad;
        EXPECT_THROW(MkLocalDir(dir.path(), "web1", bad), kro_err::Error) << bad;
    }
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

TEST(IsEncrypted, LooksForTheIndexAndIntoTheList) {
    const TempDir dir;
    local_files::Save(dir / "2026-11-20.web1.tgz.aes", "x");
    local_files::Save(dir / ".encrypted_indexes",
                      "2026-11-21.web1.tgz.aes=hash\ncustom.web1.tgz.aes=\n");
    for (const char* const name :
         {"2026-11-20.web1.0.dar", "2026-11-20.web1.info", "F2026-11-20.web1.tgz.part0",
          "2026-11-21.web1.tgz", "I2026-11-21.web1.2.dar", "custom.web1.info",
          "C2026-11-20.web1.tgz"}) {
        EXPECT_TRUE(IsEncrypted(dir / name)) << name;
    }
    for (const char* const name : {"2026-11-22.web1.tgz", "2026-11-20.web2.tgz", "hash"}) {
        EXPECT_FALSE(IsEncrypted(dir / name)) << name;
    }
    EXPECT_FALSE(IsEncrypted(dir / "missing/2026-11-20.web1.tgz"));
}

TEST(CreateAttemptsFile, AddsALineForEveryGiveUp) {
    const TempDir dir;
    CreateAttemptsFile(dir / "file");
    CreateAttemptsFile(dir / "file", "the disk\nis full");
    EXPECT_THAT(local_files::Load(dir / "file.attempts"),
                MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}\n"
                             "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8} the disk\\\\nis full\n"));
}

// The program writes this file while it handles another error. A failure here must not replace that
// error.
TEST(CreateAttemptsFile, KeepsItsOwnTroubleToItself) {
    const TempDir dir;
    EXPECT_NO_THROW(CreateAttemptsFile(dir / "missing/file"));
}

}  // namespace
