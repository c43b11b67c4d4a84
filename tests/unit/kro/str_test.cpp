#include "kro/str.h"

#include <gtest/gtest.h>

#include "kro/kro_err.h"

namespace {

std::string ErrorOf(std::int32_t (*convert)(std::string_view), std::string_view text) {
    try {
        convert(text);
    } catch (const kro_err::Error& error) {
        return std::string(error.type()) + ": " + error.what();
    }
    return "no error";
}

TEST(StrStartsEndsWith, ComparesTheSides) {
    EXPECT_TRUE(str::StartsWith("RESERVE 12", "RESERVE "));
    EXPECT_FALSE(str::StartsWith("RESERV", "RESERVE"));
    EXPECT_TRUE(str::StartsWith("x", ""));
    EXPECT_TRUE(str::EndsWith("a.info", ".info"));
    EXPECT_FALSE(str::EndsWith("info", ".info"));
}

TEST(StrLower, ChangesAsciiLettersOnly) {
    EXPECT_EQ(str::Lower("aZ[@`{ 9_K\xc3\x84"), "az[@`{ 9_k\xc3\x84");
    EXPECT_EQ(str::Lower(""), "");
}

TEST(StrDigits, AreTheAsciiDigits) {
    for (const char c : {'0', '5', '9'}) EXPECT_TRUE(str::IsDigit(c)) << c;
    for (const char c : {'/', ':', 'a', ' ', '-', '\0', '\xb2'}) EXPECT_FALSE(str::IsDigit(c)) << c;
    EXPECT_TRUE(str::HasDigitsOnly("0123456789"));
    for (const std::string_view text : {"", "-1", "1 ", "1a", "a1"}) {
        EXPECT_FALSE(str::HasDigitsOnly(text)) << text;
    }
}

TEST(StrQuoted, PutsTheTextBetweenQuotes) {
    EXPECT_EQ(str::Quoted("a b"), "'a b'");
    EXPECT_EQ(str::Quoted(""), "''");
}

TEST(StrTrimmed, TakesBlanksFromBothEnds) {
    EXPECT_EQ(str::Trimmed(" \t a b\r\n"), "a b");
    EXPECT_EQ(str::Trimmed("a"), "a");
    EXPECT_EQ(str::Trimmed(" \r\n\t"), "");
    EXPECT_EQ(str::Trimmed(""), "");
}

TEST(StrGetWord, CutsAtTheFirstSeparator) {
    std::string text = "PUT a b";
    EXPECT_EQ(str::GetWord(text), "PUT");
    EXPECT_EQ(text, "a b");
    std::string pair = "key::value::more";
    EXPECT_EQ(str::GetWord(pair, "::"), "key");
    EXPECT_EQ(pair, "value::more");
}

TEST(StrGetWord, GivesEmptyWordsBetweenAdjacentSeparators) {
    std::string text = "\n\nx";
    EXPECT_EQ(str::GetWord(text, "\n"), "");
    EXPECT_EQ(str::GetWord(text, "\n"), "");
    EXPECT_EQ(text, "x");
}

TEST(StrGetWord, TakesAllWithoutSeparator) {
    std::string text = "word";
    EXPECT_EQ(str::GetWord(text, ","), "word");
    EXPECT_EQ(text, "");
    text = "word";
    EXPECT_EQ(str::GetWord(text, ""), "word");
    EXPECT_EQ(text, "");
}

TEST(StrRGetWord, CutsAtTheLastSeparator) {
    std::string text = "F2026-11-20.web1.tgz.part2";
    EXPECT_EQ(str::RGetWord(text, "."), "part2");
    EXPECT_EQ(text, "F2026-11-20.web1.tgz");
}

TEST(StrRGetWord, LeavesTheTextWithoutSeparator) {
    std::string text = "name";
    EXPECT_EQ(str::RGetWord(text, ".tgz"), "");
    EXPECT_EQ(text, "name");
    EXPECT_EQ(str::RGetWord(text, ""), "");
    EXPECT_EQ(text, "name");
}

TEST(StrInt, ReadsWholeNumbersWithASign) {
    EXPECT_EQ(str::Int(""), 0);
    EXPECT_EQ(str::Int("42"), 42);
    EXPECT_EQ(str::Int("-42"), -42);
    EXPECT_EQ(str::Int("+42"), 42);
    EXPECT_EQ(str::Int("007"), 7);
    EXPECT_EQ(str::Int("2147483647"), 2147483647);
    EXPECT_EQ(str::Int("-2147483648"), -2147483647 - 1);
    EXPECT_EQ(str::Int64("9223372036854775807"), INT64_MAX);
    EXPECT_EQ(str::Int64("-9223372036854775808"), INT64_MIN);
}

TEST(StrInt, RefusesEverythingElseAndQuotesIt) {
    for (const char* text :
         {"10G", " 1", "1 ", "0x10", "1.5", "-", "+", "+-1", "--1", "++1", "x"}) {
        EXPECT_EQ(ErrorOf(str::Int, text),
                  "failed: '" + std::string(text) + "' is not a whole decimal number");
    }
    EXPECT_EQ(ErrorOf(str::Int, std::string_view("1\0", 2)),
              std::string("failed: '1\0' is not a whole decimal number", 43).c_str());
}

TEST(StrInt, TellsWhatIsOutOfRange) {
    EXPECT_EQ(ErrorOf(str::Int, "2147483648"), "failed: '2147483648' is out of range");
    EXPECT_EQ(ErrorOf(str::Int, "-2147483649"), "failed: '-2147483649' is out of range");
    EXPECT_THROW(str::Int64("9223372036854775808"), kro_err::Error);
    EXPECT_EQ(ErrorOf(str::Int, "99999999999x"),
              "failed: '99999999999x' is not a whole decimal number");
}

TEST(StrStr, WritesNumbers) {
    EXPECT_EQ(str::Str(-5), "-5");
    EXPECT_EQ(str::Str(std::size_t{12}), "12");
    EXPECT_EQ(str::Str(INT64_MIN), "-9223372036854775808");
}

TEST(StrAppend, SetsTheSeparatorOnlyBetweenTwoTexts) {
    EXPECT_EQ(str::Append("var/quarn2_cp.pid", "web1", "#"), "var/quarn2_cp.pid#web1");
    EXPECT_EQ(str::Append("var/quarn2_cp.pid", "", "#"), "var/quarn2_cp.pid");
    EXPECT_EQ(str::Append("", "web1", "#"), "web1");
    EXPECT_EQ(str::Append("", "", "#"), "");
}

TEST(StrAppend, WorksInPlaceAndOntoItself) {
    std::string text = "a";
    str::inpl::Append(text, "b", ", ");
    EXPECT_EQ(text, "a, b");
    str::inpl::Append(text, text, "|");
    EXPECT_EQ(text, "a, b|a, b");
}

TEST(StrJoin, JoinsListsAndSets) {
    EXPECT_EQ(str::Join(std::vector<std::string>{"b", "", "a"}, "\n"), "b\n\na");
    EXPECT_EQ(str::Join(std::set<std::string>{"b", "a"}, "\n"), "a\nb");
    EXPECT_EQ(str::Join(std::vector<std::string>{}, "\n"), "");
}

TEST(StrJoin, WritesEntriesInKeyOrder) {
    const std::map<std::string, std::string> entries{{"size", "5"}, {"date", "x=y"}, {"e", ""}};
    EXPECT_EQ(str::Join(entries, "\n"), "date=x=y\ne=\nsize=5");
}

TEST(StrSplit, ReversesJoin) {
    const std::map<std::string, std::string> entries{{"size", "5"}, {"date", "x=y"}, {"e", ""}};
    EXPECT_EQ(str::Split(str::Join(entries, "\n"), "\n"), entries);
}

TEST(StrSplit, SkipsEmptyLinesAndStripsCarriageReturns) {
    const std::map<std::string, std::string> expected{{"a", "1"}, {"b", ""}, {"c", "2\r"}};
    EXPECT_EQ(str::Split("\na=1\r\n\n\r\nb\nc=2\r\r\n", "\n"), expected);
    EXPECT_TRUE(str::Split("", "\n").empty());
}

TEST(StrSplit, KeepsTheLastOfTwoValues) {
    EXPECT_EQ(str::Split("a=1\na=2", "\n"), (std::map<std::string, std::string>{{"a", "2"}}));
}

TEST(StrRandom, GivesDifferentBytesOfTheSize) {
    EXPECT_EQ(str::Random(0).size(), 0U);
    EXPECT_EQ(str::Random(1000).size(), 1000U);
    EXPECT_NE(str::Random(15), str::Random(15));
}

TEST(StrBase64, EncodesWithPadding) {
    EXPECT_EQ(str::base64::Encode(""), "");
    EXPECT_EQ(str::base64::Encode("f"), "Zg==");
    EXPECT_EQ(str::base64::Encode("fo"), "Zm8=");
    EXPECT_EQ(str::base64::Encode("foo"), "Zm9v");
    EXPECT_EQ(str::base64::Encode("foob"), "Zm9vYg==");
    EXPECT_EQ(str::base64::Encode("foobar"), "Zm9vYmFy");
    EXPECT_EQ(str::base64::Encode("\xfb\xff\xfe"), "+//+");
    EXPECT_EQ(str::base64::Encode(str::Random(15)).size(), 20U);
}

TEST(StrBadchars, EscapesWhatEndsAFieldOrALine) {
    EXPECT_EQ(str::badchars::Escape("a\tb\nc\rd\\e", '\\'), "a\\tb\\nc\\rd\\\\e");
    EXPECT_EQ(str::badchars::Escape("a%b\n", '%'), "a%%b%n");
}

TEST(StrBadchars, UnescapesWhatItEscaped) {
    std::string all;
    for (int c = 0; c < 256; ++c) all += static_cast<char>(c);
    EXPECT_EQ(str::badchars::Unescape(str::badchars::Escape(all, '\\'), '\\'), all);
    EXPECT_EQ(str::badchars::Unescape("a\\qb\\", '\\'), "aqb\\");
}

}  // namespace
