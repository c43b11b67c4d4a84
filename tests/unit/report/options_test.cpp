// The command line.
#include <gtest/gtest.h>

#include <vector>

#include "kro/kro_args.h"
#include "report_options.h"

namespace {

Options Parse(std::vector<std::string> words) {
    words.insert(words.begin(), "quarn2_report");
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    return ParseOptions(static_cast<int>(argv.size()), argv.data());
}

std::string Fault(const std::vector<std::string>& words) {
    try {
        Parse(words);
    } catch (const kro_args::UsageError& error) {
        return error.what();
    }
    return "(none)";
}

TEST(ReportOptions, AreParsed) {
    Options options = Parse({"--user", "web1", "--status", "--max-age", "50", "--json",
                             "--anonymous", "--date", "2026-11-20", "--path", "/a//b/", "--storage",
                             "own", "--size-limit", "9", "--count-limit", "2:6"});
    EXPECT_EQ(options.mode, "status");
    EXPECT_EQ(options.user, "web1");
    EXPECT_EQ(options.max_age_hours, 50);
    EXPECT_TRUE(options.is_json && options.is_anonymous);
    EXPECT_EQ(options.date + options.path + options.storage, "2026-11-20/a/bown");
    EXPECT_EQ(options.size_limit + " " + options.count_limit, "9 2:6");
    options = Parse({"--list"});
    EXPECT_EQ(options.mode + " " + options.path, "list var/backup/tovarn");
    EXPECT_EQ(options.max_age_hours, 26);
    EXPECT_FALSE(options.is_json || options.is_anonymous);
    options = Parse({"--chain", "web1", "custom"});
    EXPECT_EQ(options.user + " " + options.chain_date, "web1 custom");
}

TEST(ReportOptions, TheContentIsAPercentageOrARotation) {
    EXPECT_FALSE(Parse({"--verify"}).HasContent());
    EXPECT_EQ(Parse({"--verify", "--content", "10"}).content_share, 10);
    const Options options = Parse({"--verify", "--content", "1/30"});
    EXPECT_EQ(options.content_days, 30);
    EXPECT_EQ(options.content_share, 0);
    EXPECT_TRUE(options.HasContent());
}

TEST(ReportOptions, InvalidCommandLinesAreUsageErrors) {
    struct Case {
        std::vector<std::string> words;
        const char* fault;
    };
    const Case cases[] = {
        {{}, "give one of --status, --list, --chain, --history, --plan, --check and --verify"},
        {{"--list", "--status"}, "--list and --status cannot be given together"},
        {{"--list", "x"}, "--list takes no arguments"},
        {{"--chain", "web1"}, "--chain needs USER and DATE"},
        {{"--chain", "web1", "2026-13-01"},
         "--chain web1 '2026-13-01': expected YYYY-MM-DD or custom"},
        {{"--chain", "", "2026-11-01"}, "--chain needs the name of a user"},
        {{"--chain", "--user", "a", "web1", "2026-11-01"}, "--chain takes the user as an argument"},
        {{"--list", "--max-age", "3"},
         "--max-age belongs to --status and --check and must come after one of them"},
        {{"--status", "--max-age", "0"},
         "--max-age '0' cannot be used: expected a number of hours above 0"},
        {{"--status", "--date", "today"}, "--date 'today' cannot be used: expected YYYY-MM-DD"},
        {{"--status", "--storage", "a/b"},
         "--storage 'a/b' cannot be used: expected a name without slashes"},
        {{"--verify", "--content", "1/0"},
         "--content '1/0' cannot be used: expected a percentage from 1 to 100, or 1/DAYS with 1 to "
         "366 days"},
        {{"--verify", "--content", "2/30"},
         "--content '2/30' cannot be used: expected a percentage from 1 to 100, or 1/DAYS with 1 "
         "to 366 days"},
        {{"--verify", "--content", "1/30", "--seed", "3"},
         "--seed has no effect on --content 1/DAYS; leave it out"},
        {{"--status", "--size-limit", "1G"},
         "--size-limit '1G' cannot be used: expected a whole number of bytes (0 sets no limit)"},
    };
    for (const Case& one : cases) EXPECT_EQ(Fault(one.words), one.fault);
}

}  // namespace
