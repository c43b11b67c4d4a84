// The archives of a backup, and the programs that test them.
#include <gtest/gtest.h>

#include <chrono>

#include "kro/kro_err.h"
#include "program_site.h"
#include "quarn2/token.h"
#include "report_archive.h"
#include "report_archiver.h"
#include "report_content.h"

namespace {

using namespace std::chrono_literals;

// --- Archives ---

Lines ArchivesIn(const Lines& slices) {
    std::vector<StoredFile> files;
    for (const std::string& slice : slices) files.push_back({"slice", slice, std::nullopt});
    files.push_back({"index", "2026-11-15.a.1.dar", std::nullopt});
    Lines archives;
    for (const Archive& archive : ArchivesOf(files)) {
        const std::string tester =
            archive.tester == nullptr ? "-" : archive.tester->command.front();
        archives.push_back(archive.name + " " + std::to_string(archive.slices.size()) + " " +
                           tester);
    }
    return archives;
}

TEST(ReportArchives, AreRecognisedByTheNamesOfTheirSlices) {
    struct Case {
        Lines slices;
        Lines archives;
    };
    const Case cases[] = {
        {{"F2026-11-15.a.1.dar", "F2026-11-15.a.2.dar"}, {"F2026-11-15.a 2 dar"}},
        {{"a/2026-11-15/F2026-11-15.a.1.dar"}, {"a/2026-11-15/F2026-11-15.a 1 dar"}},
        {{"F2026-11-15.a.tgz"}, {"F2026-11-15.a 1 gzip"}},
        {{"F2026-11-15.a.tgz.part1", "F2026-11-15.a.tgz.part2"}, {"F2026-11-15.a 2 gzip"}},
        {{"F2026-11-15.a.tar.gz"}, {"F2026-11-15.a 1 gzip"}},
        {{"F2026-11-15.a.tar.zst.part1"}, {"F2026-11-15.a 1 zstd"}},
        {{"F2026-11-15.a.tar.bz2"}, {"F2026-11-15.a 1 bzip2"}},
        {{"F2026-11-15.a.tar.xz"}, {"F2026-11-15.a 1 xz"}},
        {{"F2026-11-15.a.zip"}, {"F2026-11-15.a 1 unzip"}},
        {{"F2026-11-15.a.zip.part1", "F2026-11-15.a.zip.part2"}, {"F2026-11-15.a 2 -"}},
        {{"F2026-11-15.a.tar"}, {"F2026-11-15.a 1 -"}},
        {{"F2026-11-15.a.tgz.aes"}, {"F2026-11-15.a 1 -"}},
        {{"F2026-11-15.a.dar"}, {"F2026-11-15.a.dar 1 -"}},
        {{"F2026-11-15.a.1.dar", "role-mail.tgz"}, {"F2026-11-15.a 1 dar", "role-mail 1 gzip"}},
    };
    for (const Case& one : cases) {
        EXPECT_EQ(ArchivesIn(one.slices), one.archives) << one.slices.front();
    }
}

class ReportContent : public ProgramSite {
  protected:
    // Makes an executable script in the only directory of PATH.
    void MakeProgram(const std::string& name, const std::string& text) {
        const std::string path = root_ / "bin/" + name;
        std::filesystem::create_directories(root_ / "bin");
        local_files::Save(path, "#!/bin/sh\n" + text + "\n");
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
        setenv("PATH", (root_ / "bin").c_str(), 1);
    }

    Archiver::Settings Run(const std::string& script,
                           std::chrono::milliseconds idle_timeout = 60s) const {
        return {{"/bin/sh", "-c", script}, {}, idle_timeout};
    }

