#include "base/hex.h"

#include <gmock/gmock.h>

#include <optional>
#include <string>

using namespace quarn2;
using namespace std::string_literals;

namespace {

TEST(Hex, WritesEachByteAsTwoDigits) {
    EXPECT_EQ(Hex(""), "");
    EXPECT_EQ(Hex("\x00\x0f\x7f\x80\xff"s), "000f7f80ff");
    EXPECT_EQ(UpperHex("\x00\x0f\x7f\x80\xff"s), "000F7F80FF");
}

TEST(Hex, ReadsEveryByteThatItWrites) {
    for (int byte = 0; byte < 256; ++byte) {
        const std::string text(1, static_cast<char>(byte));
        EXPECT_EQ(FromHex(Hex(text)), text) << byte;
        EXPECT_EQ(FromHex(UpperHex(text)), text) << byte;
    }
    EXPECT_EQ(FromHex(""), "");
    EXPECT_EQ(FromHex("0aA0"), "\x0a\xa0");
}

TEST(Hex, RefusesWhatIsNoPairOfDigits) {
    for (const char* const text : {"0", "0g", "g0", "-1", "+1", " 1", "1 ", "0x", "001"}) {
        EXPECT_EQ(FromHex(text), std::nullopt) << text;
    }
}

}  // namespace
