// Deleting by prefix, the list of encrypted indexes, the list of incomplete backups, the clear
// command.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "faults.h"
#include "kro/kro_err.h"
#include "program_site.h"
#include "quarn2/token.h"
#include "quarn2_cp2_ledger.h"
#include "quarn2_cp2_misc_cleanup.h"
#include "quarn2_cp2_misc_clear.h"
#include "quarn2_cp2_misc_encrypted.h"
#include "quarn2_cp2_misc_prefix.h"

namespace {

class CleanUpTest : public ProgramSite {
  protected:
    CleanUpTest() { std::filesystem::create_directory("root"); }

    std::shared_ptr<quarn2::Storage> storage_ =
        quarn2::GetStorage(quarn2::BackupToken("memory:site"));
};

// --- GetPrefix ---

TEST(GetPrefix, IsTheNameWithoutItsLetterAndItsEnding) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"Fname.info", "name"},
        {"2024name.tgz", "2024name"},
        {"Cname.tgz.part2", "name"},
        {"2026-11-15.web1.info", "2026-11-15.web1"},
        {"F2026-11-15.web1.tgz.aes", "2026-11-15.web1"},
        {"Fa.tgz.tgz.part1", "a.tgz"},
        {"Fa.info.info", "a.info"},
        {"Fa.tgz.info", "a.tgz"},
        {"Fa.info.x", "a.info.x"},
        {"F2026-11-15.web1.3.dar", "2026-11-15.web1.3.dar"},
        {"web1", "eb1"},
        {"F", ""},
        {"", ""},
        {"0", "0"},
        {".info", "info"},
        {".cleanup", "cleanup"}};
    for (const auto& [name, prefix] : cases) EXPECT_EQ(GetPrefix(name), prefix) << name;
}

// --- DeleteByPrefix ---

TEST_F(CleanUpTest, ByPrefixOnlyFilesOfTheSamePrefixGo) {
    for (const char* name :
         {"F2026-11-15.web1.tgz", "F2026-11-15.web1.tgz.part2", "2026-11-15.web1.info",
          "F2026-11-15.web10.tgz", "F2026-11-15.web1.1.dar", "I2026-11-16.web1.tgz"}) {
        store_->SetFile(name, "x");
        Place(std::string("root/") + name, "x");
    }
    DeleteByPrefix(storage_, "root/2026-11-15.web1.info");
    const Lines kept = {"F2026-11-15.web1.1.dar", "F2026-11-15.web10.tgz", "I2026-11-16.web1.tgz"};
    EXPECT_EQ(Stored(), kept);
    EXPECT_EQ(Below("root"), kept);
    EXPECT_EQ(store_->log(),
              (Lines{"List", "Remove 2026-11-15.web1.info", "Remove F2026-11-15.web1.tgz",
                     "Remove F2026-11-15.web1.tgz.part2"}));
    Lines log = Log();
    ASSERT_EQ(log.size(), 7U);
    EXPECT_EQ((Lines{log.begin(), log.begin() + 4}),
              (Lines{"8: DeleteByPrefix info file = root/2026-11-15.web1.info",
                     "7: Delete file 2026-11-15.web1.info (slice name from prefix)",
                     "7: Delete file F2026-11-15.web1.tgz (slice name from prefix)",
                     "7: Delete file F2026-11-15.web1.tgz.part2 (slice name from prefix)"}));
    std::sort(log.begin() + 4, log.end());
    EXPECT_EQ((Lines{log.begin() + 4, log.end()}),
              (Lines{"7: Delete local file root/2026-11-15.web1.info (slice name from prefix)",
                     "7: Delete local file root/F2026-11-15.web1.tgz (slice name from prefix)",
                     "7: Delete local file root/F2026-11-15.web1.tgz.part2 (slice name from "
                     "prefix)"}));
}

