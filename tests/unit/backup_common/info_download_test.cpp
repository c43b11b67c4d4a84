// The download of an info file with the first slice or the index of its backup.
#include "kro/kro_err.h"
#include "odd_storage.h"
#include "program_site.h"
#include "quarn2/token.h"
#include "quarn2_cp2_get.h"

namespace {

constexpr const char* kInfo = "2026-11-20.web1.info";
constexpr const char* kStem = "2026-11-20.web1";

class InfoDownload : public ProgramSite {
  protected:
    InfoDownload() { std::filesystem::create_directory("info"); }

    void Download(const std::string& name = kInfo, const std::string& node = "") {
        DownloadInfoFile("info", node, quarn2::GetStorage(quarn2::BackupToken("memory:site")), "",
                         encrypted_lines_, name);
    }
    void Store(const std::string& info, const std::string& companion_end) {
        store_->SetFile(kInfo, info);
        store_->SetFile(kStem + companion_end, "companion");
    }
    static std::string Local(const std::string& name) { return local_files::Load("info/" + name); }

    std::string encrypted_lines_;
};

TEST_F(InfoDownload, IgnoresOtherNamesWithoutALogLine) {
    for (const char* const name :
         {"2026-11-20.web1.tgz", "a#b.info", "2026-11-20.web1#.info", "x#/2026-11-20.web1.info",
          "x.info~", "x.information", "info", ""}) {
        store_->SetFile("x", "");
        Download(name);
    }
    EXPECT_EQ(store_->log(), (Lines{}));
    EXPECT_EQ(Log(), (Lines{}));
    EXPECT_EQ(Below("info"), (Lines{}));
}

TEST_F(InfoDownload, BringsTheFirstSliceOfASlicedArchive) {
    Store("last-slice=F2026-11-20.web1.3.dar", ".1.dar");
    Download();
    EXPECT_EQ(store_->log(), (Lines{"Get 2026-11-20.web1.info", "Get 2026-11-20.web1.1.dar"}));
    EXPECT_EQ(Below("info"), (Lines{"2026-11-20.web1.1.dar", kInfo}));
    EXPECT_EQ(Local(kInfo), "last-slice=F2026-11-20.web1.3.dar");
    EXPECT_EQ(Local("2026-11-20.web1.1.dar"), "companion");
    EXPECT_EQ(Log(), (Lines{"6: Download 2026-11-20.web1.info"}));
}

TEST_F(InfoDownload, TheFirstSliceOfABackupUnderAnotherKeyAddsNoLine) {
    Store("key_hash=other\nlast-slice=F2026-11-20.web1.3.dar", ".1.dar");
    Download();
    EXPECT_EQ(Below("info"), (Lines{"2026-11-20.web1.1.dar", kInfo}));
    EXPECT_EQ(encrypted_lines_, "");
}

TEST_F(InfoDownload, BringsTheIndexByTheArchivesExtensionAndCallsItTgz) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"last-slice=F2026-11-20.web1.tgz", ".tgz"},
        {"last-slice=F2026-11-20.web1.tgz.part12 100", ".tgz"},
        {"last-slice=F2026-11-20.web1.tgz.aes", ".tgz.aes"},
        {"last-slice=F2026-11-20.web1.tar.gz", ".tar.gz"},
        {"last-slice=F2026-11-20.web1.3.dar 100", ".tgz"},
        {"type=full", ".tgz"},
        {"", ".tgz"}};
    for (const auto& [info, extension] : cases) {
        store_->Reset();
        Store(info, extension);
        Download();
        EXPECT_EQ(store_->log(), (Lines{"Get 2026-11-20.web1.info", "Get " + (kStem + extension)}))
            << info;
        EXPECT_EQ(Below("info"), (Lines{kInfo, "2026-11-20.web1.tgz"})) << info;
        EXPECT_EQ(Local("2026-11-20.web1.tgz"), "companion");
        std::filesystem::remove("info/2026-11-20.web1.tgz");
    }
    EXPECT_EQ(encrypted_lines_, "");
    EXPECT_EQ(Log(4), (Lines{}));
}

TEST_F(InfoDownload, ABackupUnderTheTokensKeyIsLikeOneWithoutAKey) {
    const std::string hash = quarn2::BackupToken("memory:site").Hash();
    Store("key_hash=" + hash + "\n", ".tgz");
    Download();
    EXPECT_EQ(Below("info"), (Lines{kInfo, "2026-11-20.web1.tgz"}));
    EXPECT_EQ(encrypted_lines_, "");
}

TEST_F(InfoDownload, ABackupUnderAnotherKeyIsKeptEncryptedAndAddsALine) {
    Store("key_hash=other\nlast-slice=F2026-11-20.web1.tgz\n", ".tgz");
    const std::string directory = "web1/2026-11-21/2026-11-21.web1";
    store_->SetFile(directory + ".info", "key_hash=other\n");
    store_->SetFile(directory + ".tgz", "index");
    std::filesystem::create_directories("info/web1/2026-11-21");
    Download();
    Download(directory + ".info");
    const std::string hash = quarn2::BackupToken("memory:site").Hash();
    EXPECT_EQ(encrypted_lines_,
              "2026-11-20.web1.tgz.aes=" + hash + "\n" + directory + ".tgz.aes=" + hash);
    EXPECT_EQ(Local("2026-11-20.web1.tgz.aes"), "companion");
    EXPECT_EQ(Local(directory + ".tgz.aes"), "index");
    EXPECT_FALSE(local_files::Has("info/2026-11-20.web1.tgz"));
}

