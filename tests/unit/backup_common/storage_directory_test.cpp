// The directories that a local storage may use, and the files that may be uploaded to it.
#include <gtest/gtest.h>

#include "program_site.h"
#include "quarn2_cp2_misc_paths.h"
#include "quarn2_cp2_misc_storage.h"

namespace {

// --- The decision ---

std::string Decide(const std::string& storage) {
    const ProtectedDirectories directories{
        {"/k", "/k/var"}, {"/k/sbin", "/k/etc", "/k/tmp", "/k/var/backup/tovarn", "/srv/info"}};
    const auto conflict = FindConflict(directories, storage);
    if (!conflict) return "allowed";
    const char* const words[] = {"is ", "contains ", "is inside of "};
    return words[static_cast<int>(conflict->overlap)] + conflict->directory.string();
}

TEST(StorageDirectory, KeepsAwayFromTheProtectedOnes) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"/", "contains /k"},
        {"/k", "is /k"},
        {"/k/var", "is /k/var"},
        {"/k/var/backup", "contains /k/var/backup/tovarn"},
        {"/k/var/backup/tovarn", "is /k/var/backup/tovarn"},
        {"/k/var/backup/tovarn/web1", "is inside of /k/var/backup/tovarn"},
        {"/k/var/backup/storage", "allowed"},
        {"/k/var/backup/tovarn2", "allowed"},
        {"/k/var/storage", "allowed"},
        {"/k/storage", "allowed"},
        {"/k/sbin", "is /k/sbin"},
        {"/k/sbin/x", "is inside of /k/sbin"},
        {"/k/etc/x/y", "is inside of /k/etc"},
        {"/k/tmp/x", "is inside of /k/tmp"},
        {"/k/tmpx", "allowed"},
        {"/srv", "contains /srv/info"},
        {"/srv/info", "is /srv/info"},
        {"/srv/info/x", "is inside of /srv/info"},
        {"/srv/info2", "allowed"},
        {"/srv/backups", "allowed"}};
    for (const auto& [storage, expected] : cases) EXPECT_EQ(Decide(storage), expected) << storage;
}

// --- In an install root ---

class StorageDirectorySite : public ProgramSite {
  protected:
    StorageDirectorySite() {
        for (const char* const name : {"sbin", "etc", "var/backup/tovarn", "srv"}) {
            std::filesystem::create_directories(name);
        }
    }

    static std::string Check(const std::string& path,
                             const std::string& info_root = kDefaultInfoRoot) {
        return TextOf<std::runtime_error>(
            [&] { CheckStorageDirectory(quarn2::BackupToken("local:" + path), info_root); });
    }

    static void Link(const std::string& target, const std::string& link) {
        std::filesystem::create_directory_symlink(target, link);
    }
};

const std::string kAllowed = "(no exception)";

TEST_F(StorageDirectorySite, LinksAndStepsUpwardsAreResolved) {
    Link("..", "srv/up");
    Link(root_.path(), "srv/root");
    const std::string parent = std::filesystem::path(root_.path()).parent_path();
    for (const std::string& path :
         {root_.path(), root_.path() + "/", "//" + parent, std::string("srv/up"),
          std::string("srv/root"), std::string("srv/root/etc"), std::string("srv/../var"),
          std::string("srv/root/var/backup/../backup/tovarn")}) {
        EXPECT_NE(Check(path), kAllowed) << path;
    }
    for (const char* const path : {"srv", "var/backup/storage", "srv/root/srv", "/srv/backups"}) {
        EXPECT_EQ(Check(path), kAllowed) << path;
    }
}

TEST_F(StorageDirectorySite, AProtectedDirectoryMayBeALinkItself) {
    std::filesystem::create_directories("disk/etc");
    std::filesystem::remove("etc");
    Link("disk/etc", "etc");
    EXPECT_NE(Check("disk"), kAllowed);
    EXPECT_NE(Check("disk/etc/x"), kAllowed);
    EXPECT_EQ(Check("disk/backups"), kAllowed);
}

TEST_F(StorageDirectorySite, TheInfoRootInUseIsProtectedAndSoIsTheDefaultOne) {
    EXPECT_NE(Check("srv/info/x", "srv/info"), kAllowed);
    EXPECT_NE(Check("var/backup/tovarn", "srv/info"), kAllowed);
    EXPECT_NE(Check("var/backup/tovarn.private", "srv/info"), kAllowed);
    EXPECT_EQ(Check("srv/info/x"), kAllowed);
}

