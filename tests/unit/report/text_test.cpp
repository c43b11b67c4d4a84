// Escaping, sizes and tables.
#include <gtest/gtest.h>

#include "report_text.h"

namespace {

TEST(ReportText, CharactersThatCouldChangeATerminalAreEscaped) {
    struct Case {
        std::string text;
        std::string escaped;
    };
    const Case cases[] = {
        {"", ""},
        {"web1", "web1"},
        {"<script>\"'", "<script>\"'"},
        {"\x1b[31mred", "\\x1b[31mred"},
        {"a\nb\tc\rd", "a\\x0ab\\x09c\\x0dd"},
        {std::string("a\0b", 3), "a\\x00b"},
        {"\x7f", "\\x7f"},
        {"back\\slash", "back\\\\slash"},
        {"\xc3\xa4", "\xc3\xa4"},                  // a letter of two bytes
        {"\xf0\x9f\x98\x80", "\xf0\x9f\x98\x80"},  // a character of four bytes
        {"\xc2\x9b", "\\u009b"},                   // the control character CSI
        {"\xe2\x80\xae", "\\u202e"},               // reverses the text direction
        {"\xef\xbb\xbf", "\\ufeff"},
        {"\xff", "\\xff"},
        {"\xc3", "\\xc3"},                             // an incomplete character
        {"\xc0\x80", "\\xc0\\x80"},                    // overlong encoding of NUL, two bytes
        {"\xe0\x80\x80", "\\xe0\\x80\\x80"},           // overlong encoding of NUL, three bytes
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"},           // a surrogate
        {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},  // above the largest code point
    };
    for (const Case& one : cases) EXPECT_EQ(Escaped(one.text), one.escaped);
}

TEST(ReportText, SizesHaveThreeDigitsAndAUnit) {
    struct Case {
        std::int64_t bytes;
        const char* text;
    };
    const Case cases[] = {{0, "0 B"},
                          {999, "999 B"},
                          {1000, "1.00 kB"},
                          {1234, "1.23 kB"},
                          {9996, "10.0 kB"},
                          {99960, "100 kB"},
                          {999499, "999 kB"},
                          {999500, "1.00 MB"},
                          {6500000, "6.50 MB"},
                          {123456789012, "123 GB"},
                          {-1500, "-1.50 kB"},
                          {INT64_MAX, "9.22 EB"},
                          {INT64_MIN, "-9.22 EB"}};
    for (const Case& one : cases) EXPECT_EQ(SizeText(one.bytes), one.text) << one.bytes;
}

TEST(ReportText, ColumnsAreAligned) {
    Table table({1});
    table.Add({"a", "1", "x"});
    table.Add({"\xc3\xa4\xc3\xa4", "100", ""});
    EXPECT_EQ(table.Text(1), " a     1  x\n \xc3\xa4\xc3\xa4  100\n");
}

TEST(ReportText, AVeryLongCellDoesNotWidenItsColumn) {
    Table table({});
    table.Add({std::string(200, 'n'), "x"});
    table.Add({"a", "y"});
    EXPECT_EQ(table.Text(0), std::string(200, 'n') + "  x\na  y\n");
}

}  // namespace
