#include <gmock/gmock.h>

#include <limits>

#include "kro/kro_err.h"
#include "kro/kro_json.h"

namespace {

using kro_json::Array;
using kro_json::Format;
using kro_json::Object;
using kro_json::Parse;
using kro_json::Value;

TEST(Json, KeepsTheOrderOfMembersAndTheTypesOfValues) {
    const Object object = {{"z", 1},
                           {"a", "text"},
                           {"yes", true},
                           {"half", 0.5},
                           {"none", {}},
                           {"list", Array{1, "2"}},
                           {"in", Object{{"x", -1}}}};
    EXPECT_EQ(
        Format(object),
        R"({"z":1,"a":"text","yes":true,"half":0.5,"none":null,"list":[1,"2"],"in":{"x":-1}})");
}

TEST(Json, WritesOneLineWhateverATextHolds) {
    EXPECT_EQ(Format("a\nb\r\t\"\\\x01"), R"("a\nb\r\t\"\\\u0001")");
    EXPECT_EQ(Format("\xff"
                     "a"),
              "\"\xef\xbf\xbd"
              "a\"");
}

TEST(Json, ParsesWhatItWrites) {
    const std::string text =
        R"({"z":1,"a":"t\u0001ext","yes":true,"half":0.5,"none":null,"list":[1,"2"],"in":{"x":-1}})";
    EXPECT_EQ(Format(Parse(text)), text);
}

TEST(Json, FindsMembersByTheirKey) {
    const Value value = Parse(R"({"user":"anna","size":5,"done":false,"twice":1,"twice":2})");
    EXPECT_EQ(*value.Find("user")->AsText(), "anna");
    EXPECT_EQ(*value.Find("size")->AsInt(), 5);
    EXPECT_FALSE(*value.Find("done")->AsBool());
    EXPECT_EQ(*value.Find("twice")->AsInt(), 2);
    EXPECT_EQ(value.Find("none"), nullptr);
    EXPECT_EQ(value.Find("user")->AsInt(), nullptr);
    EXPECT_EQ(value.Find("user")->Find("x"), nullptr);
    EXPECT_TRUE(Parse("null").IsNull());
}

TEST(Json, KeepsAllIntegersThatFit) {
    constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(*Parse("9223372036854775807").AsInt(), kMax);
    EXPECT_EQ(*Parse("-9223372036854775808").AsInt(), std::numeric_limits<std::int64_t>::min());
    EXPECT_DOUBLE_EQ(*Parse("9223372036854775808").AsDouble(), 9223372036854775808.0);
    EXPECT_DOUBLE_EQ(*Parse("1e3").AsDouble(), 1000);
}

TEST(Json, RefusesWhatIsNoJsonAndWhatIsTooDeep) {
    for (const char* text :
         {"", "{", "{\"a\":1} x", "{'a':1}", "[1,]", "\"\xff\"", "nul", "1e999"}) {
        EXPECT_THROW(Parse(text), kro_err::Error) << text;
    }
    EXPECT_NO_THROW(Parse(std::string(60, '[') + std::string(60, ']')));
    EXPECT_THROW(Parse(std::string(70, '[') + std::string(70, ']')), kro_err::Error);
    EXPECT_THROW(Parse(std::string(1'000'000, '[')), kro_err::Error);
}

}  // namespace