TEST_F(CleanUpTest, ByPrefixErrorsAreLoggedNotThrown) {
    store_->SetFile("F2026-11-15.web1.tgz", "x");
    store_->SetFile("I2026-11-15.web1.tgz", "x");
    Place("root/2026-11-15.web1.info", "x");
    store_->SetHook([](const std::string& operation, const std::string& name) {
        if (operation == "Remove" && name.starts_with("I")) {
            throw kro_err::Error(kro_err::Kind::kUnavailable, "down");
        }
    });
    DeleteByPrefix(storage_, "root/2026-11-15.web1.info");
    EXPECT_EQ(Stored(), (Lines{"I2026-11-15.web1.tgz"})) << "what was deleted stays deleted";
    EXPECT_TRUE(local_files::Has("root/2026-11-15.web1.info"));
    EXPECT_EQ(Log(4), (Lines{"4: Cant delete backup '%' : down"}));
}

// --- DeleteEncryptedIndex ---

TEST_F(CleanUpTest, AListedIndexGoesWithExactlyOneLine) {
    Place("root/.encrypted_indexes", "b.tgz.aes=h=2\na.tgz.aes=h1\n\nc.tgz.aes=\n");
    Place("root/a.tgz.aes", "x");
    Place("root/b.tgz.aes", "x");
    DeleteEncryptedIndex("root/a.tgz.aes");
    EXPECT_EQ(local_files::Load("root/.encrypted_indexes"), "b.tgz.aes=h=2\nc.tgz.aes=");
    EXPECT_EQ(Below("root"), (Lines{".encrypted_indexes", "b.tgz.aes"}));
}

TEST_F(CleanUpTest, TheLastLineLeavesAnEmptyList) {
    Place("root/.encrypted_indexes", "a.tgz.aes=h1");
    DeleteEncryptedIndex("root/a.tgz.aes");
    EXPECT_TRUE(local_files::Has("root/.encrypted_indexes"));
    EXPECT_EQ(local_files::Load("root/.encrypted_indexes"), "");
}

TEST_F(CleanUpTest, WithoutAListNoIndexIsDeleted) {
    Place("root/a.tgz.aes", "x");
    DeleteEncryptedIndex("root/a.tgz.aes");
    EXPECT_EQ(Below("root"), (Lines{"a.tgz.aes"}));
}

TEST_F(CleanUpTest, ALineThatAnotherProcessAddsMeanwhileStays) {
    const std::string list = "root/.encrypted_indexes";
    Place(list, "a.tgz.aes=h1\nb.tgz.aes=h2");
    int locks = 0;
    faults::OnFlock([&] {
        if (++locks == 2)
            WriteEncryptedIndexes("root", "a.tgz.aes=h1\nb.tgz.aes=h2\nnew.tgz.aes=h3");
    });
    DeleteEncryptedIndex("root/a.tgz.aes");
    faults::OnFlock(nullptr);
    EXPECT_GE(locks, 2);
    EXPECT_EQ(local_files::Load(list), "b.tgz.aes=h2\nnew.tgz.aes=h3");
}

TEST_F(CleanUpTest, AListOfEncryptedIndexesIsReplacedAsAWhole) {
    Place("root/.encrypted_indexes", "a longer line than those that replace this list=h0\n");
    WriteEncryptedIndexes("root",
                          EncryptedIndexLine("a", "h1") + "\n" + EncryptedIndexLine("b", ""));
    EXPECT_EQ(local_files::Load("root/.encrypted_indexes"), "a=h1\nb=");
}

TEST_F(CleanUpTest, AnIndexThatIsNotListedStays) {
    const std::string list = "b.tgz.aes=h2\n";
    Place("root/.encrypted_indexes", list);
    Place("root/a.tgz.aes", "x");
    DeleteEncryptedIndex("root/a.tgz.aes");
    EXPECT_TRUE(local_files::Has("root/a.tgz.aes"));
    EXPECT_EQ(local_files::Load("root/.encrypted_indexes"), list);
}

// --- CleanUp ---

constexpr const char* kList = "root/.cleanup";
constexpr const char* kTrace = "8: void CleanUp(const string&)";
constexpr const char* kFailed =
    "4: Failed to remove incomplete backup files. You can get failed list in root/.cleanup file";

TEST_F(CleanUpTest, WithoutAListNothingHappens) {
    CleanUp("root");
    EXPECT_EQ(Log(), (Lines{kTrace}));
    EXPECT_EQ(store_->log(), Lines());
    EXPECT_EQ(Below("root"), Lines());
    CleanUp("nowhere");
}

TEST_F(CleanUpTest, AListWithoutLinesGoes) {
    for (const char* text : {"", "\n\n"}) {
        Place(kList, text);
        CleanUp("root");
        EXPECT_EQ(Below("root"), Lines());
    }
}

