#include "base/ascii.h"

#include <gmock/gmock.h>

#include <string>
#include <string_view>

using namespace quarn2;

namespace {

constexpr std::string_view kDigits = "0123456789";
constexpr std::string_view kLower = "abcdefghijklmnopqrstuvwxyz";
constexpr std::string_view kUpper = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";

bool Has(std::string_view text, char c) { return text.find(c) != std::string_view::npos; }

TEST(Ascii, KnowsTheClassOfEveryByte) {
    for (int byte = 0; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        EXPECT_EQ(IsDigit(c), Has(kDigits, c)) << byte;
        EXPECT_EQ(IsLower(c), Has(kLower, c)) << byte;
        EXPECT_EQ(IsUpper(c), Has(kUpper, c)) << byte;
        EXPECT_EQ(IsLetterOrDigit(c), Has(kDigits, c) || Has(kLower, c) || Has(kUpper, c)) << byte;
    }
}

TEST(Ascii, ANumberHasOnlyDigitsAndAtLeastOne) {
    for (const char* const text : {"0", "007", "1234567890123456789012345"}) {
        EXPECT_TRUE(str::HasDigitsOnly(text)) << text;
    }
    for (const char* const text : {"", "-1", "+1", " 1", "1 ", "1.0", "1a", "\xb2"}) {
        EXPECT_FALSE(str::HasDigitsOnly(text)) << text;
    }
}

}  // namespace
