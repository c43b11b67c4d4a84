// Deletion of a backup with the backups that depend on it, and the delete command. 2026-11-15 is a
// Sunday.
#include <gtest/gtest.h>

#include "arguments.h"
#include "control_server.h"
#include "kro/kro_err.h"
#include "program_site.h"
#include "quarn2/token.h"
#include "quarn2_cp2_misc_delete.h"

namespace {

constexpr const char* kFull = "root/2026-11-15.web1.info";
constexpr const char* kBase = "F2026-11-15.web1.tgz";

class Depends : public ProgramSite {
  protected:
    Depends() { Full(kFull, "F2026-11-15.web1.1.dar"); }

    static void Full(const std::string& path, const std::string& last_slice) {
        Place(path, "last-slice=" + last_slice + "\ntype=full");
    }
    static void Daily(const std::string& path, const std::string& base) {
        const std::string name = path.substr(path.rfind('/') + 1);
        Place(path, "base=" + base + "\nlast-slice=I" + name.substr(0, name.size() - 5) +
                        ".1.dar\ntype=incremental");
    }
    // Places a file that is not a valid info file.
    static void Trap(const std::string& path) { Place(path, std::string("\0", 1)); }

    void Run(const std::string& path, bool force) { DeleteWithDepends(storage_, path, force); }

    std::string Refusal(const std::string& path) {
        return TextOf<std::runtime_error>([&] { Run(path, false); });
    }

    // Returns the requests to remove slices.
    Lines Slices() const {
        Lines slices;
        for (const std::string& line : store_->log()) {
            if (line.starts_with("Remove F") || line.starts_with("Remove I")) {
                if (line.ends_with(".dar")) slices.push_back(line);
            }
        }
        return slices;
    }

