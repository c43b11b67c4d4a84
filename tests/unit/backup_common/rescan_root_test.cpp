// The directories that a rescan may work on, and where it moves the files that it removes.
#include "faults.h"
#include "kro/kro_err.h"
#include "quarn2_cp2_server_rescan_removed.h"
#include "quarn2_cp2_server_rescan_root.h"
#include "rescan_site.h"

namespace {

// --- Users' info roots ---

TEST(UserOfInfoRoot, IsTheFirstNameBelowVarBackup) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"var/backup/web1", "web1"},
        {"var/backup/web1/x/y", "web1"},
        {"var/backup/tovarn", ""},
        {"var/backup/tovarn.private", ""},
        {"var/backup/tovarn/web1", ""},
        {"var/backup/tovarn2", "tovarn2"},
        {"var/backup", ""},
        {"srv/var/backup/web1", ""},
        {"var/backups/web1", ""},
        {"", ""}};
    for (const auto& [path, user] : cases) EXPECT_EQ(UserOfInfoRoot(path, "var/backup"), user);
}

class RescanRoot : public RescanSite {
  protected:
    static std::string Refusal(const std::string& path, const std::string& storage = "") {
        return TextOf<std::runtime_error>([&] { CheckRescanRoot(path, storage); });
    }
};

const std::string kAllowed = "(no exception)";

TEST_F(RescanRoot, AUsersInfoRootNeedsThatUsersStorage) {
    std::filesystem::create_directories("var/backup/web1");
    std::filesystem::create_directory_symlink("var/backup/web1", "way");
    const std::string expected =
        "' cannot be rescanned: it belongs to user 'web1'; use --storage web1 and the token of "
        "that storage";
    for (const std::string& path :
         {std::string("var/backup/web1"), root_.path() + "/var/backup/web1",
          std::string("var/backup/web1/2026-11-20"), std::string("way"),
          std::string("/srv/var/backup/web1")}) {
        EXPECT_EQ(Refusal(path), "--path '" + path + expected);
        EXPECT_EQ(Refusal(path, "web2"), "--path '" + path + expected);
        EXPECT_EQ(Refusal(path, "web1"), kAllowed) << path;
    }
    EXPECT_EQ(Refusal(kRoot), kAllowed);
    EXPECT_EQ(Refusal(kRoot, "web1"), kAllowed);
    EXPECT_EQ(Refusal("var/backup/tovarn.private"), kAllowed);
}

TEST_F(RescanRoot, WithoutThatNothingIsRemoved) {
    Place("var/backup/web1/2026-11-20/2026-11-20.web1.info", "kept");
    Place("var/backup/web2/2026-11-20/2026-11-20.web2.info", "kept");
    const Lines before = Below("var/backup");
    EXPECT_THROW(Run({"--path", "var/backup/web1"}), std::runtime_error);
    EXPECT_THROW(Run({"--path", "var/backup/web1", "--storage", "web2"}), std::runtime_error);
    EXPECT_EQ(Below("var/backup"), before);
}

// --- Other directories ---

TEST_F(RescanRoot, ElsewhereTheFirstEntryThatIsNoBackupsIsNamed) {
    const std::vector<std::string> expected = {"2026-11-20.web1.info",
                                               "2026-11-20.web1.tgz",
                                               "F2026-11-20.web1.3.dar",
                                               "F2026-11-20.web1.3.dar.attempts",
                                               ".rescan",
                                               ".rescan#web1",
                                               "..rescan.part~",
                                               ".clear",
                                               ".cleanup",
                                               ".encrypted_indexes",
                                               ".2026-11-20.web1.info.part~",
                                               "2026-11-20/2026-11-20.web1.info",
                                               "custom/custom.web1.info",
                                               "web1/2026-11-20/2026-11-20.web1.tgz.aes",
                                               "web1/2026-11-20/.encrypted_indexes",
                                               "web1/custom/C2026-11-20.web1.tgz"};
    for (const std::string& name : expected) {
        std::filesystem::remove_all("info");
        Place("info/" + name, "");
        EXPECT_EQ(FindStrayEntry("info"), "") << name;
    }
    const std::vector<std::pair<std::string, std::string>> strays = {
        {"notes.txt", "notes.txt"},
        {".bashrc", ".bashrc"},
        {".notes.part~", ".notes.part~"},
        {"web1.info", "web1.info"},
        {"2026-11-20.web1", "2026-11-20.web1"},
        {"web1/notes", "web1/notes"},
        {"web1/data/2026-11-20.web1.info", "web1/data"},
        {"web1/2026-11-20/photo.jpg", "web1/2026-11-20/photo.jpg"},
        {"web1/2026-11-20/below/2026-11-20.web1.info", "web1/2026-11-20/below"},
        {"2026-11-20/web1/2026-11-20.web1.info", "2026-11-20/web1"}};
    for (const auto& [name, stray] : strays) {
        std::filesystem::remove_all("info");
        Place("info/" + name, "");
        Place("info/web9/2026-11-20/2026-11-20.web9.info", "");
        Place("info/zzz", "");
        EXPECT_EQ(FindStrayEntry("info"), stray);
    }
    EXPECT_EQ(FindStrayEntry("missing"), "");
}

TEST_F(RescanRoot, ElsewhereADirectoryOfOtherThingsIsRefused) {
    Place("srv/data/thesis.txt", "kept");
    Place("srv/data/2026-11-20.web1.info", "");
    EXPECT_EQ(TextOf<std::runtime_error>([] {
                  Run({"--path", "srv/data"});
              }),
              "--path 'srv/data' cannot be rescanned: it contains 'thesis.txt', which does not "
              "belong to a backup and which the rescan would remove; use a directory that contains "
              "only info files");
    EXPECT_EQ(Below("srv/data"), (Lines{"2026-11-20.web1.info", "thesis.txt"}));
    EXPECT_EQ(store_->log(), Lines());
}

