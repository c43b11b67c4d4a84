// The stored files that --verify checks, and its selection of backups.
#include <gtest/gtest.h>

#include "kro/kro_err.h"
#include "program_site.h"
#include "quarn2/token.h"
#include "report_download.h"
#include "report_verify.h"

namespace {

class ReportVerify : public ProgramSite {
  protected:
    std::shared_ptr<quarn2::Storage> storage_ =
        quarn2::GetStorage(quarn2::BackupToken("memory:site"));
};

TEST_F(ReportVerify, FilesAreFoundInBothForms) {
    store_->SetFile("F2026-11-15.a.tgz", "x");
    store_->SetFile("b/2026-11-15/F2026-11-15.b.tgz", "x");
    StoredFiles files(*storage_);
    EXPECT_TRUE(files.Has("F2026-11-15.a.tgz"));
    EXPECT_TRUE(files.Has("b/2026-11-15/F2026-11-15.b.tgz"));
    EXPECT_FALSE(files.Has("b/2026-11-15/F2026-11-16.b.tgz"));
    EXPECT_FALSE(files.Has("b/2026-11-16/F2026-11-15.b.tgz"));
    EXPECT_FALSE(files.Has("F2026-11-16.a.tgz"));
}

TEST_F(ReportVerify, OtherFilesAreThoseThatNothingNames) {
    for (const char* name : {"a", "b", "c/2026-11-15/d", "c/2026-11-15/e", "c/f"}) {
        store_->SetFile(name, "x");
    }
    StoredFiles files(*storage_);
    EXPECT_EQ(files.Others({"a", "c/2026-11-15/e"}), (Lines{"b", "c/2026-11-15/d", "c/f"}));
    EXPECT_EQ(files.Others({"a", "b", "c/2026-11-15/d", "c/2026-11-15/e", "c/f"}), Lines());
}

TEST_F(ReportVerify, ADownloadLeavesNothing) {
    store_->SetFile("d/2026-11-15/slice", "12345");
    {
        const DownloadDirectory directory;
        EXPECT_EQ(directory.Check(*storage_, "d/2026-11-15/slice", false), 5);
        EXPECT_EQ(Below("tmp").size(), 1U) << "only the directory";
        EXPECT_THROW(directory.Check(*storage_, "missing", false), kro_err::Error);
        EXPECT_EQ(Below("tmp").size(), 1U);
    }
    EXPECT_EQ(Below("tmp"), Lines());
}

TEST(ReportVerifyChoice, HasTheShareOfTheBackups) {
    struct Case {
        std::size_t count;
        int share;
        std::size_t chosen;
    };
    for (const Case& one : {Case{0, 100, 0}, Case{10, 100, 10}, Case{10, 1, 1}, Case{10, 25, 3},
                            Case{1000, 10, 100}}) {
        const std::set<std::size_t> chosen = Choose(one.count, one.share, 7);
        EXPECT_EQ(chosen.size(), one.chosen) << one.count << " " << one.share;
        EXPECT_TRUE(chosen.empty() || *chosen.rbegin() < one.count);
    }
    EXPECT_EQ(Choose(1000, 10, 7), Choose(1000, 10, 7));
    EXPECT_NE(Choose(1000, 10, 7), Choose(1000, 10, 8));
}

}  // namespace
