// The rescan: the files that it fetches and the files that it removes.
#include "quarn2_cp2_server_rescan_removed.h"
#include "rescan_site.h"

namespace {

class RescanCommand : public RescanSite {};

// --- Backups at the storage's root ---

TEST_F(RescanCommand, OfFlatBackupsFetchesInfoFilesAndIndexes) {
    StoreFlat("2026-11-20.web.1.org");
    StoreFlat("2026-11-21.web.1.org");
    Run();
    EXPECT_EQ(InfoRoot(), (Lines{"2026-11-20.web.1.org.info", "2026-11-20.web.1.org.tgz",
                                 "2026-11-21.web.1.org.info", "2026-11-21.web.1.org.tgz"}));
    EXPECT_EQ(Local("2026-11-20.web.1.org.info"), "last-slice=F2026-11-20.web.1.org.tgz\n");
    EXPECT_EQ(Local("2026-11-21.web.1.org.tgz"), "index of 2026-11-21.web.1.org");
    EXPECT_EQ(Log(), (Lines{"5: Rescan storage and place indexes to 'var/backup/tovarn'",
                            "6: Download 2026-11-20.web.1.org.info",
                            "6: Download 2026-11-21.web.1.org.info"}));
}

TEST_F(RescanCommand, OfFlatBackupsRunAgainChangesNothing) {
    StoreFlat("2026-11-20.web1");
    Run();
    const Lines before = InfoRoot();
    Run();
    EXPECT_EQ(InfoRoot(), before);
    EXPECT_EQ(Local("2026-11-20.web1.tgz"), "index of 2026-11-20.web1");
}

TEST_F(RescanCommand, RemovesFlatFilesThatTheStorageNoLongerHas) {
    StoreFlat("2026-11-21.web1");
    Place(InfoRoot("2026-11-20.web1.info"), "gone");
    Place(InfoRoot("2026-11-20.web1.tgz"), "gone");
    Place(InfoRoot("gone/2026-11-20/x.info"), "gone");
    Run();
    EXPECT_EQ(InfoRoot(), (Lines{"2026-11-21.web1.info", "2026-11-21.web1.tgz"}));
}

TEST_F(RescanCommand, OfAnInfoFileWithoutANameWritesNothingBesideTheInfoRoot) {
    store_->SetFile(".info", "last-slice=F2026-11-20.web1.tgz\n");
    store_->SetFile(".tgz", "index");
    Run();
    EXPECT_FALSE(local_files::Has(std::string(kRoot) + ".tgz"));
    EXPECT_EQ(InfoRoot(), (Lines{".info", ".tgz"}));
    store_->SetFile(".info", "last-slice=F2026-11-20.web1.1.dar\n");
    store_->SetFile(".1.dar", "catalogue");
    Run();
    EXPECT_FALSE(local_files::Has(std::string(kRoot) + ".1.dar"));
    EXPECT_EQ(InfoRoot(), (Lines{".1.dar", ".info", ".tgz"}));
}

// --- Backups in directories ---

TEST_F(RescanCommand, OfBackupsInDirectoriesBuildsTheSameDirectories) {
    StoreDated("web.1", "2026-11-20");
    Run();
    EXPECT_EQ(InfoRoot(), DatedFiles("web.1", "2026-11-20"));
    EXPECT_EQ(Local("web.1/2026-11-20/2026-11-20.web.1.tgz"), "index of 2026-11-20.web.1");
    EXPECT_EQ(Log(), (Lines{"5: Rescan storage and place indexes to 'var/backup/tovarn'",
                            "6: Download web.1/2026-11-20/2026-11-20.web.1.info"}));
}

TEST_F(RescanCommand, OfBackupsInDirectoriesRunAgainFetchesNothing) {
    StoreDated("web1", "2026-11-20");
    StoreDated("web1", "2026-11-21");
    store_->SetFile("web2/2026-11-20/2026-11-20.web2.info", "last-slice=F2026-11-20.web2.2.dar");
    store_->SetFile("web2/2026-11-20/2026-11-20.web2.1.dar", "slice");
    Run();
    EXPECT_EQ(Fetched().size(), 6U);
    const Lines before = InfoRoot();
    Run();
    EXPECT_EQ(Fetched(), (Lines{}));
    EXPECT_EQ(InfoRoot(), before);
}

TEST_F(RescanCommand, FetchesAnIndexAgainThatIsMissingHere) {
    StoreDated("web1", "2026-11-20");
    Run();
    Fetched();
    std::filesystem::remove(InfoRoot("web1/2026-11-20/2026-11-20.web1.tgz"));
    Run();
    EXPECT_EQ(Fetched(), (Lines{"web1/2026-11-20/2026-11-20.web1.info",
                                "web1/2026-11-20/2026-11-20.web1.tgz"}));
    EXPECT_EQ(InfoRoot(), DatedFiles("web1", "2026-11-20"));
}

TEST_F(RescanCommand, AnInfoFileThatIsFetchedForItsIndexKeepsItsLocalKeys) {
    const std::string stem = "web1/2026-11-20/2026-11-20.web1";
    store_->SetFile(stem + ".info", "comment=stored\nlast-slice=" + stem + "\nsize=5");
    store_->SetFile(stem + ".tgz", "index");
    Place(InfoRoot(stem + ".info"), "comment=old\nlast-slice=x\nlocked=1\nnode=n1\nsize=4");
    Run();
    EXPECT_EQ(Local(stem + ".tgz"), "index");
    EXPECT_EQ(Local(stem + ".info"),
              "comment=stored\nlast-slice=" + stem + "\nlocked=1\nnode=n1\nsize=5");
}

TEST_F(RescanCommand, FetchesAnIndexAgainWhoseLocalNameSaysOtherwise) {
    StoreDated("web1", "2026-11-20");
    Run();
    std::filesystem::rename(InfoRoot("web1/2026-11-20/2026-11-20.web1.tgz"),
                            InfoRoot("web1/2026-11-20/2026-11-20.web1.tgz.aes"));
    Run();
    EXPECT_EQ(InfoRoot(), DatedFiles("web1", "2026-11-20"));
}

TEST_F(RescanCommand, FetchesABackupThatIsNewInADirectory) {
    StoreDated("web1", "2026-11-20");
    Run();
    Fetched();
    StoreDated("web1", "2026-11-21");
    Run();
    EXPECT_EQ(Fetched(), (Lines{"web1/2026-11-21/2026-11-21.web1.info",
                                "web1/2026-11-21/2026-11-21.web1.tgz"}));
}

TEST_F(RescanCommand, RemovesWhatTheStorageNoLongerHasAtEveryLevel) {
    StoreDated("web1", "2026-11-20");
    Place(InfoRoot("web1/2026-11-20/gone.info"), "gone");
    Place(InfoRoot("web1/2026-11-20/gone.tgz"), "gone");
    Place(InfoRoot("web1/2026-11-20/.half.info.part~"), "gone");
    Place(InfoRoot("web1/2026-11-19/2026-11-19.web1.info"), "gone");
    Place(InfoRoot("web2/2026-11-19/2026-11-19.web2.info"), "gone");
    Run();
    EXPECT_EQ(InfoRoot(), DatedFiles("web1", "2026-11-20"));
}

TEST_F(RescanCommand, KeepsAnIndexWhoseStoredFileIsEncrypted) {
    const std::string stem = "web1/2026-11-20/2026-11-20.web1";
    store_->SetFile(stem + ".info", "last-slice=F2026-11-20.web1.tgz.aes");
    store_->SetFile(stem + ".tgz.aes", "encrypted");
    Place(InfoRoot(stem + ".info"), "local");
    Place(InfoRoot(stem + ".tgz"), "index");
    Run();
    EXPECT_EQ(InfoRoot(), DatedFiles("web1", "2026-11-20"));
    EXPECT_EQ(Local(stem + ".tgz"), "index");
    EXPECT_EQ(Fetched(), (Lines{}));
}

TEST_F(RescanCommand, OfAnEmptyUserDirectoryRemovesTheUsersDates) {
    quarn2::GetStorage(quarn2::BackupToken("memory:site"))->MkDir("web1");
    Place(InfoRoot("web1/2026-11-19/2026-11-19.web1.info"), "gone");
    Run();
    EXPECT_EQ(InfoRoot(), (Lines{"web1"}));
}

TEST_F(RescanCommand, TakesBothFormsOfOneStorage) {
    StoreDated("web1", "2026-11-20");
    StoreFlat("2026-11-20.web2");
    StoreIn("web1/custom/", "custom.web1");
    Run();
    Lines expected = {"2026-11-20.web2.info", "2026-11-20.web2.tgz"};
    for (const std::string& name : DatedFiles("web1", "2026-11-20")) expected.push_back(name);
    for (const char* const name : {"", "/custom.web1.info", "/custom.web1.tgz"}) {
        expected.push_back(std::string("web1/custom") + name);
    }
    EXPECT_EQ(InfoRoot(), expected);
}

TEST_F(RescanCommand, MakesAWayForADirectoryWhereAFileWas) {
    StoreDated("web1", "2026-11-20");
    StoreDated("web2", "2026-11-20");
    Place(InfoRoot("web1"), "a file");
    Place(InfoRoot("web2/2026-11-20"), "a file");
    Run();
    Lines expected = DatedFiles("web1", "2026-11-20");
    for (const std::string& name : DatedFiles("web2", "2026-11-20")) expected.push_back(name);
    EXPECT_EQ(InfoRoot(), expected);
}

// --- One user's storage ---

TEST_F(RescanCommand, OfOneUserLeavesTheOthersAlone) {
    StoreDated("web1", "2026-11-20");
    StoreDated("web2", "2026-11-20");
    Place(InfoRoot("web3/2026-11-19/2026-11-19.web3.info"), "kept");
    Place(InfoRoot("file.info"), "kept");
    Place(InfoRoot("web1/2026-11-19/2026-11-19.web1.info"), "gone");
    Run({"--storage", "web1"});
    Lines expected = {"file.info"};
    for (const std::string& name : DatedFiles("web1", "2026-11-20")) expected.push_back(name);
    for (const char* const name : {"", "/2026-11-19", "/2026-11-19/2026-11-19.web3.info"}) {
        expected.push_back(std::string("web3") + name);
    }
    EXPECT_EQ(InfoRoot(), expected);
    EXPECT_TRUE(local_files::Has("var/quarn2_cp.lock#web1"));
    EXPECT_FALSE(local_files::Has("var/quarn2_cp.lock"));
}

TEST_F(RescanCommand, OfOneUserFetchesTheFilesOfTheRootAllTheSame) {
    StoreFlat("2026-11-20.web2");
    Run({"--storage", "web1"});
    EXPECT_EQ(InfoRoot(), (Lines{"2026-11-20.web2.info", "2026-11-20.web2.tgz"}));
}

TEST_F(RescanCommand, IntoAUsersInfoRootBuildsItBesideTheAdministrators) {
    StoreDated("web1", "2026-11-20");
    Place(InfoRoot("x.info"), "kept");
    Run({"--storage", "web1", "--path", "var/backup/web1"});
    EXPECT_EQ(Below("var/backup/web1/2026-11-20"),
              (Lines{"2026-11-20.web1.info", "2026-11-20.web1.tgz"}));
    EXPECT_EQ(InfoRoot(), (Lines{"x.info"}));
    EXPECT_EQ(Below("var/backup").size(), 6U) << "both info roots and nothing besides";
}

TEST_F(RescanCommand, IntoAUsersInfoRootNeverTouchesTheAdministrators) {
    StoreDated("web1", "2026-11-20");
    StoreDated("tovarn", "2026-11-20");
    StoreDated("tovarn.private", "2026-11-20");
    Place(InfoRoot("x.info"), "kept");
    Place("var/backup/tovarn.private/y.info", "kept");
    Place("var/backup/web2/z.info", "kept");
    Run({"--storage", "web1", "--path", "var/backup/web1"});
    EXPECT_EQ(InfoRoot(), (Lines{"x.info"}));
    EXPECT_EQ(Below("var/backup/tovarn.private"), (Lines{"y.info"}));
    EXPECT_TRUE(local_files::Has("var/backup/web2/z.info"));
    EXPECT_EQ(Log(4), (Lines{"4: Skip bad name 'tovarn' on the storage",
                             "4: Skip bad name 'tovarn.private' on the storage"}));
}

TEST_F(RescanCommand, ADirectoryThatHoldsTheInstallRootIsRefused) {
    Place("sbin/kept", "x");
    for (const std::string path : {"", ".", "/", "..", "var"}) {
        const std::string text = TextOf<std::runtime_error>([&] { Run({"--path=" + path}); });
        EXPECT_NE(text.find("it contains the install root or its var directory"), std::string::npos)
            << path << ": " << text;
        EXPECT_TRUE(local_files::Has("sbin/kept"));
    }
}

TEST_F(RescanCommand, ADirectoryThatTouchesTheStorageIsRefused) {
    Place("srv/backups/F2026-11-15.web1.tgz", "x");
    Place("srv/other", "x");
    Place("var/backup/storage/F2026-11-15.web1.tgz", "x");
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"srv/backups", "srv"},
        {"srv/backups", "srv/backups"},
        {"srv/backups", "srv/backups/info"},
        {"var/backup/storage", "var/backup/web1"}};
    for (const auto& item : cases) {
        const std::string& path = item.second;
        setenv("BACKUP_TOKEN", ("local:" + item.first).c_str(), 1);
        const std::string text = TextOf<std::runtime_error>([&] { Run({"--path", path}); });
        EXPECT_EQ(text, "--path '" + path +
                            "' cannot be rescanned: it overlaps with the storage directory; use a "
                            "directory that contains only info files");
    }
    EXPECT_TRUE(local_files::Has("srv/backups/F2026-11-15.web1.tgz"));
    EXPECT_TRUE(local_files::Has("srv/other"));
    EXPECT_TRUE(local_files::Has("var/backup/storage/F2026-11-15.web1.tgz"));
}