    Lines Problems(const Lines& slices, std::chrono::milliseconds idle_timeout = 60s) {
        std::vector<StoredFile> files;
        for (const std::string& slice : slices) files.push_back({"slice", slice, std::nullopt});
        ContentCheck check(*storage_, {.idle_timeout = idle_timeout});
        const ContentCheck::Result result = check.Check(files, false);
        Lines lines;
        for (const Problem& problem : result.problems) {
            lines.push_back(problem.kind + " '" + problem.name + "' " + problem.detail);
        }
        if (result.bytes) lines.push_back(std::to_string(*result.bytes) + " bytes");
        for (const Tester* const tester : check.missing()) {
            lines.push_back("missing " + std::string(tester->package));
        }
        EXPECT_EQ(Below("tmp").size(), 1U) << "only the directory remains";
        return lines;
    }

    std::string path_ = getenv("PATH");
    std::shared_ptr<quarn2::Storage> storage_ =
        quarn2::GetStorage(quarn2::BackupToken("memory:site"));

    ~ReportContent() override { setenv("PATH", path_.c_str(), 1); }
};

// --- Programs ---

TEST_F(ReportContent, ProgramsAreFoundInAbsoluteDirectories) {
    MakeProgram("gzip", "true");
    EXPECT_EQ(FindProgram("gzip"), root_ / "bin/gzip");
    EXPECT_EQ(FindProgram("bin"), "");
    setenv("PATH", (":bin:" + (root_ / "no")).c_str(), 1);
    EXPECT_EQ(FindProgram("gzip"), "");
    unsetenv("PATH");
    EXPECT_EQ(FindProgram("gzip"), "");
}

TEST_F(ReportContent, TheLastLineOfAProgramIsItsMessage) {
    const Archiver::Result result =
        Archiver(Run("echo first; echo ' the reason ' >&2; echo; exit 3")).Finish();
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.message, "the reason");
    EXPECT_FALSE(result.was_hung);
}

TEST_F(ReportContent, AProgramDoesNotGetTheToken) {
    EXPECT_EQ(Archiver(Run("echo \"token '$BACKUP_TOKEN' $LC_ALL\"")).Finish().message,
              "token '' C");
}

TEST_F(ReportContent, AProgramGetsTheSlicesAsOneStream) {
    local_files::Save("first", std::string(300000, 'a'));
    local_files::Save("second", "b");
    Archiver archiver(Run("cat | wc -c"));
    EXPECT_TRUE(archiver.Feed("first"));
    EXPECT_TRUE(archiver.Feed("second"));
    EXPECT_EQ(archiver.Finish().message, "300001");
}

TEST_F(ReportContent, AProgramThatEndsEarlyReadsNoMore) {
    local_files::Save("slice", std::string(300000, 'a'));
    Archiver archiver(Run("echo enough; exit 1"));
    EXPECT_FALSE(archiver.Feed("slice"));
    const Archiver::Result result = archiver.Finish();
    EXPECT_EQ(std::to_string(result.status) + result.message, "1enough");
}

TEST_F(ReportContent, AProgramWithoutProgressIsKilled) {
    const auto begin = std::chrono::steady_clock::now();
    local_files::Save("slice", std::string(300000, 'a'));
    Archiver deaf(Run("sleep 60 & wait", 200ms));
    EXPECT_FALSE(deaf.Feed("slice"));
    EXPECT_TRUE(deaf.Finish().was_hung);
    EXPECT_TRUE(Archiver(Run("exec >&- 2>&-; exec sleep 60", 200ms)).Finish().was_hung);
    { const Archiver forgotten(Run("sleep 60 & wait")); }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 30s);
}

// --- Content ---

TEST_F(ReportContent, AStreamIsTestedSliceBySlice) {
    MakeProgram("gzip", "/bin/grep -qx good || { echo 'crc error' >&2; exit 1; }");
    store_->SetFile("F2026-11-15.a.tgz.part1", "go");
    store_->SetFile("F2026-11-15.a.tgz.part2", "od\n");
    const Lines slices = {"F2026-11-15.a.tgz.part1", "F2026-11-15.a.tgz.part2"};
    EXPECT_EQ(Problems(slices), Lines{"5 bytes"});
    store_->SetFile("F2026-11-15.a.tgz.part2", "ld\n");
    EXPECT_EQ(Problems(slices), (Lines{"damaged 'F2026-11-15.a' is damaged: the test of gzip ended "
                                       "with status 1: crc error",
                                       "5 bytes"}));
}