TEST_F(CleanUpTest, AnIncompleteBackupGoesOnBothSides) {
    Place(kList, "memory:site\t2026-11-15.web1\n");
    for (const char* name : {"F2026-11-15.web1.tgz.part1", "F2026-11-15.web10.tgz.part1"}) {
        store_->SetFile(name, "x");
    }
    Place("root/2026-11-15.web1.tgz", "x");
    Place("root/2026-11-15.web10.tgz", "x");
    CleanUp("root");
    EXPECT_EQ(Stored(), (Lines{"F2026-11-15.web10.tgz.part1"}));
    EXPECT_EQ(Below("root"), (Lines{"2026-11-15.web10.tgz"}));
    EXPECT_EQ(Log(), (Lines{kTrace, "7: Delete file F2026-11-15.web1.tgz.part1 (incomplete backup)",
                            "7: Delete local file root/2026-11-15.web1.tgz (incomplete backup)"}));
}

TEST_F(CleanUpTest, OneBadEntryStaysInTheListAndStopsNoOther) {
    Place(kList,
          "memory:site\t2026-11-15.web1\ngopher://h/p\t2026-11-16.web1\n"
          "memory:site\t2026-11-17.web1");
    store_->SetFile("F2026-11-15.web1.tgz", "x");
    store_->SetFile("F2026-11-16.web1.tgz", "x");
    store_->SetFile("F2026-11-17.web1.tgz", "x");
    CleanUp("root");
    EXPECT_EQ(Stored(), (Lines{"F2026-11-16.web1.tgz"}));
    EXPECT_EQ(local_files::Load(kList), "gopher://h/p\t2026-11-16.web1\n");
    EXPECT_EQ(Log(4), (Lines{kFailed}));
    CleanUp("root");
    EXPECT_EQ(local_files::Load(kList), "gopher://h/p\t2026-11-16.web1\n");
}

TEST_F(CleanUpTest, AStorageThatFailsHalfwayKeepsTheEntry) {
    Place(kList, "memory:site\t2026-11-15.web1\n");
    store_->SetFile("F2026-11-15.web1.tgz", "x");
    store_->SetFile("I2026-11-15.web1.tgz", "x");
    store_->SetHook([](const std::string&, const std::string& name) {
        if (name.starts_with("I")) throw kro_err::Error(kro_err::Kind::kUnavailable, "down");
    });
    CleanUp("root");
    EXPECT_EQ(Stored(), (Lines{"I2026-11-15.web1.tgz"}));
    EXPECT_EQ(local_files::Load(kList), "memory:site\t2026-11-15.web1\n");
    EXPECT_EQ(Log(7), (Lines{"7: Delete file F2026-11-15.web1.tgz (incomplete backup)",
                             "7: Delete file I2026-11-15.web1.tgz (incomplete backup)", kFailed,
                             "6: down"}));
    store_->SetHook(nullptr);
    CleanUp("root");
    EXPECT_EQ(Stored(), Lines());
    EXPECT_FALSE(local_files::Has(kList));
}

TEST_F(CleanUpTest, WhatAnotherProcessChangesInTheListMeanwhileStays) {
    const std::string web1 = "memory:site\t2026-11-15.web1\n";
    const std::string unreachable = "gopher://h/p\t2026-11-16.web1\n";
    Place(kList, web1 + unreachable + web1);
    store_->SetFile("F2026-11-15.web1.tgz", "x");
    store_->SetHook([&](const std::string& operation, const std::string&) {
        if (operation == "Remove") Place(kList, web1 + web1 + "memory:site\t2026-11-17.web1\n");
    });
    CleanUp("root");
    EXPECT_EQ(local_files::Load(kList), "memory:site\t2026-11-17.web1\n");
}

TEST_F(CleanUpTest, TheTokenIsEscapedWithBackslashes) {
    Place(kList, "memory:\\s\\i\\\\te\tp\n");
    quarn2::MemoryStore& odd = *quarn2::MemoryStore::Named("si\\te");
    odd.SetFile("Fp.tgz", "x");
    CleanUp("root");
    EXPECT_TRUE(odd.files().empty());
    EXPECT_FALSE(local_files::Has(kList));
}

