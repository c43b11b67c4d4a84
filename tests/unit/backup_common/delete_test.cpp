// Deletion of one backup in each of its forms. The tests compare the storage's operations in their
// order.
#include <gtest/gtest.h>

#include "kro/kro_err.h"
#include "program_site.h"
#include "quarn2/token.h"
#include "quarn2_cp2_misc_delete.h"
#include "quarn2_cp2_misc_owner.h"
#include "quarn2_cp2_misc_prefix.h"

namespace {

constexpr const char* kInfo = "root/2026-11-15.web1.info";

class DeleteTest : public ProgramSite {
  protected:
    // Deletes the backup with this info file. Returns the storage's operations after the first one,
    // which checks that the backup is there.
    Lines Run(const std::string& info, const std::string& path = kInfo, bool skip_full = false) {
        Place(path, info);
        Delete(storage_, path, skip_full);
        return AfterProbe(path);
    }

    Lines AfterProbe(const std::string& path) const {
        Lines log = store_->log();
        if (log.empty()) return log;
        const std::string name = std::filesystem::path(path).filename();
        EXPECT_EQ(log.front(), "List " + name);
        log.erase(log.begin());
        return log;
    }

    std::shared_ptr<quarn2::Storage> storage_ =
        quarn2::GetStorage(quarn2::BackupToken("memory:site"));
};

// --- The plain forms ---

TEST_F(DeleteTest, NumberedSlicesGoFromTheLastToTheFirst) {
    EXPECT_EQ(Run("last-slice=F2026-11-15.web1.3.dar\ntype=full"),
              (Lines{"Remove F2026-11-15.web1.3.dar", "Remove F2026-11-15.web1.2.dar",
                     "Remove F2026-11-15.web1.1.dar", "Remove 2026-11-15.web1.1.dar",
                     "Remove F2026-11-15.web1.info", "Remove 2026-11-15.web1.info"}));
    EXPECT_EQ(Log(), (Lines{"6: Delete 'F2026-11-15.web1.3.dar'"}));
}

TEST_F(DeleteTest, NumberedPartsGoFromTheLastToTheFirst) {
    EXPECT_EQ(Run("last-slice=I2026-11-15.web1.tar.gz.part2"),
              (Lines{"Remove I2026-11-15.web1.tar.gz.part2", "Remove I2026-11-15.web1.tar.gz.part1",
                     "Remove 2026-11-15.web1.tar.gz", "Remove I2026-11-15.web1.info",
                     "Remove 2026-11-15.web1.tgz", "Remove 2026-11-15.web1.info"}));
    EXPECT_EQ(Log(), (Lines{"6: Delete 'I2026-11-15.web1.tar.gz.part2'"}));
}

TEST_F(DeleteTest, ASingleFileGoesWithItsTwin) {
    EXPECT_EQ(Run("last-slice=F2026-11-15.web1.tgz and more words"),
              (Lines{"Remove F2026-11-15.web1.tgz", "Remove 2026-11-15.web1.tgz",
                     "Remove F2026-11-15.web1.info", "Remove 2026-11-15.web1.info"}));
    EXPECT_EQ(Log(), (Lines{"6: Delete 'F2026-11-15.web1.tgz'"}));
}

TEST_F(DeleteTest, TheTwinOfACustomBackupIsCalledCustom) {
    EXPECT_EQ(Run("last-slice=C2026-11-15.web1.tgz", "root/custom.web1.info"),
              (Lines{"Remove C2026-11-15.web1.tgz", "Remove custom.web1.tgz",
                     "Remove C2026-11-15.web1.info", "Remove custom.web1.info"}));
    store_->ClearLog();
    EXPECT_EQ(Run("last-slice=C0123456789.rest.2.dar", "root/custom.rest.info"),
              (Lines{"Remove C0123456789.rest.2.dar", "Remove C0123456789.rest.1.dar",
                     "Remove custom.rest.1.dar", "Remove C0123456789.rest.info",
                     "Remove custom.rest.info"}));
}

TEST_F(DeleteTest, ManySlicesAreCountedNotSorted) {
    const Lines log = Run("last-slice=F2026-11-15.web1.12.dar");
    ASSERT_EQ(log.size(), 15U);
    EXPECT_EQ(log[0], "Remove F2026-11-15.web1.12.dar");
    EXPECT_EQ(log[3], "Remove F2026-11-15.web1.9.dar");
    EXPECT_EQ(log[11], "Remove F2026-11-15.web1.1.dar");
}

TEST_F(DeleteTest, WithoutANumberNoPieceIsDeleted) {
    EXPECT_EQ(Run("last-slice=F2026-11-15.web1.0.dar"),
              (Lines{"Remove 2026-11-15.web1.1.dar", "Remove F2026-11-15.web1.info",
                     "Remove 2026-11-15.web1.info"}));
    store_->ClearLog();
    EXPECT_EQ(Run("last-slice=F2026-11-15.web1.tgz.part"),
              (Lines{"Remove 2026-11-15.web1.tgz", "Remove F2026-11-15.web1.info",
                     "Remove 2026-11-15.web1.info"}));
}

TEST_F(DeleteTest, ANumberThatIsNoneDeletesNoPiece) {
    EXPECT_EQ(Run("last-slice=F2026-11-15.web1.x.dar"),
              (Lines{"Remove 2026-11-15.web1.1.dar", "Remove F2026-11-15.web1.info",
                     "Remove 2026-11-15.web1.info"}));
    EXPECT_EQ(Log(4),
              (Lines{"4: Slice without a number. What: 'x' is not a whole decimal number"}));
    EXPECT_FALSE(local_files::Has(kInfo));
}

TEST_F(DeleteTest, OfVeryManySlicesThoseThatThereAreAreDeleted) {
    for (const char* name : {"F2026-11-15.web1.1.dar", "F2026-11-15.web1.17.dar",
                             "F2026-11-15.web1.x.dar", "F2026-11-15.web11.1.dar"}) {
        store_->SetFile(name, "x");
    }
    const Lines log = Run("last-slice=F2026-11-15.web1.2000000000.dar");
    EXPECT_EQ(log, (Lines{"List", "Remove F2026-11-15.web1.1.dar", "Remove F2026-11-15.web1.17.dar",
                          "Remove 2026-11-15.web1.1.dar", "Remove F2026-11-15.web1.info",
                          "Remove 2026-11-15.web1.info"}));
    EXPECT_EQ(Stored(), (Lines{"F2026-11-15.web1.x.dar", "F2026-11-15.web11.1.dar"}));
}

TEST_F(DeleteTest, ABrokenBackupThatCouldNotBeClearedKeepsItsInfoFile) {
    store_->SetHook([](const std::string& operation, const std::string& name) {
        if (operation == "List" && name.empty()) {
            throw kro_err::Error(kro_err::Kind::kUnavailable, "down");
        }
    });
    Run("last-slice=");
    EXPECT_TRUE(local_files::Has(kInfo)) << "it is needed to try again";
}

TEST_F(DeleteTest, ANameOfOneCharacterHasNoTwin) {
    EXPECT_EQ(Run("last-slice=F"), (Lines{"Remove .info", "Remove 2026-11-15.web1.info"}));
}

TEST_F(DeleteTest, AStorageThatDoesNotAnswerCostsNoBackupItsState) {
    const std::string info = "finished=2026-11-15 01:00:00\nlast-slice=F2026-11-15.web1.1.dar";
    store_->SetHook([](const std::string&, const std::string&) {
        throw kro_err::Error(kro_err::Kind::kUnavailable, "down");
    });
    EXPECT_EQ(TextOf<kro_err::Error>([&] { Run(info); }), "down");
    EXPECT_EQ(local_files::Load(kInfo), info);
}

// --- Roles ---

TEST_F(DeleteTest, RolesGoBeforeTheLastSliceInReverseOrder) {
    EXPECT_EQ(
        Run("last-slice=F2026-11-15.web1.tgz\nrole-a=F2026-11-15.a.tgz x\n"
            "role-b=F2026-11-15.b.2.dar\nrole=ignored\nsize=5"),
        (Lines{"Remove F2026-11-15.b.2.dar", "Remove F2026-11-15.b.1.dar",
               "Remove 2026-11-15.b.1.dar", "Remove F2026-11-15.b.info", "Remove F2026-11-15.a.tgz",
               "Remove 2026-11-15.a.tgz", "Remove F2026-11-15.a.info",
               "Remove F2026-11-15.web1.tgz", "Remove 2026-11-15.web1.tgz",
               "Remove F2026-11-15.web1.info", "Remove 2026-11-15.web1.info"}));
    EXPECT_EQ(Log(), (Lines{"6: Delete 'F2026-11-15.b.2.dar'", "6: Delete 'F2026-11-15.a.tgz'",
                            "6: Delete 'F2026-11-15.web1.tgz'"}));
}

TEST_F(DeleteTest, ARoleThatSharesTheArchiveHasItsOwnCompanions) {
    Place("root/F2026-11-15.web1db.tgz", "index");
    Place("root/F2026-11-15.web1db.info", "info");
    EXPECT_EQ(Run("last-slice=F2026-11-15.web1.tgz\nrole-db=F2026-11-15.web1.tgz"),
              (Lines{"Remove 2026-11-15.web1db.tgz", "Remove F2026-11-15.web1db.info",
                     "Remove F2026-11-15.web1.tgz", "Remove 2026-11-15.web1.tgz",
                     "Remove F2026-11-15.web1.info", "Remove 2026-11-15.web1.info"}));
    EXPECT_EQ(Log(), (Lines{"6: Delete 'F2026-11-15.web1.tgz'"}));
    EXPECT_EQ(Below("root"), Lines());
}

TEST_F(DeleteTest, ARoleThatSharesPartsIsCutAtThem) {
    EXPECT_EQ(Run("last-slice=F2026-11-15.web1.tgz.part1\nrole-db=F2026-11-15.web1.tgz.part1"),
              (Lines{"Remove 2026-11-15.web1db.tgz", "Remove F2026-11-15.web1db.info",
                     "Remove F2026-11-15.web1.tgz.part1", "Remove 2026-11-15.web1.tgz",
                     "Remove F2026-11-15.web1.info", "Remove 2026-11-15.web1.info"}));
}

TEST_F(DeleteTest, ARoleThatSharesNumberedSlicesKeepsTheirName) {
    EXPECT_EQ(Run("last-slice=F2026-11-15.web1.2.dar\nrole-db=F2026-11-15.web1.2.dar"),
              (Lines{"Remove 2026-11-15.web1.2.dar", "Remove F2026-11-15.web1.info",
                     "Remove F2026-11-15.web1.2.dar", "Remove F2026-11-15.web1.1.dar",
                     "Remove 2026-11-15.web1.1.dar", "Remove F2026-11-15.web1.info",
                     "Remove 2026-11-15.web1.info"}));
}

// The storage checks only the stored name. For a custom backup, the local name has another prefix,
// so the deletion must check it.
TEST_F(DeleteTest, ARoleNeverLeadsOutOfTheInfoRoot) {
    Place("outside.tgz", "");
    Place("root/C/file", "");
    EXPECT_EQ(
        TextOf<std::runtime_error>([this] { Run("last-slice=C.tgz\nrole-/../../outside=C.tgz"); }),
        "'C/../../outside.tgz' is not the name of a slice");
    EXPECT_TRUE(local_files::Has("outside.tgz"));
    EXPECT_TRUE(local_files::Has(kInfo));
    EXPECT_EQ(AfterProbe(kInfo), Lines{});
}

TEST_F(DeleteTest, SharingIsEqualityOfTheWholeValue) {
    EXPECT_EQ(Run("last-slice=F2026-11-15.web1.tgz more\nrole-db=F2026-11-15.web1.tgz"),
              (Lines{"Remove F2026-11-15.web1.tgz", "Remove 2026-11-15.web1.tgz",
                     "Remove F2026-11-15.web1.info", "Remove F2026-11-15.web1.tgz",
                     "Remove 2026-11-15.web1.tgz", "Remove F2026-11-15.web1.info",
                     "Remove 2026-11-15.web1.info"}));
}

// --- Local files ---

TEST_F(DeleteTest, LocalCopiesOfTheBackupGoAndOthersStay) {
    for (const char* name : {"F2026-11-15.web1.tgz", "F2026-11-15.web1.info", "2026-11-15.web1.tgz",
                             "2026-11-15.web1.tgz.aes", "2026-11-15.web1.1.dar"}) {
        Place(std::string("root/") + name, "x");
    }
    Place("root/2026-11-15.web10.info", "x");
    Place("root/2026-11-16.web1.tgz", "x");
    Run("last-slice=F2026-11-15.web1.tgz");
    EXPECT_EQ(Below("root"), (Lines{"2026-11-15.web10.info", "2026-11-16.web1.tgz"}));
}

TEST_F(DeleteTest, AnInfoFileWithoutANameTakesNothingBesideItsDirectory) {
    for (const char* name : {"root.tgz", "root.tgz.aes", "root.1.dar"}) Place(name, "");
    Place("root/.tgz", "");
    Run("last-slice=F2026-11-15.web1.tgz", "root/.info");
    EXPECT_EQ(Below("root"), Lines{});
    for (const char* name : {"root.tgz", "root.tgz.aes", "root.1.dar"}) {
        EXPECT_TRUE(local_files::Has(name)) << name;
    }
}

TEST_F(DeleteTest, EncryptedIndexesGoWithTheirLines) {
    Place("root/.encrypted_indexes",
          "2026-11-15.web1.tgz.aes=h1\n2026-11-16.web1.tgz.aes=h2\nF2026-11-15.web1.tgz.aes=h3");
    Place("root/2026-11-15.web1.tgz.aes", "x");
    Place("root/F2026-11-15.web1.tgz.aes", "x");
    Run("last-slice=F2026-11-15.web1.2.dar");
    EXPECT_EQ(local_files::Load("root/.encrypted_indexes"), "2026-11-16.web1.tgz.aes=h2");
    EXPECT_EQ(Below("root"), (Lines{".encrypted_indexes"}));
}

TEST_F(DeleteTest, WithoutAnySliceTheBackupsInfoFileStillGoes) {
    EXPECT_EQ(Run("type=incremental\nsize=3"), (Lines{"Remove 2026-11-15.web1.info"}));
    EXPECT_FALSE(local_files::Has(kInfo));
    EXPECT_EQ(Log(), Lines());
}

// --- Full backups ---

TEST_F(DeleteTest, SkipFullLeavesAFullBackupAlone) {
    const std::string info = "last-slice=F2026-11-15.web1.tgz\ntype=full";
    EXPECT_EQ(Run(info, kInfo, true), Lines());
    EXPECT_EQ(Log(), (Lines{"5: Skip full backup root/2026-11-15.web1.info"}));
    EXPECT_EQ(local_files::Load(kInfo), info);
}

TEST_F(DeleteTest, SkipFullDeletesEveryOtherBackup) {
    EXPECT_EQ(Run("last-slice=I2026-11-15.web1.tgz\ntype=Full", kInfo, true).size(), 4U);
    EXPECT_FALSE(local_files::Has(kInfo));
}

// --- A broken backup ---

TEST_F(DeleteTest, AnEmptyLastSliceDeletesByPrefixAndGoesOn) {
    store_->SetFile("F2026-11-15.web1.tgz.part1", "x");
    store_->SetFile("F2026-11-15.web10.tgz", "x");
    store_->SetFile("F2026-11-15.db.tgz", "x");
    EXPECT_EQ(Run("last-slice=\nrole-db=F2026-11-15.db.tgz"),
              (Lines{"Remove F2026-11-15.db.tgz", "Remove 2026-11-15.db.tgz",
                     "Remove F2026-11-15.db.info", "List", "Remove F2026-11-15.web1.tgz.part1",
                     "Remove 2026-11-15.web1.info"}));
    EXPECT_EQ(Stored(), (Lines{"F2026-11-15.web10.tgz"}));
    EXPECT_EQ(Log(),
              (Lines{"6: Delete 'F2026-11-15.db.tgz'",
                     "4: Last slice in 'root/2026-11-15.web1.info' is empty",
                     "8: DeleteByPrefix info file = root/2026-11-15.web1.info",
                     "7: Delete file F2026-11-15.web1.tgz.part1 (slice name from prefix)",
                     "7: Delete local file root/2026-11-15.web1.info (slice name from prefix)"}));
}

TEST_F(DeleteTest, AnEmptyRoleDoesNotEndTheWalk) {
    const Lines log = Run("last-slice=F2026-11-15.web1.tgz\nrole-db= x");
    EXPECT_EQ(log, (Lines{"List", "Remove F2026-11-15.web1.tgz", "Remove 2026-11-15.web1.tgz",
                          "Remove F2026-11-15.web1.info", "Remove 2026-11-15.web1.info"}));
    EXPECT_EQ(Log(4), (Lines{"4: Last slice in 'root/2026-11-15.web1.info' is empty"}));
}

// --- The directory form ---

constexpr const char* kDirInfo = "root/web1/2026-11-15/2026-11-15.web1.info";

TEST_F(DeleteTest, ADirectoryGoesOnBothSides) {
    store_->SetFile("web1/2026-11-15/F2026-11-15.web1.1.dar", "x");
    store_->SetFile("web1/2026-11-16/I2026-11-16.web1.1.dar", "x");
    Place("root/web1/2026-11-15/2026-11-15.web1.1.dar", "x");
    Place("root/web1/2026-11-15/deeper/file", "x");
    EXPECT_EQ(Run("last-slice=web1/2026-11-15/F2026-11-15.web1.1.dar", kDirInfo),
              (Lines{"List web1/2026-11-15", "RemoveDir web1/2026-11-15"}));
    EXPECT_EQ(Below("root"), Lines()) << "the user's directory was left empty";
    EXPECT_EQ(Stored(), (Lines{"web1/2026-11-16/I2026-11-16.web1.1.dar"}));
    EXPECT_EQ(Log(), Lines());
}

// The archives of two users were staged in the same directory "work/2026-11-15".
TEST_F(DeleteTest, ASharedDirectoryKeepsTheOthersFiles) {
    const std::string directory = "work/2026-11-15/";
    for (const std::string user : {"web1", "web2"}) {
        for (const std::string& name :
             Lines{"F2026-11-15." + user + ".1.dar", "2026-11-15." + user + ".tgz",
                   "F2026-11-15." + user + ".2.dar", "2026-11-15." + user + ".info"}) {
            store_->SetFile(directory + name, "x");
            Place("root/" + directory + name, "x");
        }
    }
    Run("last-slice=work/2026-11-15/F2026-11-15.web1.2.dar",
        "root/work/2026-11-15/2026-11-15.web1.info");
    const Lines kept = {"2026-11-15.web2.info", "2026-11-15.web2.tgz", "F2026-11-15.web2.1.dar",
                        "F2026-11-15.web2.2.dar"};
    Lines stored;
    for (const std::string& name : kept) stored.push_back(directory + name);
    EXPECT_EQ(Stored(), stored);
    Lines local = Below("root/work/2026-11-15");
    // Ignores archives that wait for their upload: the backup job removes them, not the deletion.
    std::erase_if(local,
                  [](const std::string& name) { return name.starts_with("F2026-11-15.web1"); });
    EXPECT_EQ(local, kept);
    EXPECT_EQ(store_->log().back(), "Remove work/2026-11-15/2026-11-15.web1.info");
}

TEST_F(DeleteTest, AnotherUsersArchivesInTheBackupsOwnDirectoryStay) {
    store_->SetFile("web1/2026-11-15/F2026-11-15.web1.1.dar", "x");
    store_->SetFile("web1/2026-11-15/F2026-11-15.web2.1.dar", "x");
    Place("root/web1/2026-11-15/F2026-11-15.web2.1.dar", "x");
    Run("last-slice=web1/2026-11-15/F2026-11-15.web1.1.dar", kDirInfo);
    EXPECT_EQ(Stored(), (Lines{"web1/2026-11-15/F2026-11-15.web2.1.dar"}));
    EXPECT_EQ(Below("root/web1/2026-11-15"), (Lines{"F2026-11-15.web2.1.dar"}));
}

TEST_F(DeleteTest, ADirectoryAboveTheBackupsOwnStays) {
    store_->SetFile("web1/F2026-11-15.web1.1.dar", "x");
    store_->SetFile("web1/2026-11-14/F2026-11-14.web1.1.dar", "x");
    Run("last-slice=web1/F2026-11-15.web1.1.dar", kDirInfo);
    EXPECT_EQ(Stored(), (Lines{"web1/2026-11-14/F2026-11-14.web1.1.dar"}));
}

TEST_F(DeleteTest, ASharedDirectoryLosesTheSlicesOfRolesToo) {
    store_->SetFile("work/2026-11-15/F2026-11-15.web1.tgz", "x");
    store_->SetFile("work/2026-11-15/F2026-11-15.web1.db.tgz", "x");
    store_->SetFile("work/2026-11-15/F2026-11-15.web1.mail.tgz", "x");
    Run("last-slice=work/2026-11-15/F2026-11-15.web1.tgz\n"
        "role-db=work/2026-11-15/F2026-11-15.web1.db.tgz",
        kDirInfo);
    EXPECT_EQ(Stored(), (Lines{"work/2026-11-15/F2026-11-15.web1.mail.tgz"}))
        << "it may be the archive of a user 'web1.mail'";
}

TEST_F(DeleteTest, ARoleThatSharesTheSliceNameIsNoOtherUsersFile) {
    store_->SetFile("web1/2026-11-15/F2026-11-15.web1.tgz", "x");
    store_->SetFile("web1/2026-11-15/F2026-11-15.web1sql.tgz", "x");
    Run("last-slice=web1/2026-11-15/F2026-11-15.web1.tgz\n"
        "role-sql=web1/2026-11-15/F2026-11-15.web1.tgz",
        kDirInfo);
    EXPECT_EQ(Stored(), Lines());
}

TEST(OwnsDirectory, OnlyUserAndDateWithoutAnotherUsersFiles) {
    const BackupNames backup{"web1", "2026-11-15", {"F2026-11-15.web1", "F2026-11-15.web1.db"}};
    struct Case {
        std::string directory;
        std::vector<std::string> names;
        bool owns;
    };
    const std::vector<Case> cases = {
        {"web1/2026-11-15", {}, true},
        {"web1/2026-11-15", {"F2026-11-15.web1.1.dar", "2026-11-15.web1.info", "notes"}, true},
        {"web1/2026-11-15", {"F2026-11-15.web1.db.tgz"}, true},
        {"web1/2026-11-15", {"I2026-11-14.web1.tgz"}, true},
        {"web1/2026-11-15", {"F2026-11-15.web10.tgz"}, false},
        {"web1/2026-11-15", {"F2026-11-15.web1.1.dar", "2026-11-15.web2.info"}, false},
        {"web1", {}, false},
        {"", {}, false},
        {"web1/2026-11-14", {}, false},
        {"web2/2026-11-15", {}, false},
        {"x/web1/2026-11-15", {}, false},
        {"web1/2026-11-15/x", {}, false}};
    for (const Case& c : cases) EXPECT_EQ(OwnsDirectory(c.directory, c.names, backup), c.owns);
    EXPECT_FALSE(OwnsDirectory("", {}, {"", "", {}}));
    EXPECT_FALSE(OwnsDirectory("../2026-11-15", {}, {"..", "2026-11-15", {}}));
}

TEST_F(DeleteTest, TheUsersDirectoryStaysWhileItHoldsOthers) {
    Place("root/web1/2026-11-16/2026-11-16.web1.info", "x");
    Run("last-slice=web1/2026-11-15/F2026-11-15.web1.1.dar", kDirInfo);
    EXPECT_EQ(Below("root"),
              (Lines{"web1", "web1/2026-11-16", "web1/2026-11-16/2026-11-16.web1.info"}));
}

TEST_F(DeleteTest, ARoleInADirectoryLeavesTheStoragesDirectoryToTheLastSlice) {
    EXPECT_EQ(Run("last-slice=web1/2026-11-15/F.1.dar\nrole-db=web1/db/F.1.dar", kDirInfo),
              (Lines{"List web1/2026-11-15", "RemoveDir web1/2026-11-15"}));
    EXPECT_EQ(Below("root"), Lines());
}

TEST_F(DeleteTest, ARoleInADirectoryBesideAPlainArchiveLeavesNoInfoFileOnTheStorage) {
    store_->SetFile("2026-11-15.web1.info", "x");
    EXPECT_EQ(Run("last-slice=F2026-11-15.web1.tgz\nrole-db=web1/db/F.1.dar"),
              (Lines{"Remove F2026-11-15.web1.tgz", "Remove 2026-11-15.web1.tgz",
                     "Remove F2026-11-15.web1.info", "Remove 2026-11-15.web1.info"}));
    EXPECT_EQ(Stored(), Lines());
    EXPECT_EQ(Below("root"), Lines());
}

TEST_F(DeleteTest, AnInfoFileAmongOthersTakesOnlyItsOwnAlong) {
    Place("root/2026-11-16.web1.info", "x");
    Place("root/2026-11-15.web1.tgz", "x");
    Run("last-slice=web1/2026-11-15/F2026-11-15.web1.1.dar");
    EXPECT_EQ(Below("root"), (Lines{"2026-11-16.web1.info"}));
    EXPECT_EQ(AfterProbe(kInfo), (Lines{"List web1/2026-11-15", "RemoveDir web1/2026-11-15"}));
}

TEST_F(DeleteTest, AnInfoFileAboveTheUsersDirectoriesTakesOnlyItsOwnAlong) {
    Place("root/web2/2026-11-15/2026-11-15.web2.info", "x");
    Place("root/.cleanup", "x");
    Run("last-slice=web1/2026-11-15/F2026-11-15.web1.1.dar");
    EXPECT_EQ(Below("root"), (Lines{".cleanup", "web2", "web2/2026-11-15",
                                    "web2/2026-11-15/2026-11-15.web2.info"}));
}

TEST_F(DeleteTest, AnInfoFileInTheCurrentDirectoryTakesOnlyItsOwnAlong) {
    Run("last-slice=web1/2026-11-15/F2026-11-15.web1.1.dar", "2026-11-15.web1.info");
    EXPECT_FALSE(local_files::Has("2026-11-15.web1.info"));
    EXPECT_TRUE(local_files::Has("var"));
}

// --- Failures ---

TEST_F(DeleteTest, AMissingInfoFileIsAnError) {
    EXPECT_EQ(TextOf<kro_err::Error>([&] { Delete(storage_, kInfo, false); }),
              "Failed to open info file 'root/2026-11-15.web1.info': No such file or directory");
}

TEST_F(DeleteTest, AnErrorEndsTheDeletionAfterTheSlicesAndItCanBeRepeated) {
    bool down = true;
    store_->SetHook([&](const std::string&, const std::string& name) {
        if (down && name == "F2026-11-15.web1.2.dar") {
            throw kro_err::Error(kro_err::Kind::kUnavailable, "down");
        }
    });
    const std::string info = "last-slice=F2026-11-15.web1.3.dar";
    EXPECT_EQ(TextOf<kro_err::Error>([&] { Run(info); }), "down");
    EXPECT_EQ(AfterProbe(kInfo),
              (Lines{"Remove F2026-11-15.web1.3.dar", "Remove F2026-11-15.web1.2.dar",
                     "Remove F2026-11-15.web1.1.dar"}));
    EXPECT_TRUE(local_files::Has(kInfo));
    down = false;
    store_->ClearLog();
    EXPECT_EQ(Run(info).size(), 6U);
    EXPECT_FALSE(local_files::Has(kInfo));
}

}  // namespace