TEST_F(StorageDirectorySite, TheErrorNamesBothDirectories) {
    EXPECT_EQ(Check("etc/x"), "storage directory 'etc/x' cannot be used: it is inside of '" +
                                  ResolvePath("etc").string() +
                                  "', which this program needs; nothing was changed. Use a "
                                  "directory that contains only backups in BACKUP_TOKEN");
}

TEST_F(StorageDirectorySite, TokensOfOtherKindsPass) {
    for (const char* const token : {"", "nonsense", "memory:site"}) {
        EXPECT_NO_THROW(CheckStorageDirectory(quarn2::BackupToken(token), kDefaultInfoRoot));
    }
}

TEST_F(StorageDirectorySite, NoStorageIsOpenedThere) {
    EXPECT_THROW(OpenStorage(quarn2::BackupToken("local:etc")), std::runtime_error);
    setenv("BACKUP_TOKEN", "local:etc", 1);
    EXPECT_THROW(GetStorageByEnv(), std::runtime_error);
    EXPECT_NO_THROW(OpenStorage(quarn2::BackupToken("local:srv")));
}

// --- Sources of uploads ---

class Source : public StorageDirectorySite {
  protected:
    Source() { Place("srv/F2026-11-20.web1.tgz", "stored"); }

    static std::string Refusal(const std::string& source,
                               const std::string& remote = "F2026-11-20.web1.tgz") {
        return TextOf<std::runtime_error>(
            [&] { CheckSource(quarn2::BackupToken("local:srv"), remote, source); });
    }
};

TEST_F(Source, TheStoredFileItselfIsRefused) {
    const std::string expected =
        "'srv/F2026-11-20.web1.tgz' cannot be uploaded: it is the stored file itself; nothing was "
        "changed. Upload only files that are outside of the storage";
    EXPECT_EQ(Refusal("srv/F2026-11-20.web1.tgz"), expected);
    std::filesystem::create_hard_link("srv/F2026-11-20.web1.tgz", "hard");
    EXPECT_NE(Refusal("hard"), kAllowed);
    std::filesystem::create_symlink("srv/F2026-11-20.web1.tgz", "soft");
    EXPECT_NE(Refusal("soft"), kAllowed);
}

TEST_F(Source, AFileInsideTheStorageIsRefused) {
    Place("srv/web1/2026-11-20/other.tgz", "stored");
    Link("srv/web1", "way");
    for (const char* const path :
         {"srv/web1/2026-11-20/other.tgz", "way/2026-11-20/other.tgz", "srv/../srv/missing.tgz"}) {
        EXPECT_NE(Refusal(path, "other.tgz"), kAllowed) << path;
    }
}

TEST_F(Source, AFileInADirectoryThatTheStorageLinksToIsRefused) {
    Place("disk/2026-11-20/other.tgz", "stored");
    Link("../disk", "srv/web1");
    EXPECT_NE(Refusal("disk/2026-11-20/other.tgz", "other.tgz"), kAllowed);
}

TEST_F(Source, AFileInTheLinkedDirectoryOfItsOwnTargetIsRefused) {
    Place("disk/other.tgz", "stored");
    std::filesystem::create_directories("srv/web1");
    Link("../../disk", "srv/web1/2026-11-20");
    EXPECT_NE(Refusal("disk/other.tgz", "web1/2026-11-20/F.tgz"), kAllowed);
}

TEST_F(Source, AnyOtherFileMayBeUploaded) {
    Place("work/F2026-11-20.web1.tgz", "new");
    Place("srv2/F2026-11-20.web1.tgz", "new");
    Link(root_.path() + "/work", "srv/dangling");
    std::filesystem::remove("srv/dangling");
    std::filesystem::create_symlink("../nowhere", "srv/dangling");
    for (const char* const path :
         {"work/F2026-11-20.web1.tgz", "srv2/F2026-11-20.web1.tgz", "work/missing.tgz"}) {
        EXPECT_EQ(Refusal(path), kAllowed) << path;
    }
    EXPECT_NO_THROW(CheckSource(quarn2::BackupToken("memory:site"), "F2026-11-20.web1.tgz",
                                "srv/F2026-11-20.web1.tgz"));
}

}  // namespace