TEST_F(InfoDownload, CiphertextIsKeptUnderItsOwnNameOnly) {
    const std::string ciphertext = "QN2ENC1\nand so on";
    store_->SetFile(kInfo, "key_hash=other\n");
    store_->SetFile("2026-11-20.web1.tgz", ciphertext);
    Download();
    EXPECT_EQ(Local("2026-11-20.web1.tgz.aes"), ciphertext);

    store_->SetFile("2026-11-20.web2.info", "key_hash=other\nlast-slice=F2026-11-20.web2.3.dar\n");
    store_->SetFile("2026-11-20.web2.1.dar", ciphertext);
    Download("2026-11-20.web2.info");
    EXPECT_EQ(Below("info"), (Lines{kInfo, "2026-11-20.web1.tgz.aes", "2026-11-20.web2.info"}))
        << "the backup counts, its catalogue is missing";
    EXPECT_EQ(Log(4).size(), 1U);
}

TEST_F(InfoDownload, AnIndexUnderAnotherKeyComesThroughAStorageOfItsOwn) {
    OddStore::Register();
    OddStore& store = OddStore::The();
    store.files = {{kInfo, "key_hash=other\n"}, {"2026-11-20.web1.tgz", "index"}};
    setenv("BACKUP_TOKEN", "odd:x", 1);
    const auto storage = quarn2::GetStorage(quarn2::BackupToken("odd:x"));
    DownloadInfoFile("info", "", storage, "", encrypted_lines_, kInfo);
    EXPECT_EQ(store.gets, (Lines{"1 2026-11-20.web1.info", "2 2026-11-20.web1.tgz"}));

    store.gets.clear();
    store.files[kInfo] = "type=full\n";
    DownloadInfoFile("info", "", storage, "", encrypted_lines_, kInfo);
    EXPECT_EQ(store.gets, (Lines{"1 2026-11-20.web1.info", "1 2026-11-20.web1.tgz"}));
}

TEST_F(InfoDownload, ANodeIsNotWrittenIntoTheInfoFile) {
    const std::string info = "type=full\ncreated=x\n\nb=a\n";
    Store(info, ".tgz");
    Download(kInfo, "node1");
    EXPECT_EQ(Local(kInfo), info);
}

// --- Failures ---

TEST_F(InfoDownload, AFailureIsLoggedAndLeavesTheOldFile) {
    Place(std::string("info/") + kInfo, "old");
    Download();
    EXPECT_EQ(Log(),
              (Lines{"6: Download 2026-11-20.web1.info",
                     "4: Cant download file: 'no file '2026-11-20.web1.info' on the storage'"}));
    EXPECT_EQ(Below("info"), (Lines{kInfo}));
    EXPECT_EQ(Local(kInfo), "old");
}

TEST_F(InfoDownload, AMissingCompanionIsLoggedAndTheInfoFileStays) {
    for (const char* const info : {"type=full\n", "last-slice=x.3.dar", "key_hash=other\n"}) {
        store_->SetFile(kInfo, info);
        Download();
        EXPECT_EQ(Below("info"), (Lines{kInfo}));
    }
    const std::string no_index =
        "4: Cant download file: 'no file '2026-11-20.web1.tgz' on the storage'";
    EXPECT_EQ(
        Log(4),
        (Lines{no_index, "4: Cant download file: 'no file '2026-11-20.web1.1.dar' on the storage'",
               no_index}));
    EXPECT_EQ(encrypted_lines_, "") << "what is not here is not listed";
}

TEST_F(InfoDownload, ABinaryInfoFileIsLoggedAndStays) {
    Store(std::string("a\0b", 3), ".tgz");
    Download();
    EXPECT_EQ(Log(4),
              (Lines{"4: Cant download file: ''info/2026-11-20.web1.info' is not an info file: it "
                     "contains a NUL byte'"}));
    EXPECT_EQ(Below("info"), (Lines{kInfo}));
}

TEST_F(InfoDownload, ATokenThatCannotBeUsedMattersOnlyForAnotherKey) {
    unsetenv("BACKUP_TOKEN");
    Store("type=full\n", ".tgz");
    Download();
    EXPECT_EQ(Below("info"), (Lines{kInfo, "2026-11-20.web1.tgz"}));
    Store("key_hash=other\n", ".tgz");
    Download();
    EXPECT_EQ(Log(4), (Lines{"4: Cant download file: 'the storage token is empty: set "
                             "BACKUP_TOKEN, for instance to local:///srv/backups'"}));
    EXPECT_EQ(encrypted_lines_, "");
}

TEST_F(InfoDownload, ANameOutsideTheDirectoryIsRefused) {
    for (const char* const name : {"../x.info", "/x.info", "a//x.info", "bad\nname.info"}) {
        Download(name);
    }
    EXPECT_EQ(Log(4), (Lines{"4: Cant download file: 'name '../x.info' is not allowed on a "
                             "storage: it has a '.' or '..' "
                             "component'",
                             "4: Cant download file: 'name '/x.info' is not allowed on a storage: "
                             "it has an empty component'",
                             "4: Cant download file: 'name 'a//x.info' is not allowed on a "
                             "storage: it has an empty component'",
                             "4: Cant download file: 'name 'bad\\x0aname.info' is not allowed on a "
                             "storage: it contains a "
                             "control character'"}));
    EXPECT_EQ(Below("info"), (Lines{}));
    EXPECT_EQ(store_->log(), (Lines{}));
}

TEST_F(InfoDownload, AnExceptionThatIsNoneOfTheStandardPassesOut) {
    store_->SetHook([](const std::string&, const std::string&) { throw 42; });
    EXPECT_THROW(Download(), int);
    EXPECT_EQ(Log(4), (Lines{}));
}

}  // namespace