TEST_F(CleanUpTest, AnEntryWithoutAPrefixDeletesNothingAndStays) {
    Place(kList, "memory:site\t\nmemory:site\n\n");
    store_->SetFile("F", "x");
    store_->SetFile("x.tgz", "x");
    CleanUp("root");
    EXPECT_EQ(Stored(), (Lines{"F", "x.tgz"}));
    EXPECT_EQ(local_files::Load(kList), "memory:site\t\nmemory:site\n") << "no empty lines";
    EXPECT_EQ(Log(6), (Lines{kFailed, "6: a line of .cleanup has no prefix", kFailed,
                             "6: a line of .cleanup has no prefix"}));
}

// No file can have such a name.
TEST_F(CleanUpTest, APrefixWithANulByteDeletesNothingAndGoes) {
    using namespace std::string_literals;
    Place(kList, "memory:site\t\0x\n"s);
    store_->SetFile("x.tgz", "x");
    CleanUp("root");
    EXPECT_EQ(Stored(), (Lines{"x.tgz"}));
    EXPECT_FALSE(local_files::Has(kList));
    EXPECT_EQ(Log(6), Lines{});
}

// --- The clear command ---

class Clear : public CleanUpTest {
  protected:
    Clear() {
        store_->SetFile("a/b", "x");
        Place("var/backup/tovarn/a/b.info", "x");
        Place("var/backup/tovarn.private/c.info", "x");
        Place("var/backup/web1/d.info", "x");
    }
};

TEST_F(Clear, EmptiesTheStorageAndBothLocalDirectories) {
    CommandClear();
    EXPECT_EQ(store_->log(), (Lines{"List", "Clear"}));
    EXPECT_EQ(Stored(), Lines());
    EXPECT_EQ(Below("var/backup"), (Lines{"web1", "web1/d.info"}));
    EXPECT_EQ(Log(), (Lines{"5: Clear all storage"}));
}

TEST_F(Clear, WithoutATokenTheStorageIsLeftAlone) {
    setenv("BACKUP_TOKEN", "", 1);
    CommandClear();
    EXPECT_EQ(store_->log(), Lines());
    EXPECT_EQ(Below("var/backup"), (Lines{"web1", "web1/d.info"}));
    unsetenv("BACKUP_TOKEN");
    CommandClear();
    EXPECT_EQ(Stored(), (Lines{"a/b"}));
}

TEST_F(Clear, AMalformedTokenRemovesNothing) {
    setenv("BACKUP_TOKEN", "nonsense", 1);
    EXPECT_NE(TextOf<kro_err::Error>([] { CommandClear(); }).find("scheme"), std::string::npos);
    EXPECT_TRUE(local_files::Has("var/backup/tovarn/a/b.info"));
    EXPECT_TRUE(local_files::Has("var/backup/tovarn.private/c.info"));
}

// --- The clear command and another storage ---

class ClearAnother : public Clear {
  protected:
    static void Know(int count) {
        for (int day = 1; day <= count; ++day) {
            const std::string stem = "2026-11-0" + std::to_string(day) + ".web1";
            Place("var/backup/tovarn/" + stem + ".info",
                  "finished=2026-11-0" + std::to_string(day) + " 03:00:00\nlast-slice=F" + stem +
                      ".tgz");
        }
    }
};

TEST_F(ClearAnother, OfAStorageWithoutTheNewestBackupsIsRefused) {
    Know(3);
    const Lines before = Below("var/backup");
    EXPECT_EQ(
        TextOf<std::runtime_error>([] { CommandClear(); }),
        "the storage memory:site has none of the 3 newest backups in var/backup/tovarn; nothing "
        "was removed. Check that the storage is mounted and that the token is correct. If the "
        "storage was emptied on purpose, run --server --rescan and then --clear again");
    EXPECT_EQ(Below("var/backup"), before);
    EXPECT_EQ(Stored(), (Lines{"a/b"}));
}

TEST_F(ClearAnother, IsRefusedWhereTheInfoRootIsALinkToo) {
    Know(3);
    std::filesystem::rename("var/backup/tovarn", "elsewhere");
    std::filesystem::create_directory_symlink("../../elsewhere", "var/backup/tovarn");
    EXPECT_THROW(CommandClear(), std::runtime_error);
    EXPECT_EQ(Stored(), (Lines{"a/b"}));
    EXPECT_TRUE(local_files::Has("var/backup/tovarn/2026-11-01.web1.info"));
}