TEST_F(RescanRoot, ElsewhereADirectoryOfInfoFilesIsRescanned) {
    Place("srv/info/2026-11-19.web1.info", "gone");
    StoreFlat("2026-11-20.web1");
    Run({"--path", "srv/info"});
    EXPECT_EQ(Below("srv/info"), (Lines{"2026-11-20.web1.info", "2026-11-20.web1.tgz"}));
}

TEST_F(RescanRoot, BelowVarBackupOtherFilesArePassedOver) {
    Place(InfoRoot("notes.txt"), "");
    EXPECT_EQ(Refusal(kRoot), kAllowed);
    EXPECT_EQ(Refusal(root_.path() + "/" + kRoot), kAllowed);
}

TEST_F(RescanRoot, FilesOfAUsersFlatStorageStayBesideThoseInDirectories) {
    StoreFlat("2026-11-20.web1");
    StoreDated("web1", "2026-11-21");
    Run({"--storage", "web1", "--path", "var/backup/web1"});
    EXPECT_EQ(Below("var/backup/web1"),
              (Lines{"2026-11-20.web1.info", "2026-11-20.web1.tgz", "2026-11-21",
                     "2026-11-21/2026-11-21.web1.info", "2026-11-21/2026-11-21.web1.tgz"}));
}

// --- Removed files ---

class Removed : public RescanSite {
  protected:
    static constexpr const char* kPlace = "var/quarn2_cp.removed";

    static void PlaceBackups() {
        Place(InfoRoot("2026-11-20.web1.info"), "info");
        Place(InfoRoot("web2/2026-11-20/2026-11-20.web2.info"), "info of web2");
    }
};

const Lines kBackups = {"2026-11-20.web1.info", "web2", "web2/2026-11-20",
                        "web2/2026-11-20/2026-11-20.web2.info"};

TEST_F(Removed, IsKeptWithItsPath) {
    PlaceBackups();
    Run();
    EXPECT_EQ(InfoRoot(), Lines());
    EXPECT_EQ(Below(kPlace), kBackups);
    EXPECT_EQ(local_files::Load(std::string(kPlace) + "/web2/2026-11-20/2026-11-20.web2.info"),
              "info of web2");
}

TEST_F(Removed, LeftoversOfInterruptedWritesAreNotKept) {
    Place(InfoRoot(".2026-11-20.web1.info.part~"), "half");
    PlaceBackups();
    Run();
    EXPECT_EQ(InfoRoot(), Lines());
    EXPECT_EQ(Below(kPlace), kBackups);
}

TEST_F(Removed, AtEveryLevelIsKept) {
    StoreDated("web2", "2026-11-21");
    PlaceBackups();
    Place(InfoRoot("web2/2026-11-21/2026-11-20.web2.info"), "");
    Place(InfoRoot("web3/2026-11-21"), "a file");
    StoreDated("web3", "2026-11-21");
    Run();
    Lines expected = kBackups;
    for (const char* const name :
         {"web2/2026-11-21", "web2/2026-11-21/2026-11-20.web2.info", "web3", "web3/2026-11-21"}) {
        expected.push_back(name);
    }
    EXPECT_EQ(Below(kPlace), expected);
}

TEST_F(Removed, TheNextRescanThatTakesSomethingDropsIt) {
    PlaceBackups();
    Run();
    Run();
    EXPECT_EQ(Below(kPlace), kBackups) << "nothing was taken";
    Place(InfoRoot("2026-11-22.web1.info"), "");
    Run();
    EXPECT_EQ(Below(kPlace), (Lines{"2026-11-22.web1.info"}));
}

TEST_F(Removed, ARescanAfterAnInterruptedOneKeepsWhatThatOneTook) {
    PlaceBackups();
    Run();
    Place(kMarker, "");
    PlaceBackups();
    Run();
    Lines expected = {".again2"};
    for (const std::string& name : kBackups) expected.push_back(".again2/" + name);
    expected.insert(expected.end(), kBackups.begin(), kBackups.end());
    EXPECT_EQ(Below(kPlace), expected);
}

TEST_F(Removed, OfOneUsersStorageHasAPlaceOfItsOwn) {
    PlaceBackups();
    Run();
    StoreDated("web1", "2026-11-21");
    Place(InfoRoot("web1/2026-11-20/2026-11-20.web1.info"), "");
    Run({"--storage", "web1"});
    EXPECT_EQ(Below(kPlace), kBackups);
    EXPECT_EQ(Below(std::string(kPlace) + "#web1"),
              (Lines{"web1", "web1/2026-11-20", "web1/2026-11-20/2026-11-20.web1.info"}));
}

TEST_F(Removed, IsCopiedFromAnotherFileSystem) {
    PlaceBackups();
    std::filesystem::create_symlink("/nowhere", InfoRoot("link"));
    faults::ThePlan().error = EXDEV;
    faults::ThePlan().rename_to_removed = 3;
    Run();
    EXPECT_EQ(faults::ThePlan().rename_to_removed, 0);
    Lines expected = kBackups;
    expected.insert(expected.begin() + 1, "link");
    EXPECT_EQ(Below(kPlace), expected);
    EXPECT_EQ(InfoRoot(), Lines());
}

TEST_F(Removed, WhatCannotBeMovedStays) {
    PlaceBackups();
    faults::ThePlan().error = EIO;
    faults::ThePlan().rename_to_removed = 1;
    EXPECT_NE(TextOf<kro_err::Error>([] { Run(); }).find("Failed to move"), std::string::npos);
    Lines left = InfoRoot();
    std::erase(left, ".rescan");
    EXPECT_EQ(left, kBackups);
}

}  // namespace