TEST_F(RescanCommand, AUserNamedLikeAnInfoRootIsAUserAmongUsers) {
    StoreDated("web1", "2026-11-20");
    Place(InfoRoot("tovarn/2026-11-01/2026-11-01.tovarn.info"), "gone");
    Run();
    EXPECT_EQ(InfoRoot(), DatedFiles("web1", "2026-11-20"));
}

TEST_F(RescanCommand, TheDirectoryOfAllInfoRootsIsRefused) {
    Place("var/other", "kept");
    for (const std::string path : {"var/backup", "var/backup/", "/srv/var//backup"}) {
        const std::string good = path.front() == '/' ? "/srv/var/backup" : "var/backup";
        EXPECT_EQ(TextOf<std::runtime_error>([&] {
                      Run({"--path", path});
                  }),
                  "--path '" + good + "' cannot be rescanned: use the info root in it, such as '" +
                      good + "/tovarn'");
    }
    EXPECT_EQ(local_files::Load("var/other"), "kept");
    EXPECT_EQ(store_->log(), (Lines{}));
}

// --- An empty storage ---

TEST_F(RescanCommand, OfAnEmptyStorageEmptiesTheInfoRoot) {
    Place(InfoRoot("2026-11-20.web1.info"), "gone");
    Place(InfoRoot("web1/2026-11-20/2026-11-20.web1.info"), "gone");
    Place(InfoRoot(".encrypted_indexes"), "gone");
    Place(InfoRoot(".hidden"), "gone");
    Run();
    EXPECT_EQ(InfoRoot(), (Lines{}));
    EXPECT_EQ(Fetched(), (Lines{}));
    EXPECT_EQ(Log(5), (Lines{"5: Rescan storage and place indexes to 'var/backup/tovarn'"}));
}

