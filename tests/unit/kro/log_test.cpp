#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <thread>

#include "child.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/kro_log_reader.h"
#include "kro/kro_stream.h"
#include "kro/str.h"
#include "temp_dir.h"

namespace {

using testing::EndsWith;
using testing::MatchesRegex;

constexpr kro_log::Module kMain("main");

class Log : public testing::Test {
  protected:
    Log() {
        ::unsetenv("KRO_LOG_LEVEL");
        std::filesystem::current_path(dir_.path());
        std::filesystem::create_directory("var");
    }
    ~Log() override {
        kro_log::Close();
        ::unsetenv("KRO_LOG_LEVEL");
        std::filesystem::current_path(home_);
    }

    static std::vector<std::string> Lines(const std::string& path = "var/prog.log") {
        kro_stream::Input input(path);
        std::vector<std::string> lines;
        std::string line;
        while (kro_stream::GetLine(input, line)) lines.push_back(line);
        return lines;
    }

  private:
    std::filesystem::path home_ = std::filesystem::current_path();
    TempDir dir_;
};

TEST_F(Log, WritesLinesOfTheForm) {
    kro_log::Init("prog", 5);
    KRO_LOG(kMain, 5, "Size %d of %s", 12, "web1");
    const std::string ids =
        std::string("[") + str::Str(::getpid()) + ":" + str::Str(::gettid()) + "]";
    ASSERT_EQ(Lines().size(), 1U);
    const std::string line = Lines()[0];
    EXPECT_THAT(line.substr(0, 24), MatchesRegex("[0-9]{4}-[0-9][0-9]-[0-9][0-9] "
                                                 "[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\.[0-9]{3} "));
    EXPECT_EQ(line.substr(24), ids + " prog main 5: Size 12 of web1");
    EXPECT_EQ(kro_file::Read("var/prog.log"), line + "\n");
}

TEST_F(Log, MakesAPrivateFileAtTheFirstLine) {
    kro_log::Init("prog", 5);
    EXPECT_FALSE(kro_file::Exists("var/prog.log"));
    kMain.Text(3, "x");
    struct stat status {};
    ASSERT_EQ(::stat("var/prog.log", &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
}

TEST_F(Log, LeavesOutWhatIsBelowTheLevel) {
    kro_log::Init("prog", 5);
    EXPECT_TRUE(kro_log::Enabled(3));
    EXPECT_TRUE(kro_log::Enabled(5));
    EXPECT_FALSE(kro_log::Enabled(6));
    kMain.Write(6, "%s", "detail");
    kMain.Text(8, "trace");
    int evaluated = 0;
    KRO_LOG(kMain, 6, "%d", ++evaluated);
    EXPECT_EQ(evaluated, 0);
    EXPECT_TRUE(Lines().empty());
}

TEST_F(Log, TakesAHigherLevelFromTheEnvironment) {
    ::setenv("KRO_LOG_LEVEL", "8", 1);
    kro_log::Init("prog", 5);
    EXPECT_TRUE(kro_log::Enabled(8));
    EXPECT_FALSE(kro_log::Enabled(9));
}

TEST_F(Log, TakesNoLowerOrUnreadableLevelFromTheEnvironment) {
    for (const char* text : {"3", "-1", "", "all", "99999999999"}) {
        ::setenv("KRO_LOG_LEVEL", text, 1);
        kro_log::Init("prog", 5);
        EXPECT_TRUE(kro_log::Enabled(5)) << text;
        EXPECT_FALSE(kro_log::Enabled(6)) << text;
    }
}

TEST_F(Log, EscapesControlCharacters) {
    kro_log::Init("prog", 5);
    kMain.Text(5, std::string("a\nb\rc\td\0e\x1b[1mf\x7fg\\n \xc3\xa9", 21));
    ASSERT_EQ(Lines().size(), 1U);
    EXPECT_THAT(Lines()[0], EndsWith(" 5: a\\nb\\rc\\td\\x00e\\x1b[1mf\\x7fg\\n \xc3\xa9"));
}

TEST_F(Log, WritesLongMessagesWhole) {
    kro_log::Init("prog", 5);
    for (const std::size_t size : {1022U, 1023U, 1024U, 100000U}) {
        const std::string text(size, 'x');
        kMain.Write(5, "%s", text.c_str());
        EXPECT_THAT(Lines().back(), EndsWith(" main 5: " + text));
    }
}

TEST_F(Log, NoticesARotatedFile) {
    kro_log::Init("prog", 5);
    kMain.Text(5, "one");
    ASSERT_EQ(std::rename("var/prog.log", "var/prog.log.1"), 0);
    kMain.Text(5, "two");
    kro_file::RemoveFile("var/prog.log");
    kMain.Text(5, "three");
    ASSERT_EQ(Lines("var/prog.log.1").size(), 1U);
    ASSERT_EQ(Lines().size(), 1U);
    EXPECT_THAT(Lines("var/prog.log.1")[0], EndsWith(" one"));
    EXPECT_THAT(Lines()[0], EndsWith(" three"));
}

TEST_F(Log, LosesLinesThatCannotBeWritten) {
    std::filesystem::remove("var");
    kro_log::Init("prog", 5);
    kMain.Text(5, "lost");
    std::filesystem::create_directory("var");
    kMain.Text(5, "kept");
    ASSERT_EQ(Lines().size(), 1U);
    EXPECT_THAT(Lines()[0], EndsWith(" kept"));
}

TEST_F(Log, LosesLinesBetweenCloseAndInit) {
    kMain.Text(3, "before");
    kro_log::Init("prog", 5);
    kMain.Text(3, "one");
    kro_log::Close();
    kro_log::Close();
    EXPECT_FALSE(kro_log::Enabled(3));
    kMain.Text(3, "lost");
    kro_log::Init("prog", 5);
    kMain.Text(3, "two");
    ASSERT_EQ(Lines().size(), 2U);
    EXPECT_THAT(Lines()[1], EndsWith(" two"));
}

TEST_F(Log, KeepsErrno) {
    kro_log::Init("prog", 5);
    std::filesystem::remove("var");
    errno = EAGAIN;
    kMain.Text(3, "x");
    kMain.Write(3, "%d", 1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(Log, NamesTheForkedChild) {
    kro_log::Init("prog", 5);
    kMain.Text(5, "parent");
    Child child([] { kMain.Text(5, "child " + str::Str(::getpid())); });
    ASSERT_EQ(child.Wait(), 0);
    ASSERT_EQ(Lines().size(), 2U);
    std::string line = Lines()[1];
    const std::string pid = str::RGetWord(line, "child ");
    EXPECT_THAT(line, EndsWith(std::string("[") + pid + ":" + pid + "] prog main 5: "));
}

void LogMany(char letter) {
    for (int i = 0; i < 200; ++i) kMain.Text(5, std::string(3000, letter));
}

TEST_F(Log, MixesNoLinesOfProcessesAndThreads) {
    kro_log::Init("prog", 5);
    Child a([] { LogMany('a'); });
    Child b([] { LogMany('b'); });
    std::thread c(LogMany, 'c');
    std::thread d(LogMany, 'd');
    c.join();
    d.join();
    ASSERT_EQ(a.Wait(), 0);
    ASSERT_EQ(b.Wait(), 0);
    const auto lines = Lines();
    EXPECT_EQ(lines.size(), 800U);
    for (const std::string& line : lines) {
        ASSERT_GT(line.size(), 3000U);
        EXPECT_EQ(line.substr(line.size() - 3000), std::string(3000, line.back()));
        EXPECT_EQ(line.substr(line.size() - 3003, 3), "5: ");
    }
}

TEST_F(Log, MayBeRotatedAndReopenedWhileThreadsLog) {
    kro_log::Init("prog", 5);
    std::thread a(LogMany, 'a');
    std::thread b(LogMany, 'b');
    for (int i = 0; i < 20; ++i) {
        std::rename("var/prog.log", ("var/prog.log." + str::Str(i)).c_str());
        kro_proc::Sleep(1);
    }
    a.join();
    b.join();
    std::size_t count = Lines().size();
    for (int i = 0; i < 20; ++i) count += Lines("var/prog.log." + str::Str(i)).size();
    EXPECT_EQ(count, 400U);
}

// --- Parsing ---

TEST_F(Log, ALineIsParsedIntoItsFields) {
    const auto line =
        kro_log::ParseLine("2026-11-20 16:06:18.123 [12:345] prog main 3: No space: \\n[1:2] 5: x");
    ASSERT_TRUE(line);
    EXPECT_EQ(line->process, 12);
    EXPECT_EQ(line->thread, 345);
    EXPECT_EQ(line->level, 3);
    EXPECT_EQ(line->text, "No space: \\n[1:2] 5: x");
}

TEST_F(Log, OtherTextIsNoLine) {
    for (const char* text : {"", "x", "2026-11-20 16:06:18.123 [12:345] prog main 3",
                             "2026-11-20 16:06:18.123 [12:345] prog main x: y",
                             "2026-11-20 16:06:18 [12:345] prog main 3: y",
                             "2026-11-20 16:06:18.123 [:345] prog main 3: y"}) {
        EXPECT_FALSE(kro_log::ParseLine(text)) << text;
    }
}

std::vector<std::string> TextsSince(const kro_log::Bookmark& begin) {
    std::vector<std::string> texts;
    for (const kro_log::Line& line : begin.LinesOf(::getpid())) texts.push_back(line.text);
    return texts;
}

TEST_F(Log, ABookmarkGivesTheLinesOfOneProcessSinceThen) {
    kro_log::Init("prog", 5);
    const kro_log::Bookmark before_the_file;
    kMain.Text(3, "one");
    const kro_log::Bookmark begin;
    EXPECT_THAT(TextsSince(begin), testing::IsEmpty());
    kMain.Text(3, "two\nlines");
    kMain.Text(5, " three");
    EXPECT_THAT(TextsSince(before_the_file), testing::ElementsAre("one", "two\\nlines", " three"));
    EXPECT_THAT(TextsSince(begin), testing::ElementsAre("two\\nlines", " three"));
    EXPECT_EQ(begin.LinesOf(::getpid()).front().thread, ::gettid());
    EXPECT_THAT(begin.LinesOf(1), testing::IsEmpty());
}

TEST_F(Log, ALineThatIsBeingWrittenIsLeftOut) {
    kro_log::Init("prog", 5);
    kMain.Text(3, "one");
    const kro_log::Bookmark begin;
    kMain.Text(3, "two");
    std::filesystem::resize_file("var/prog.log", std::filesystem::file_size("var/prog.log") - 1);
    EXPECT_THAT(TextsSince(begin), testing::IsEmpty());
}

TEST_F(Log, AReplacedShortenedOrMissingLogGivesNothing) {
    kro_log::Init("prog", 5);
    kMain.Text(3, "one");
    const kro_log::Bookmark begin;
    std::filesystem::rename("var/prog.log", "var/prog.log.1");
    EXPECT_THAT(TextsSince(begin), testing::IsEmpty());
    kMain.Text(3, "two");
    EXPECT_THAT(TextsSince(begin), testing::IsEmpty());
    const kro_log::Bookmark later;
    std::filesystem::resize_file("var/prog.log", 0);
    kMain.Text(3, "3");
    EXPECT_THAT(TextsSince(later), testing::IsEmpty());
    std::filesystem::remove("var/prog.log");
    std::filesystem::create_directory("var/prog.log");
    EXPECT_THAT(TextsSince(later), testing::IsEmpty());
}

TEST_F(Log, OfALongLogOnlyTheEndIsRead) {
    kro_log::Init("prog", 5);
    const kro_log::Bookmark begin;
    const std::string noise(100, 'x');
    for (int i = 0; i < 3000; ++i) kMain.Text(5, noise);
    kMain.Text(3, "last");
    const std::vector<std::string> texts = TextsSince(begin);
    EXPECT_LT(texts.size(), 3000U);
    EXPECT_GT(texts.size(), 1000U);
    EXPECT_EQ(texts.front(), noise);
    EXPECT_EQ(texts.back(), "last");
}

}  // namespace