    std::shared_ptr<quarn2::Storage> storage_ =
        quarn2::GetStorage(quarn2::BackupToken("memory:site"));
};

std::string Exists(const std::string& path) {
    return "Failed to delete backup. Depended backup '" + path + "' still exists";
}

TEST_F(Depends, ADependentBackupIsDeletedWithoutASearch) {
    Daily("root/2026-11-16.web1.info", kBase);
    Trap("root/2026-11-17.web1.info");
    Run("root/2026-11-16.web1.info", false);
    EXPECT_EQ(Below("root"), (Lines{"2026-11-15.web1.info", "2026-11-17.web1.info"}));
    EXPECT_EQ(Slices(), (Lines{"Remove I2026-11-16.web1.1.dar"}));
}

TEST_F(Depends, AFullBackupOfASaturdayReadsNoOtherInfoFile) {
    Full("root/2026-11-14.web1.info", "F2026-11-14.web1.1.dar");
    Trap("root/2026-11-13.web1.info");
    Trap(kFull);
    Run("root/2026-11-14.web1.info", false);
    EXPECT_EQ(Below("root"), (Lines{"2026-11-13.web1.info", "2026-11-15.web1.info"}));
}

TEST_F(Depends, ADependantStopsTheDeletionBeforeAnythingIsDeleted) {
    Daily("root/2026-11-17.web1.info", kBase);
    EXPECT_EQ(Refusal(kFull), Exists("root/2026-11-17.web1.info"));
    EXPECT_EQ(store_->log(), Lines());
    EXPECT_EQ(Below("root"), (Lines{"2026-11-15.web1.info", "2026-11-17.web1.info"}));
}

TEST_F(Depends, OfSeveralDependantsTheNewestIsNamed) {
    Daily("root/2026-11-16.web1.info", kBase);
    Daily("root/2026-11-21.web1.info", kBase);
    EXPECT_EQ(Refusal(kFull), Exists("root/2026-11-21.web1.info"));
}

TEST_F(Depends, WithForceDependantsGoFirstNewestFirst) {
    Daily("root/2026-11-16.web1.info", kBase);
    Daily("root/2026-11-17.web1.info", kBase);
    Daily("root/2026-11-21.web1.info", kBase);
    Run(kFull, true);
    EXPECT_EQ(Slices(), (Lines{"Remove I2026-11-21.web1.1.dar", "Remove I2026-11-17.web1.1.dar",
                               "Remove I2026-11-16.web1.1.dar", "Remove F2026-11-15.web1.1.dar"}));
    EXPECT_EQ(Below("root"), Lines());
}

TEST_F(Depends, BackupsThatRestOnAnotherAreLeftAlone) {
    Daily("root/2026-11-16.web1.info", "F2026-11-08.web1.tgz");
    Daily("root/2026-11-17.web1.info", "2026-11-15.web1.tgz");
    Daily("root/2026-11-18.web10.info", kBase);
    Full("root/2026-11-19.web1.info", "F2026-11-19.web1.1.dar");
    Run(kFull, true);
    EXPECT_EQ(Below("root"), (Lines{"2026-11-16.web1.info", "2026-11-17.web1.info",
                                    "2026-11-18.web10.info", "2026-11-19.web1.info"}));
}

TEST_F(Depends, OnlyTheRestOfTheWeekIsSearched) {
    Daily("root/2026-11-14.web1.info", kBase);
    Daily("root/2026-11-22.web1.info", kBase);
    Run(kFull, false);
    EXPECT_EQ(Below("root"), (Lines{"2026-11-14.web1.info", "2026-11-22.web1.info"}));
}

TEST_F(Depends, TheIdentityHasTheBackupsExtension) {
    Full(kFull, "F2026-11-15.web1.tar.xz.part2");
    Daily("root/2026-11-16.web1.info", kBase);
    Daily("root/2026-11-17.web1.info", "F2026-11-15.web1.tar.xz");
    EXPECT_EQ(Refusal(kFull), Exists("root/2026-11-17.web1.info"));
}

TEST_F(Depends, InTheDirectoryFormTheRootIsBeforeTheArchivesDirectory) {
    const std::string full = "root/web1/2026-11-15/2026-11-15.web1.info";
    const std::string daily = "root/web1/2026-11-17/2026-11-17.web1.info";
    Full(full, "web1/2026-11-15/F2026-11-15.web1.3.dar");
    Place(daily,
          "base=web1/2026-11-15/F2026-11-15.web1.tgz\ntype=incremental\n"
          "last-slice=web1/2026-11-17/I2026-11-17.web1.1.dar");
    EXPECT_EQ(Refusal(full), Exists(daily));
    EXPECT_EQ(store_->log(), Lines());
    Run(full, true);
    // The first two requests look for files of the backup.
    EXPECT_EQ(store_->log(), (Lines{"List web1/2026-11-15/F2026-11-15.web1.3.dar",
                                    "List web1/2026-11-15/2026-11-15.web1.info",
                                    "List 2026-11-17.web1.info", "List web1/2026-11-17",
                                    "RemoveDir web1/2026-11-17", "List 2026-11-15.web1.info",
                                    "List web1/2026-11-15", "RemoveDir web1/2026-11-15"}));
    EXPECT_EQ(Below("root"), (Lines{"2026-11-15.web1.info"}));
}

TEST_F(Depends, AUsersDataAreSearchedInTheUsersDirectory) {
    Full("var/backup/2026-11-15.web1.info", "F2026-11-15.web1.1.dar");
    Daily("var/backup/2026-11-17.web1.info", kBase);
    Daily("var/backup/web1/2026-11-16.web1.info", kBase);
    EXPECT_EQ(Refusal("var/backup/2026-11-15.web1.info"),
              Exists("var/backup/web1/2026-11-16.web1.info"));
}

TEST_F(Depends, AdministratorsDataAreSearchedInTheRoot) {
    Full("var/backup/tovarn/2026-11-15.web1.info", "F2026-11-15.web1.1.dar");
    Daily("var/backup/tovarn/2026-11-17.web1.info", kBase);
    EXPECT_EQ(Refusal("var/backup/tovarn/2026-11-15.web1.info"),
              Exists("var/backup/tovarn/2026-11-17.web1.info"));
}

TEST_F(Depends, AnInfoFileWithoutANameIsRefused) {
    Full("root/.info", "F.1.dar");
    EXPECT_EQ(Refusal("root/.info"), "Bad info file name");
    EXPECT_EQ(store_->log(), Lines());
}

TEST_F(Depends, ADependantThatCannotBeReadStopsTheDeletion) {
    Trap("root/2026-11-17.web1.info");
    EXPECT_EQ(TextOf<kro_err::Error>([&] { Run(kFull, true); }),
              "'root/2026-11-17.web1.info' is not an info file: it contains a NUL byte");
    EXPECT_EQ(store_->log(), Lines());
}

// --- The command ---

constexpr const char* kSocket = "tmp/quarn2_cp.sock";

TEST_F(Depends, CommandDeletesOnTheStorageOfTheToken) {
    CommandDelete(Arguments({"root//./2026-11-15.web1.info"}));
    EXPECT_EQ(Slices(), (Lines{"Remove F2026-11-15.web1.1.dar"}));
    EXPECT_EQ(Below("root"), Lines());
    EXPECT_EQ(Log(5), (Lines{"5: Delete root/2026-11-15.web1.info"}));
}

TEST_F(Depends, CommandReadsForce) {
    Daily("root/2026-11-17.web1.info", kBase);
    EXPECT_EQ(TextOf<std::runtime_error>([] { CommandDelete(Arguments({kFull})); }),
              Exists("root/2026-11-17.web1.info"));
    CommandDelete(Arguments({kFull, "--force"}));
    EXPECT_EQ(Below("root"), Lines());
}

TEST_F(Depends, CommandForAMissingFileDoesNothing) {
    unsetenv("BACKUP_TOKEN");
    CommandDelete(Arguments({"root/none.info"}));
    EXPECT_EQ(Log(), (Lines{"5: Delete root/none.info"}));
    EXPECT_EQ(store_->log(), Lines());
}

TEST_F(Depends, CommandWithoutATokenAsksTheNodeClient) {
    unsetenv("BACKUP_TOKEN");
    const ControlServer server(kSocket, [](const std::string&) { return "OK"; });
    CommandDelete(Arguments({kFull}));
    CommandDelete(Arguments({"--force", kFull}));
    EXPECT_EQ(server.commands(),
              (Lines{"DELETE root/2026-11-15.web1.info", "DELETEALL root/2026-11-15.web1.info"}));
    EXPECT_TRUE(local_files::Has(kFull));
}

TEST_F(Depends, CommandRefusedByTheNodeClientFails) {
    unsetenv("BACKUP_TOKEN");
    const ControlServer server(kSocket, [](const std::string&) { return ""; });
    EXPECT_EQ(TextOf<std::runtime_error>([] { CommandDelete(Arguments({kFull})); }), "");
}

// The running server may serve a different storage than the intended one.
TEST_F(Depends, CommandWithAMalformedTokenAsksNobody) {
    setenv("BACKUP_TOKEN", "not-a-token", 1);
    const ControlServer server(kSocket, [](const std::string&) { return "OK"; });
    EXPECT_THAT(TextOf<std::exception>([] { CommandDelete(Arguments({kFull})); }),
                testing::StartsWith("storage token: "));
    EXPECT_EQ(server.commands(), Lines());
    EXPECT_TRUE(local_files::Has(kFull));
}

}  // namespace