TEST_F(RescanCommand, KeepsTheListOfIncompleteBackupsWhichNoStorageCouldGiveBack) {
    Place(InfoRoot(".cleanup"), "F2026-11-20.web1\n");
    Run();
    EXPECT_EQ(InfoRoot(), (Lines{".cleanup"}));
    EXPECT_EQ(Local(".cleanup"), "F2026-11-20.web1\n");
}

TEST_F(RescanCommand, MakesAMissingInfoRoot) {
    StoreFlat("2026-11-20.web1");
    std::filesystem::remove_all("var/backup");
    Run();
    EXPECT_EQ(InfoRoot(), (Lines{"2026-11-20.web1.info", "2026-11-20.web1.tgz"}));
}

// --- Indexes under other keys ---

TEST_F(RescanCommand, ListsTheIndexesThatStayEncrypted) {
    for (const char* const stem : {"2026-11-20.web1", "web2/2026-11-20/2026-11-20.web2"}) {
        store_->SetFile(std::string(stem) + ".info", "key_hash=other\n");
        store_->SetFile(std::string(stem) + ".tgz", "index");
    }
    StoreFlat("2026-11-20.web3");
    Place(InfoRoot(".encrypted_indexes"), "a line that is longer than what is there now, twice\n");
    Run();
    EXPECT_EQ(Local(".encrypted_indexes"),
              "2026-11-20.web1.tgz.aes=\nweb2/2026-11-20/2026-11-20.web2.tgz.aes=");
    EXPECT_EQ(Local("2026-11-20.web1.tgz.aes"), "index");
}