TEST_F(ClearAnother, OfAStorageWithOneOfThemIsDone) {
    Know(3);
    store_->SetFile("F2026-11-01.web1.tgz", "x");
    CommandClear();
    EXPECT_EQ(Stored(), Lines());
    EXPECT_FALSE(local_files::Has("var/backup/tovarn"));
}

TEST_F(ClearAnother, WithTwoKnownBackupsIsDone) {
    Know(2);
    CommandClear();
    EXPECT_EQ(Stored(), Lines());
}

TEST_F(ClearAnother, AfterAnInterruptedOneIsDone) {
    Know(3);
    Place("var/backup/tovarn/.clear", "");
    CommandClear();
    EXPECT_EQ(Stored(), Lines());
    EXPECT_FALSE(local_files::Has("var/backup/tovarn"));
}

TEST_F(ClearAnother, OfAStorageThatCannotBeAskedLeavesNoMarkerFile) {
    Know(3);
    store_->SetHook([](const std::string&, const std::string&) {
        throw kro_err::Error(kro_err::Kind::kUnavailable, "down");
    });
    EXPECT_EQ(TextOf<kro_err::Error>([] { CommandClear(); }), "down");
    EXPECT_FALSE(local_files::Has("var/backup/tovarn/.clear"));
}

TEST_F(Clear, AStorageThatFailsKeepsTheLocalDirectories) {
    store_->SetHook([](const std::string&, const std::string&) {
        throw kro_err::Error(kro_err::Kind::kUnavailable, "down");
    });
    EXPECT_EQ(TextOf<kro_err::Error>([] { CommandClear(); }), "down");
    EXPECT_TRUE(local_files::Has("var/backup/tovarn/a/b.info"));
    EXPECT_TRUE(local_files::Has("var/backup/tovarn.private/c.info"));
}

TEST_F(Clear, MissingLocalDirectoriesAreNoError) {
    std::filesystem::remove_all("var/backup");
    CommandClear();
    EXPECT_EQ(Stored(), Lines());
}

// --- The list and the ledger ---

class ListAndLedger : public CleanUpTest {
  protected:
    static void List(const std::string& prefix) {
        const std::string path = "root/.cleanup";
        const std::string before = local_files::Has(path) ? local_files::Load(path) : "";
        Place(path, before + "memory:site\t" + prefix + "\n");
    }
    static void Begin(const std::string& slice) {
        const Ledger ledger;
        ledger.Update(ledger.EntryNameOf(slice), [&slice](LedgerEntry& entry) {
            entry.storage = "memory:///site";
            entry.slices[slice] = {SliceState::kStored, 1, ""};
        });
    }
    void Store(const Lines& names) {
        for (const std::string& name : names) store_->SetFile(name, "x");
    }
};

TEST_F(ListAndLedger, ALineMeansTheUnfinishedOnesOfItsPrefix) {
    Store({"F2026-11-15.web1.tgz", "2026-11-15.web1.tgz", "2026-11-15.web1.info",
           "C2026-11-15.web1.tgz"});
    Begin("C2026-11-15.web1.tgz");
    List("2026-11-15.web1");
    CleanUp("root");
    EXPECT_EQ(Stored(),
              (Lines{"2026-11-15.web1.info", "2026-11-15.web1.tgz", "F2026-11-15.web1.tgz"}));
    EXPECT_EQ(Ledger().Entries().size(), 0U);
    EXPECT_FALSE(local_files::Has("root/.cleanup"));
}

