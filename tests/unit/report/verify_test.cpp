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
    static std::optional<std::int64_t> SizeIn(StoredFiles& files, const std::string& name) {
        const quarn2::ListedEntry* const entry = files.Find(name);
        return entry == nullptr ? std::nullopt : entry->size;
    }

    std::shared_ptr<quarn2::Storage> storage_ =
        quarn2::GetStorage(quarn2::BackupToken("memory:site"));
};

TEST_F(ReportVerify, FilesAreFoundInBothForms) {
    store_->SetFile("F2026-11-15.a.tgz", "x");
    store_->SetFile("b/2026-11-15/F2026-11-15.b.tgz", "x");
    for (const bool lists_all : {false, true}) {
        store_->SetListsAllFiles(lists_all);
        StoredFiles files(*storage_);
        EXPECT_EQ(SizeIn(files, "F2026-11-15.a.tgz"), 1);
        EXPECT_EQ(SizeIn(files, "b/2026-11-15/F2026-11-15.b.tgz"), 1);
        EXPECT_EQ(SizeIn(files, "b/2026-11-15/F2026-11-16.b.tgz"), std::nullopt);
        EXPECT_EQ(SizeIn(files, "b/2026-11-16/F2026-11-15.b.tgz"), std::nullopt);
        EXPECT_EQ(SizeIn(files, "F2026-11-16.a.tgz"), std::nullopt);
        EXPECT_EQ(SizeIn(files, "b"), std::nullopt) << "a directory has no size";
    }
}

TEST_F(ReportVerify, OneListingOfAllFilesIsEnough) {
    for (int i = 10; i < 20; ++i) store_->SetFile("b/2026-11-" + std::to_string(i) + "/F", "x");
    store_->SetListsAllFiles(true);
    StoredFiles files(*storage_);
    for (int i = 10; i < 20; ++i) {
        EXPECT_NE(files.Find("b/2026-11-" + std::to_string(i) + "/F"), nullptr);
    }
    EXPECT_EQ(files.Others({"b/2026-11-15/F"}).size(), 9U);
    EXPECT_EQ(store_->log(), Lines{"ListAllFiles"});
}

TEST_F(ReportVerify, ARefreshListsAgain) {
    store_->SetFile("a", "1");
    store_->SetFile("b/c", "1");
    StoredFiles files(*storage_);
    EXPECT_EQ(SizeIn(files, "b/c"), 1);
    store_->SetFile("a", "12");
    store_->SetFile("b/c", "12");
    EXPECT_EQ(SizeIn(files, "a"), 1);
    files.Refresh();
    EXPECT_EQ(SizeIn(files, "a"), 2);
    EXPECT_EQ(SizeIn(files, "b/c"), 2);
}

// --- Sizes ---

std::vector<StoredFile> Files(const Lines& names) {
    std::vector<StoredFile> files;
    for (const std::string& name : names) files.push_back({"slice", name, std::nullopt});
    return files;
}

Lines TextsOf(const Comparison& result) {
    Lines texts;
    for (const Problem& problem : result.problems) {
        texts.push_back(problem.kind + " '" + problem.name + "' " + problem.detail);
    }
    return texts;
}

TEST_F(ReportVerify, TheSumOfTheSizesIsComparedWhenAllFilesExist) {
    store_->SetFile("a", "12");
    store_->SetFile("b", "345");
    StoredFiles stored(*storage_);
    EXPECT_EQ(TextsOf(Compare(Files({"a", "b"}), 5, stored)), Lines());
    EXPECT_EQ(TextsOf(Compare(Files({"a", "b"}), 6, stored)),
              Lines{"size '' the files have 5 bytes, the info file says 6; --update of a file does "
                    "not change the info file"});
    EXPECT_EQ(TextsOf(Compare(Files({"a", "c", "d"}), 6, stored)),
              (Lines{"missing 'c' is not on the storage", "missing 'd' is not on the storage"}));
}