TEST_F(RescanCommand, ReplacesTheListOfEncryptedIndexes) {
    const std::string stem = "web1/2026-11-20/2026-11-20.web1";
    store_->SetFile(stem + ".info", "key_hash=other\n");
    store_->SetFile(stem + ".tgz", "index");
    Place(InfoRoot(".encrypted_indexes"), std::string(1000, 'x'));
    Run({"--storage", "web1"});
    EXPECT_EQ(Local(".encrypted_indexes"), stem + ".tgz.aes=");
}

// --- RemoveMissedDirs ---

TEST_F(RescanCommand, RemoveMissedDirsComparesNamesExactly) {
    for (const char* const name : {"a", "ab", "A", "dir/file", "a.tgz"})
        Place("d/" + std::string(name), "");
    RemovedEntries removed("", "d", false);
    RemoveMissedDirs({"a", "b"}, "d", true, removed);
    EXPECT_EQ(Below("d").size(), 6U);
    RemoveMissedDirs({"a", "b"}, "d", false, removed);
    EXPECT_EQ(Below("d"), (Lines{"a"}));
    RemoveMissedDirs({}, "missing", false, removed);
}

TEST_F(RescanCommand, RemovesALinkAndNotWhatItPointsTo) {
    Place("home/file", "kept");
    std::filesystem::create_symlink("../../../home", InfoRoot("link"));
    Run();
    EXPECT_EQ(InfoRoot(), (Lines{}));
    EXPECT_EQ(Below("home"), (Lines{"file"}));
}

}  // namespace