TEST_F(ReportContent, AllSlicesAreDownloadedWhenTheTestEndsEarly) {
    MakeProgram("gzip", "exit 1");
    const std::string large(300000, 'a');
    store_->SetFile("F2026-11-15.a.tgz.part1", large);
    store_->SetFile("F2026-11-15.a.tgz.part2", large);
    EXPECT_EQ(Problems({"F2026-11-15.a.tgz.part1", "F2026-11-15.a.tgz.part2"}),
              (Lines{"damaged 'F2026-11-15.a' is damaged: the test of gzip ended with status 1",
                     "600000 bytes"}));
}

TEST_F(ReportContent, AMissingSliceIsUnreadable) {
    MakeProgram("gzip", "/bin/cat >/dev/null");
    store_->SetFile("F2026-11-15.a.tgz.part1", "x");
    EXPECT_EQ(Problems({"F2026-11-15.a.tgz.part1", "F2026-11-15.a.tgz.part2"}),
              Lines{"unreadable 'F2026-11-15.a.tgz.part2' cannot be read: no file "
                    "'F2026-11-15.a.tgz.part2' on the storage"});
}

TEST_F(ReportContent, WithoutTheProgramTheSlicesAreOnlyDownloaded) {
    setenv("PATH", (root_ / "no").c_str(), 1);
    store_->SetFile("F2026-11-15.a.1.dar", "12345");
    EXPECT_EQ(Problems({"F2026-11-15.a.1.dar"}), (Lines{"5 bytes", "missing dar"}));
}

TEST_F(ReportContent, AProgramThatHangsIsReported) {
    MakeProgram("unzip", "exec /bin/sleep 60");
    store_->SetFile("F2026-11-15.a.zip", "x");
    EXPECT_EQ(Problems({"F2026-11-15.a.zip"}, 200ms),
              (Lines{"hung 'F2026-11-15.a' was not tested completely: unzip made no progress and "
                     "was stopped; test the archive by hand",
                     "1 bytes"}));
}

// dar requests the last slice first, by the number 0, and then all slices in order.
TEST_F(ReportContent, SlicesAreFetchedWhenDarRequestsThem) {
    MakeProgram("dar",
                "shift 4\nbase=$1\n"
                "ask() { /bin/sh -c \"$(echo \"$command\" | /bin/sed \"s|%n|$1|\")\"; }\n"
                "command=$3\n"
                "for n in 0 2 1 2; do ask $n || exit 9; /bin/cat $base.*; done > ${base%/*}/seen\n"
                "ask 3 && exit 8; ask 00 && exit 8; ask ../x && exit 8\n"
                "[ \"$(/bin/cat ${base%/*}/seen)\" = 2212 ] || exit 7\n"
                "/bin/rm ${base%/*}/seen");
    store_->SetFile("web;1/2026-11-15/F2026-11-15.web;1.1.dar", "1");
    store_->SetFile("web;1/2026-11-15/F2026-11-15.web;1.2.dar", "2");
    EXPECT_EQ(Problems({"web;1/2026-11-15/F2026-11-15.web;1.1.dar",
                        "web;1/2026-11-15/F2026-11-15.web;1.2.dar"}),
              Lines{"2 bytes"});
    EXPECT_EQ(store_->log(), (Lines{"Get web;1/2026-11-15/F2026-11-15.web;1.2.dar",
                                    "Get web;1/2026-11-15/F2026-11-15.web;1.1.dar",
                                    "Get web;1/2026-11-15/F2026-11-15.web;1.2.dar"}));
}

}  // namespace
