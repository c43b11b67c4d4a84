#include <gtest/gtest.h>

#include "kro/kro_args.h"
#include "tree.h"

namespace {

using Words = std::vector<std::string>;

kro_args::ResultPtr Parsed(const Words& words) {
    kro_args::Args args("banner");
    DeclareTree(args);
    ParseWords(args, words);
    return args.GetResult();
}

std::string ErrorOf(const Words& words) {
    try {
        Parsed(words);
    } catch (const kro_args::UsageError& error) {
        return error.what();
    }
    return "no error";
}

TEST(ArgsParse, NamesTheChosenMemberOfAGroup) {
    EXPECT_EQ(Parsed({"--server"})->Param("command"), "server");
    EXPECT_EQ(Parsed({"-c"})->Param("command", -1), "client");
    EXPECT_EQ(Parsed({"--clear"})->Param("command", 0), "clear");
    EXPECT_EQ(Parsed({})->Param("command"), "");
    EXPECT_TRUE(Parsed({"--server"})->Has("command"));
    EXPECT_FALSE(Parsed({})->Has("command"));
    EXPECT_EQ(Parsed({"--server", "--rescan"})->Param("subcommand"), "rescan");
    const auto dated = Parsed({"--server", "--date", "2026-11-20"});
    EXPECT_EQ(dated->Param("subcommand"), "date");
    EXPECT_EQ(dated->Param("date"), "2026-11-20");
    EXPECT_TRUE(Parsed({"--put", "--last_slice", "f"})->Has("tovtar"));
    EXPECT_FALSE(Parsed({"--get", "--operation", "f"})->Has("tovtar"));
}

TEST(ArgsParse, TakesEverySpellingOfAValue) {
    for (const Words& words :
         {Words{"-s", "--path", "/srv"}, Words{"-s", "--path=/srv"}, Words{"-s", "-P", "/srv"},
          Words{"-s", "-P/srv"}, Words{"-sP/srv"}, Words{"-sP", "/srv"}, Words{"-sRP", "/srv"}}) {
        EXPECT_EQ(Parsed(words)->Param("path"), "/srv");
        EXPECT_EQ(Parsed(words)->Param("command"), "server");
    }
}

TEST(ArgsParse, TakesAnyTextAsAValue) {
    EXPECT_EQ(Parsed({"-s", "--path", "--put"})->Param("path"), "--put");
    EXPECT_EQ(Parsed({"-s", "--path", "--"})->Param("path"), "--");
    EXPECT_EQ(Parsed({"-s", "--path", "--help"})->Param("path"), "--help");
    EXPECT_EQ(Parsed({"-s", "--path=a=b"})->Param("path"), "a=b");
    EXPECT_EQ(Parsed({"-s", "-S", "-1"})->Param("size-limit"), "-1");
    const auto empty = Parsed({"-s", "--path="});
    EXPECT_TRUE(empty->Has("path"));
    EXPECT_EQ(empty->Param("path"), "");
    EXPECT_EQ(Parsed({"-s", "--path", ""})->Param("path"), "");
}

TEST(ArgsParse, GivesDefaults) {
    const auto result = Parsed({"--server"});
    EXPECT_EQ(result->Param("path"), "var/backup/tovarn");
    EXPECT_EQ(result->Param("size-limit"), "0");
    EXPECT_EQ(result->Param("ssh-key"), "etc/.ssh/master_id");
    EXPECT_EQ(result->Param("date"), "");
    EXPECT_EQ(result->Param("no-such-option"), "");
    EXPECT_FALSE(result->Has("path"));
    EXPECT_TRUE(result->Params("path").empty());
}

TEST(ArgsParse, KeepsEveryValueOfAMultipleOption) {
    const auto result = Parsed({"-s", "--node", "b", "-Na", "--node=c"});
    EXPECT_EQ(result->Params("node"), (Words{"b", "a", "c"}));
    EXPECT_EQ(result->Param("node", 0), "b");
    EXPECT_EQ(result->Param("node", 2), "c");
    EXPECT_EQ(result->Param("node", 3), "");
    EXPECT_EQ(result->Param("node"), "c");
}

TEST(ArgsParse, CountsTheLastOfRepeatedOptions) {
    EXPECT_EQ(Parsed({"-s", "--path", "a", "--path", "b"})->Param("path"), "b");
    EXPECT_EQ(Parsed({"--put", "--put", "f"})->Param("command"), "put");
    EXPECT_EQ(Parsed({"-s", "-D", "a", "-D", "b"})->Param("date"), "b");
}

TEST(ArgsParse, TellsTheSharedLetterByTheCommand) {
    EXPECT_EQ(Parsed({"--put", "f", "-I", "info"})->Param("info-file"), "info");
    const auto server = Parsed({"--server", "-I", "key"});
    EXPECT_EQ(server->Param("ssh-key"), "key");
    EXPECT_FALSE(server->Has("info-file"));
    EXPECT_TRUE(Parsed({"-g", "--operation", "f"})->Has("operation"));
}

TEST(ArgsParse, TakesPositionalArgumentsAnywhere) {
    const auto result =
        Parsed({"a", "--put", "b", "-I", "info", "-", "", "--", "--put", "-x", "--"});
    EXPECT_EQ(result->ArgsCount(), 7);
    const Words expected{"a", "b", "-", "", "--put", "-x", "--"};
    for (int i = 0; i < 7; ++i) {
        EXPECT_EQ(result->Args(i), expected[static_cast<std::size_t>(i)]);
    }
    EXPECT_EQ(result->Args(7), "");
    EXPECT_EQ(result->Args(-1), "");
    EXPECT_EQ(Parsed({})->ArgsCount(), 0);
}

TEST(ArgsParse, RefusesTwoMembersOfAGroup) {
    EXPECT_EQ(ErrorOf({"--clear", "--put", "f"}), "--clear and --put cannot be given together");
    EXPECT_EQ(ErrorOf({"-p", "f", "--clear"}), "--put and --clear cannot be given together");
    EXPECT_EQ(ErrorOf({"-pd"}), "--put and --delete cannot be given together");
    EXPECT_EQ(ErrorOf({"-s", "-R", "-D", "2026-11-20"}),
              "--rescan and --date cannot be given together");
    EXPECT_EQ(ErrorOf({"--put", "--operation", "--last_slice"}),
              "--operation and --last_slice cannot be given together");
}

TEST(ArgsParse, RefusesUnknownOptions) {
    EXPECT_EQ(ErrorOf({"--foo"}), "unknown option --foo");
    EXPECT_EQ(ErrorOf({"--foo=bar"}), "unknown option --foo");
    EXPECT_EQ(ErrorOf({"--serve"}), "unknown option --serve");
    EXPECT_EQ(ErrorOf({"-x"}), "unknown option -x");
    EXPECT_EQ(ErrorOf({"-sx"}), "unknown option -x");
    EXPECT_EQ(ErrorOf({"-h"}), "unknown option -h");
    EXPECT_EQ(ErrorOf({"- "}), "unknown option - ");
    EXPECT_EQ(ErrorOf({"-\xc3\xa9"}), "unknown option -\xc3\xa9");
    EXPECT_EQ(ErrorOf({"--=x"}), "unknown option --");
}

TEST(ArgsParse, RefusesMissingAndUnwantedValues) {
    EXPECT_EQ(ErrorOf({"--server", "--path"}), "--path needs a value");
    EXPECT_EQ(ErrorOf({"-sP"}), "-P needs a value");
    EXPECT_EQ(ErrorOf({"--put=x"}), "--put takes no value");
    EXPECT_EQ(ErrorOf({"--put="}), "--put takes no value");
    EXPECT_EQ(ErrorOf({"--help=x"}), "--help takes no value");
}

TEST(ArgsParse, RefusesASuboptionWithoutItsCommand) {
    EXPECT_EQ(ErrorOf({"--force", "--delete", "x"}),
              "--force belongs to --delete and must come after it");
    EXPECT_EQ(ErrorOf({"--put", "--force", "x"}),
              "--force belongs to --delete and must come after it");
    EXPECT_EQ(ErrorOf({"-I", "x", "--put", "f"}),
              "-I belongs to --server and --put and must come after one of them");
    EXPECT_EQ(ErrorOf({"--server", "--operation"}),
              "--operation belongs to --put and --get and must come after one of them");
    EXPECT_EQ(ErrorOf({"-fd"}), "-f belongs to --delete and must come after it");
}

TEST(ArgsParse, StartsAnewEachTime) {
    kro_args::Args args("banner");
    DeclareTree(args);
    ParseWords(args, {"--put", "f"});
    const auto first = args.GetResult();
    ParseWords(args, {"--clear"});
    EXPECT_EQ(args->Param("command"), "clear");
    EXPECT_EQ(args->ArgsCount(), 0);
    EXPECT_EQ(first->Param("command"), "put");
}

TEST(ArgsParse, DoesWithoutAProgramName) {
    kro_args::Args args("banner");
    char* none = nullptr;
    args.Parse(0, &none);
    EXPECT_EQ(args->ArgsCount(), 0);
}

TEST(ArgsParse, FollowsDeeperLevels) {
    kro_args::Args args("banner");
    args.AddOption("one", 'a', "")
        .AddSuboption("two", 'b', "")
        .AddSuboption("three", 'c', "")
        .Last()
        .AddOption("four", 'd', "")
        .Last()
        .AddOption("five", 'e', "");
    ParseWords(args, {"-abcde"});
    for (const char* name : {"one", "two", "three", "four", "five"}) EXPECT_TRUE(args->Has(name));
    EXPECT_THROW(ParseWords(args, {"-ac"}), kro_args::UsageError);
}

TEST(ArgsDeclaration, HasNoLevelAboveTheTop) {
    kro_args::Args args("banner");
    EXPECT_THROW(args.AddOption("one", 'a', "").Last(), std::logic_error);
}

}  // namespace
