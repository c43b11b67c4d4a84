// Files that other users can create at paths that the program uses: lists of files to remove,
// directories, the control socket.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "arguments.h"
#include "control_server.h"
#include "kro/kro_err.h"
#include "quarn2/names.h"
#include "quarn2_cp2_get.h"
#include "quarn2_cp2_ledger.h"
#include "quarn2_cp2_misc.h"
#include "quarn2_cp2_misc_cleanup.h"
#include "rescan_site.h"

namespace {

constexpr uid_t kNobody = 65534;

class PlantedForRoles : public RescanSite {
  protected:
    void SetUp() override {
        ASSERT_EQ(geteuid(), 0U) << "files of other users are made by root alone";
        Place("elsewhere/precious", "kept");
    }
    void TearDown() override {
        EXPECT_EQ(local_files::Load("elsewhere/precious"), "kept");
        EXPECT_EQ(Below("elsewhere"), (Lines{"precious"}));
    }

    static void GiveAway(const std::string& path) {
        ASSERT_EQ(lchown(path.c_str(), kNobody, kNobody), 0);
    }
    static void Link(const std::string& path) {
        std::filesystem::create_symlink(std::filesystem::absolute("elsewhere"), path);
        GiveAway(path);
    }
    static std::string Absolute(const std::string& path) {
        return std::filesystem::absolute(path).string();
    }
};

TEST_F(PlantedForRoles, AnothersListOfIncompleteBackupsRemovesNothing) {
    const std::string list = InfoRoot(".cleanup");
    Place(list, "local://" + Absolute("elsewhere") + "\trecious\n");
    GiveAway(list);
    CleanUp(kRoot);
    EXPECT_EQ(Log(3), (Lines{"3: List of incomplete backups is ignored: '" + list +
                             "' could have been written by another user"}));
    EXPECT_TRUE(local_files::Has(list));
    ASSERT_EQ(chown(list.c_str(), 0, 0), 0);
    ASSERT_EQ(chmod(list.c_str(), 0666), 0);
    CleanUp(kRoot);
    EXPECT_TRUE(local_files::Has(list));
}

TEST_F(PlantedForRoles, ListOfIncompleteBackupsThatIsAPipeHoldsNobodyUp) {
    ASSERT_EQ(mkfifo(InfoRoot(".cleanup").c_str(), 0600), 0);
    CleanUp(kRoot);
    EXPECT_EQ(Log(3).size(), 1U);
}

TEST_F(PlantedForRoles, AnothersTmpFileRemovesNothing) {
    store_->SetFile("F2026-11-20.web1.1.dar", "slice");
    Place("tmp-file", Absolute("elsewhere/precious"));
    GiveAway("tmp-file");
    const auto get = [] {
        CommandGet(Arguments({"--tmp-file", "tmp-file", "r//F2026-11-20.web1.1.dar"}));
    };
    EXPECT_EQ(TextOf<std::runtime_error>(get),
              "--tmp-file: 'tmp-file' could have been written by another user; nothing was removed "
              "or fetched. Name a file that no other user can change");
    EXPECT_FALSE(local_files::Has("r/F2026-11-20.web1.1.dar"));
    ASSERT_EQ(chown("tmp-file", 0, 0), 0);
    local_files::Save("tmp-file", "");
    get();
    EXPECT_EQ(local_files::Load("r/F2026-11-20.web1.1.dar"), "slice");
}

TEST_F(PlantedForRoles, RescanNeitherRemovesNorWritesWhereALinkLeads) {
    StoreDated("web1", "2026-11-15");
    Link(InfoRoot("web1"));
    Run();
    EXPECT_EQ(InfoRoot(), DatedFiles("web1", "2026-11-15"));
    std::filesystem::remove_all(InfoRoot("web1/2026-11-15"));
    Link(InfoRoot("web1/2026-11-15"));
    Run();
    EXPECT_EQ(InfoRoot(), DatedFiles("web1", "2026-11-15"));
    EXPECT_FALSE(std::filesystem::is_symlink(InfoRoot("web1/2026-11-15")));
}

TEST_F(PlantedForRoles, LocalDirectoryOfABackupIsNoLinkOfOthers) {
    Link(InfoRoot("web1"));
    EXPECT_EQ(
        TextOf<kro_err::Error>([] { quarn2::MkLocalDir(kRoot, "web1", "2026-11-15"); }),
        "'" + InfoRoot("web1") + "' is a symbolic link that belongs to another user; remove it");
}

TEST_F(PlantedForRoles, TheLedgerIsOurOwnDirectoryAlone) {
    Link("var/quarn2_cp.ledger");
    EXPECT_EQ(Ledger().Entries().size(), 0U);
    EXPECT_FALSE(Ledger().Update("F2026-11-15.web1", [](LedgerEntry& entry) {
        entry.slices["F2026-11-15.web1.tgz"].bytes = 1;
    }));
    EXPECT_EQ(Ledger().Read("F2026-11-15.web1").slices.size(), 0U);
}

TEST_F(PlantedForRoles, NoteOfAGivenUpDownloadIsWrittenToNothingOfOthers) {
    const std::string note = "slice.attempts";
    std::filesystem::create_symlink("elsewhere/precious", note);
    quarn2::CreateAttemptsFile("slice", "a reason");
    std::filesystem::remove(note);
    std::filesystem::create_hard_link("elsewhere/precious", note);
    quarn2::CreateAttemptsFile("slice", "a reason");
    std::filesystem::remove(note);
    ASSERT_EQ(mkfifo(note.c_str(), 0666), 0);
    quarn2::CreateAttemptsFile("slice", "a reason");
    std::filesystem::remove(note);
    quarn2::CreateAttemptsFile("slice", "a reason");
    EXPECT_TRUE(local_files::Load(note).ends_with(" a reason\n"));
}

// If another user created the socket first, that user could report that every file is stored.
TEST_F(PlantedForRoles, ControlSocketOfAnotherUserIsToldNothing) {
    auto [ready, tell] = kro_proc::Pipe();
    ASSERT_EQ(chmod("tmp", 0777), 0);
    ASSERT_EQ(chmod(".", 0755), 0);
    const pid_t child = fork();
    if (child == 0) {
        if (setgid(kNobody) != 0 || setuid(kNobody) != 0) _exit(2);
        const ResHandle listening = ControlServer::Listen("tmp/quarn2_cp.sock");
        if (write(tell, "x", 1) != 1) _exit(3);
        const ResHandle connection(accept(listening, nullptr, nullptr));
        char piece[64];
        // The program must send nothing.
        _exit(read(connection, piece, sizeof piece) == 0 ? 0 : 1);
    }
    tell.Close();
    char byte = 0;
    ASSERT_EQ(read(ready, &byte, 1), 1);
    EXPECT_EQ(TextOf<std::runtime_error>([] { SendCommand("PUT slice DELETE"); }),
              "the control socket belongs to another user (uid 65534); nothing was sent");
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

}  // namespace