TEST_F(ReportVerify, AnUnknownSizeIsNotCompared) {
    store_->SetFile("dir/x", "12");
    StoredFiles stored(*storage_);
    const Comparison result = Compare(Files({"dir"}), 5, stored);
    EXPECT_EQ(TextsOf(result), Lines());
    EXPECT_FALSE(result.is_size_known);
    EXPECT_FALSE(CompareSize(std::nullopt, 5));
}

TEST(ReportVerifySize, AMissingOrInvalidSizeOfAnInfoFileIsZero) {
    EXPECT_EQ(SizeOf({{"size", "12"}}), 12);
    EXPECT_EQ(SizeOf({{"size", "many"}}), 0);
    EXPECT_EQ(SizeOf({}), 0);
}

TEST_F(ReportVerify, AnIndexWithoutALocalCopyIsFoundOnTheStorage) {
    const quarn2::InfoMap info = {{"last-slice", "F2026-11-15.a.1.dar 1"}};
    LocalFiles local;
    local.info_name = "2026-11-15.a.info";
    const auto index = [&]() -> std::string {
        StoredFiles stored(*storage_);
        const auto files = FilesToVerify(info, "a", "2026-11-15", local, stored);
        return files.back().kind == "index" ? files.back().name : "none";
    };
    EXPECT_EQ(index(), "none");
    store_->SetFile("2026-11-15.a.tgz", "x");
    EXPECT_EQ(index(), "2026-11-15.a.tgz");
    local.index_name = "2026-11-15.a.1.dar";
    StoredFiles stored(*storage_);
    EXPECT_EQ(FilesToVerify(info, "a", "2026-11-15", local, stored).size(), 3U);
}

// --- Other files and downloads ---

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
        DownloadDirectory directory;
        EXPECT_EQ(directory.Fetch(*storage_, "d/2026-11-15/slice", "a", false), 5);
        EXPECT_EQ(directory.Fetch(*storage_, "d/2026-11-15/slice", "b", false), 5);
        EXPECT_EQ(Below("tmp").size(), 2U) << "the directory and one file";
        EXPECT_THROW(directory.Fetch(*storage_, "missing", "c", false), kro_err::Error);
        EXPECT_EQ(Below("tmp").size(), 1U) << "only the directory";
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

// --- The rotation ---

TEST(ReportVerifyRotation, CountsTheDaysAndBeginsAgain) {
    struct Case {
        const char* date;
        int days;
        int day;
    };
    for (const Case& one :
         {Case{"1970-01-01", 30, 0}, Case{"1970-01-30", 30, 29}, Case{"1970-01-31", 30, 0},
          Case{"2024-02-29", 30, 12}, Case{"2024-03-01", 30, 13}, Case{"2026-11-20", 30, 17},
          Case{"2026-11-20", 7, 1}, Case{"2026-11-20", 1, 0}, Case{"1969-12-31", 30, 29}}) {
        EXPECT_EQ(DayInRotation(one.date, one.days), one.day) << one.date << " " << one.days;
    }
}

TEST(ReportVerifyRotation, ChoosesEachBackupOnce) {
    constexpr int kDays = 30;
    constexpr int kBackups = 3000;
    std::vector<int> times(kBackups);
    for (int day = 1; day <= kDays; ++day) {
        const std::string date = (day < 10 ? "2026-11-0" : "2026-11-") + std::to_string(day);
        int chosen = 0;
        for (int i = 0; i < kBackups; ++i) {
            const bool is_chosen = IsChosenOn(date, "2026-10-01.web" + std::to_string(i), kDays);
            times[static_cast<std::size_t>(i)] += is_chosen ? 1 : 0;
            chosen += is_chosen ? 1 : 0;
        }
        EXPECT_GT(chosen, kBackups / kDays / 2) << date;
        EXPECT_LT(chosen, kBackups / kDays * 2) << date;
    }
    EXPECT_EQ(times, std::vector<int>(kBackups, 1));
    EXPECT_TRUE(IsChosenOn("2026-11-20", "2026-10-01.web1", 1));
}

}  // namespace