TEST_F(ListAndLedger, WithoutAnEntryALineMeansWhatIsNotComplete) {
    const Lines full = {"2026-11-15.web1.info", "2026-11-15.web1.tgz", "F2026-11-15.web1.tgz"};
    Store(full);
    Store({"C2026-11-15.web1.tgz"});
    Place("root/2026-11-15.web1.info",
          "finished=2026-11-15 01:00:00\nlast-slice=F2026-11-15.web1.tgz\nsize=1");
    List("2026-11-15.web1");
    CleanUp("root");
    EXPECT_EQ(Stored(), full);
    EXPECT_TRUE(local_files::Has("root/2026-11-15.web1.info"));
    EXPECT_FALSE(local_files::Has("root/.cleanup"));
    for (const std::string& missing : full) {
        if (missing == "2026-11-15.web1.tgz") continue;
        store_->Reset();
        Store(full);
        storage_->RemoveFile(missing);
        List("2026-11-15.web1");
        CleanUp("root");
        EXPECT_EQ(Stored(), Lines()) << "without " << missing << " it is not complete";
        Place("root/2026-11-15.web1.info",
              "finished=2026-11-15 01:00:00\nlast-slice=F2026-11-15.web1.tgz\nsize=1");
    }
}

TEST_F(ListAndLedger, ALineOfANumberedSliceMeansThemToo) {
    Store({"F2026-11-15.web1.1.dar", "C2026-11-15.web1.1.dar"});
    Begin("F2026-11-15.web1.1.dar");
    List("2026-11-15.web1.1.dar");
    CleanUp("root");
    EXPECT_EQ(Stored(), (Lines{"C2026-11-15.web1.1.dar"}));
}

TEST_F(ListAndLedger, AnInfoFileOfAnEarlierRunGoesWithItsSlices) {
    Store({"C2026-11-15.web1.tgz", "custom.web1.info"});
    Place("root/custom.web1.info", "finished=x\nlast-slice=C2026-11-15.web1.tgz\nsize=1");
    Begin("C2026-11-15.web1.tgz");
    List("2026-11-15.web1");
    CleanUp("root");
    EXPECT_EQ(Stored(), Lines());
    EXPECT_EQ(Below("root"), Lines());
}

TEST_F(ListAndLedger, TheEntryOfADeletionOnAFullDiskMeansTheWholeBackup) {
    Store({"F2026-11-15.web1.tgz", "2026-11-15.web1.tgz", "2026-11-15.web1.info",
           "C2026-11-15.web1.tgz"});
    Place("root/2026-11-15.web1.info", "finished=x\nlast-slice=F2026-11-15.web1.tgz\nsize=1");
    Ledger().MakeUnknown("2026-11-15.web1");
    List("2026-11-15.web1");
    CleanUp("root");
    EXPECT_EQ(Stored(), (Lines{"C2026-11-15.web1.tgz"}));
    EXPECT_EQ(Below("root"), Lines());
    EXPECT_EQ(Ledger().Entries().size(), 0U);
}

TEST_F(ListAndLedger, WhileALineIsLeftTheLedgerKeepsItsEntries) {
    Store({"C2026-11-15.web1.tgz"});
    Begin("C2026-11-15.web1.tgz");
    List("2026-11-15.web1");
    Place("root/.cleanup", local_files::Load("root/.cleanup") + "bad\n");
    CleanUp("root");
    EXPECT_EQ(Stored(), Lines());
    EXPECT_EQ(Ledger().Read("C2026-11-15.web1").slices.at("C2026-11-15.web1.tgz").state,
              SliceState::kRemoved);
}

TEST_F(ListAndLedger, ACompletionTakesItsLinesAway) {
    List("2026-11-15.web1");
    List("2026-11-15.web1.1.dar");
    List("2026-11-15.web10");
    List("2026-11-16.web1");
    const std::string other = "memory:other\t2026-11-15.web1\nno token\n\n";
    Place("root/.cleanup", local_files::Load("root/.cleanup") + other);
    ForgetIncomplete("root", "web1", "2026-11-15");
    EXPECT_EQ(local_files::Load("root/.cleanup"),
              "memory:site\t2026-11-15.web10\nmemory:site\t2026-11-16.web1\n"
              "memory:other\t2026-11-15.web1\nno token\n");
}

TEST_F(ListAndLedger, ACompletionOfACustomBackupTakesTheLinesOfItsArchiveAway) {
    Place("root/custom.web1.info", "last-slice=C2026-11-15.web1.2.dar\n");
    List("2026-11-15.web1");
    List("2026-11-15.web1.2.dar");
    List("2026-11-14.web1");
    ForgetIncomplete("root", "web1", "custom");
    EXPECT_EQ(local_files::Load("root/.cleanup"), "memory:site\t2026-11-14.web1\n");
}

}  // namespace
