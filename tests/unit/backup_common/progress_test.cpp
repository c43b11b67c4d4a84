// The progress line: its text, when it is printed, and the commands that print it.
#include "arguments.h"
#include "program_site.h"
#include "quarn2_cp2_get.h"
#include "quarn2_cp2_misc_progress.h"
#include "quarn2_cp2_put.h"
#include "quarn2_cp2_server_rescan.h"
#include "terminal.h"

namespace {

constexpr std::int64_t kMiB = 1024 * 1024;

std::string Shown(const std::string& text) { return "\r" + text + "\x1b[K"; }

void MoveClock(int seconds) { fake_clock::Set(fake_clock::kStart + seconds); }

TEST(ProgressText, LeavesOutWhatIsNotKnown) {
    EXPECT_EQ(ProgressText({}), "0 of 1 file, 0 B");
    EXPECT_EQ(ProgressText({.bytes = 10, .all_bytes = 0}), "0 of 1 file, 10 B");
    EXPECT_EQ(ProgressText({.all_files = 5, .bytes = 10, .seconds = 5}),
              "0 of 5 files, 10 B, 2 B/s");
}

TEST(ProgressText, TellsWhatIsLeftByBytesForOneFile) {
    EXPECT_EQ(ProgressText({.bytes = 512, .all_bytes = 1024, .seconds = 10}),
              "0 of 1 file, 512 B, 51 B/s, 0:10 left");
    EXPECT_EQ(ProgressText({.bytes = kMiB, .all_bytes = 3601 * kMiB, .seconds = 1}),
              "0 of 1 file, 1.0 MiB, 1.0 MiB/s, 60:00 left");
    EXPECT_EQ(ProgressText({.bytes = 5, .all_bytes = 5, .seconds = 1}),
              "0 of 1 file, 5 B, 5 B/s, 0:00 left");
}

TEST(ProgressText, TellsWhatIsLeftByFilesForSeveral) {
    EXPECT_EQ(ProgressText({.files = 3, .all_files = 10, .bytes = 1536 * kMiB, .seconds = 60}),
              "3 of 10 files, 1.5 GiB, 25.6 MiB/s, 2:20 left");
    EXPECT_EQ(ProgressText({.files = 10, .all_files = 10, .bytes = 0, .seconds = 60}),
              "10 of 10 files, 0 B, 0 B/s, 0:00 left");
}

TEST(ProgressText, PromisesNothingForATransferLongerThanExpected) {
    EXPECT_EQ(ProgressText({.bytes = 11, .all_bytes = 10, .seconds = 1}),
              "0 of 1 file, 11 B, 11 B/s");
}

TEST(ProgressText, TakesTheUnitThatFits) {
    EXPECT_EQ(ProgressText({.bytes = 1023}), "0 of 1 file, 1023 B");
    EXPECT_EQ(ProgressText({.bytes = 1024}), "0 of 1 file, 1.0 KiB");
    EXPECT_EQ(ProgressText({.bytes = 5 * kMiB * kMiB}), "0 of 1 file, 5.0 TiB");
    EXPECT_EQ(ProgressText({.bytes = 5000 * kMiB * kMiB}), "0 of 1 file, 5000.0 TiB");
}

class ProgressLineTest : public ProgramSite {};

TEST_F(ProgressLineTest, IsPrintedOnceASecondAndEndsWithItsLine) {
    const Terminal terminal;
    {
        ProgressLine line(1);
        line.Begin(1000);
        line.Advance(100);
        EXPECT_EQ(terminal.Printed(), "") << "nothing to tell in the first second";
        MoveClock(2);
        line.Advance(100);
        EXPECT_EQ(terminal.Printed(), Shown("0 of 1 file, 200 B, 100 B/s, 0:08 left"));
        line.Advance(300);
        EXPECT_EQ(terminal.Printed(), "");
        MoveClock(5);
        line.Advance(0);
        EXPECT_EQ(terminal.Printed(), Shown("0 of 1 file, 500 B, 100 B/s, 0:05 left"));
    }
    EXPECT_EQ(terminal.Printed(), "\n");
}

TEST_F(ProgressLineTest, OfSeveralFilesAddsUpTheirBytes) {
    const Terminal terminal;
    ProgressLine line(4);
    for (int file = 0; file < 2; ++file) {
        line.Begin(50);
        line.Advance(50);
        line.FileDone();
    }
    MoveClock(10);
    line.Begin(50);
    line.Advance(0);
    EXPECT_EQ(terminal.Printed(), Shown("2 of 4 files, 100 B, 10 B/s, 0:10 left"));
}

TEST_F(ProgressLineTest, StartsAnewWithAnotherAttemptAtTheFile) {
    const Terminal terminal;
    ProgressLine line(1);
    line.Begin(100);
    line.Advance(90);
    MoveClock(60);
    line.Begin(100);
    MoveClock(62);
    line.Advance(20);
    EXPECT_EQ(terminal.Printed(), Shown("0 of 1 file, 20 B, 10 B/s, 0:08 left"));
}

TEST_F(ProgressLineTest, ShortWorkPrintsNothing) {
    const Terminal terminal;
    {
        ProgressLine line(1);
        line.Begin(5);
        line.Advance(5);
        line.FileDone();
    }
    EXPECT_EQ(terminal.Printed(), "");
}

TEST_F(ProgressLineTest, IsNotPrintedWhereNobodyWatches) {
    testing::internal::CaptureStderr();
    {
        ProgressLine line(1);
        MoveClock(2);
        line.Advance(100);
        line.FileDone();
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

// --- The commands ---

class CommandProgress : public ProgramSite {
  protected:
    CommandProgress() {
        store_->SetFile("2026-11-20.web1.info", "type=full\n");
        store_->SetFile("2026-11-20.web1.tgz", "index");
        Place("b/2026-11-20.web1.info", "last-slice=F2026-11-20.web1.tgz\n");
        Place("b/2026-11-20.web1.tgz", "index");
        // Every transfer takes two seconds.
        store_->SetHook([this](const std::string& operation, const std::string&) {
            if (operation == "Get" || operation == "Put") MoveClock(seconds_ += 2);
        });
    }
    void RunAll() {
        CommandUpdate("b/2026-11-20.web1.tgz");
        CommandGet(Arguments({"r//2026-11-20.web1.tgz"}));
        Rescan(*Arguments({}));
    }

    int seconds_ = 0;
};

TEST_F(CommandProgress, IsShownByUpdateAndRescan) {
    const Terminal terminal;
    CommandUpdate("b/2026-11-20.web1.tgz");
    EXPECT_EQ(terminal.Printed(), Shown("0 of 1 file, 5 B, 2 B/s, 0:00 left") + "\n");
    CommandGet(Arguments({"r//2026-11-20.web1.tgz"}));
    EXPECT_EQ(terminal.Printed(), "") << "the second passed before the transfer began";
    Rescan(*Arguments({}));
    EXPECT_EQ(terminal.Printed(), Shown("1 of 2 files, 10 B, 5 B/s, 0:02 left") +
                                      Shown("1 of 2 files, 15 B, 4 B/s, 0:04 left") + "\n");
}

TEST_F(CommandProgress, IsNotShownWhereNobodyWatches) {
    testing::internal::CaptureStderr();
    RunAll();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
