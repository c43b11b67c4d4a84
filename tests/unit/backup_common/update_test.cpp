// The update command.
#include "kro/kro_err.h"
#include "program_site.h"
#include "quarn2/token.h"
#include "quarn2_cp2_put.h"

namespace {

using kro_err::Kind;

class Update : public ProgramSite {
  protected:
    Update() {
        Place("b/2026-11-20.web1.info", "last-slice=web1/2026-11-20/F2026-11-20.web1.2.dar 5\n");
        Place("b/2026-11-20.web1.tgz", "new");
        store_->SetFile(kRemote, "old");
    }
    static std::string Failure(const std::string& path = kLocal) {
        return TextOf<std::runtime_error>([&] { CommandUpdate(path); });
    }

    static constexpr const char* kLocal = "b/2026-11-20.web1.tgz";
    static constexpr const char* kRemote = "web1/2026-11-20/2026-11-20.web1.tgz";
};

TEST_F(Update, ReplacesTheFileInTheLastSlicesDirectory) {
    CommandUpdate(kLocal);
    EXPECT_EQ(store_->log(),
              (Lines{std::string("Remove ") + kRemote, std::string("Put ") + kRemote}));
    EXPECT_EQ(store_->files().at(kRemote), "new");
    EXPECT_EQ(local_files::Load(kLocal), "new");
    EXPECT_EQ(Log(), (Lines{}));
}

TEST_F(Update, TakesTheInfoFileItself) {
    CommandUpdate("b/2026-11-20.web1.info");
    EXPECT_EQ(store_->files().at("web1/2026-11-20/2026-11-20.web1.info"),
              "last-slice=web1/2026-11-20/F2026-11-20.web1.2.dar 5\n");
}

TEST_F(Update, OfABackupAtTheRootGoesToTheRoot) {
    Place("b/2026-11-20.web1.info", "last-slice=F2026-11-20.web1.tgz\n");
    CommandUpdate(kLocal);
    EXPECT_EQ(store_->files().at("2026-11-20.web1.tgz"), "new");
}

TEST_F(Update, AddsAFileThatTheStorageLacks) {
    store_->Reset();
    CommandUpdate(kLocal);
    EXPECT_EQ(Stored(), (Lines{kRemote}));
}

TEST_F(Update, AFileWithAnotherKeyThanItsBackupIsRefused) {
    Place("b/2026-11-20.web1.info",
          "key_hash=k1\nlast-slice=web1/2026-11-20/F2026-11-20.web1.2.dar 5\n");
    EXPECT_EQ(Failure(),
              "the backup of 'b/2026-11-20.web1.tgz' is encrypted with another password than the "
              "arch_password of BACKUP_TOKEN; nothing was changed. Use a token with the password "
              "of the backup");
    EXPECT_EQ(store_->files().at(kRemote), "old");
    const std::string token = "memory:site?arch_password=p";
    setenv("BACKUP_TOKEN", token.c_str(), 1);
    Place("b/2026-11-20.web1.info", "key_hash=" + quarn2::BackupToken(token).Hash() +
                                        "\nlast-slice=web1/2026-11-20/F2026-11-20.web1.2.dar 5\n");
    CommandUpdate(kLocal);
    EXPECT_NE(store_->files().at(kRemote), "old");
}

TEST_F(Update, AFailedRemovalEndsItBeforeTheUpload) {
    store_->SetHook([](const std::string&, const std::string&) {
        throw kro_err::Error(Kind::kUnavailable, "the line broke");
    });
    EXPECT_EQ(Failure(), "the line broke");
    EXPECT_EQ(store_->log(), (Lines{std::string("Remove ") + kRemote}));
    EXPECT_EQ(store_->files().at(kRemote), "old");
}

TEST_F(Update, AFailedUploadPassesOutAndIsNotRepeated) {
    store_->SetHook([](const std::string& operation, const std::string&) {
        if (operation == "Put") throw kro_err::Error(Kind::kUnavailable, "the line broke");
    });
    EXPECT_EQ(Failure(), "the line broke");
    EXPECT_EQ(store_->log(),
              (Lines{std::string("Remove ") + kRemote, std::string("Put ") + kRemote}));
    EXPECT_EQ(Stored(), (Lines{}));
    EXPECT_EQ(local_files::Load(kLocal), "new");
}

TEST_F(Update, AStorageWithoutRoomIsAnError) {
    store_->SetCapacity(0);
    EXPECT_EQ(Failure(),
              "the storage has no space for 'web1/2026-11-20/2026-11-20.web1.tgz', and its "
              "previous content was already removed: free space and run --update again");
    EXPECT_EQ(local_files::Load(kLocal), "new");
}

TEST_F(Update, AFileThatCannotBeSentRemovesNothing) {
    std::filesystem::remove(kLocal);
    EXPECT_EQ(Failure(), "Failed to examine 'b/2026-11-20.web1.tgz': No such file or directory");
    std::filesystem::create_directory(kLocal);
    EXPECT_EQ(Failure(), "'b/2026-11-20.web1.tgz' is not a plain file");
    EXPECT_EQ(store_->log(), (Lines{}));
    EXPECT_EQ(store_->files().at(kRemote), "old");
}

TEST_F(Update, AnInfoFileOfNoUseRemovesNothing) {
    const std::string info = "b/2026-11-20.web1.info";
    const std::string no_slice =
        "the info file of 'b/2026-11-20.web1.tgz' does not contain the name of the last slice; "
        "nothing was changed";
    for (const char* const content : {"", "type=full\n", "last-slice=\n"}) {
        Place(info, content);
        EXPECT_EQ(Failure(), no_slice);
    }
    Place(info, std::string("a\0b", 3));
    EXPECT_EQ(Failure(), "'b/2026-11-20.web1.info' is not an info file: it contains a NUL byte");
    std::filesystem::remove(info);
    EXPECT_EQ(Failure(),
              "Failed to open info file 'b/2026-11-20.web1.info': No such file or directory");
    EXPECT_EQ(store_->log(), (Lines{}));
}

TEST_F(Update, ALastSliceOutsideTheStorageIsRefused) {
    Place("b/2026-11-20.web1.info", "last-slice=../../x/F2026-11-20.web1.tgz\n");
    EXPECT_EQ(Failure(),
              "name '../../x/2026-11-20.web1.tgz' is not allowed on a storage: it has a '.' or "
              "'..' component");
    EXPECT_EQ(store_->log(), (Lines{}));
}

TEST_F(Update, AMissingTokenIsAnError) {
    unsetenv("BACKUP_TOKEN");
    EXPECT_EQ(Failure(),
              "the storage token is empty: set BACKUP_TOKEN, for instance to local:///srv/backups");
}

}  // namespace
