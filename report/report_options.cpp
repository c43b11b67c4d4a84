#include "report_options.h"

#include <cstring>
#include <exception>
#include <vector>

#include "kro/kro_args.h"
#include "kro/kro_date.h"
#include "kro/kro_err.h"
#include "kro/str.h"
#include "quarn2/names.h"
#include "quarn2_cp2_misc_storage.h"
#include "quarn2_cp2_server_model.h"

namespace {

constexpr char kNoLetter = ' ';

void DeclareOptions(kro_args::Args& args) {
    const char* const mode = "mode";
    // The indentation shows the tree of options.
    // clang-format off
    args.AddOption("status", kNoLetter, "used and free space, counts, overdue users, the server").SetGroup(mode)
            .AddSuboption("max-age", kNoLetter, "hours after which a user without a new backup is overdue")
                .SetDefault(str::Str(Options::kDefaultMaxAgeHours))
            .Last()
        .AddOption("list", kNoLetter, "every backup, by user and chain").SetGroup(mode)
        .AddOption("chain", kNoLetter, "the files to restore a day, in order. Needs two arguments: USER DATE")
            .SetGroup(mode)
        .AddOption("history", kNoLetter, "the events: what was stored, completed, refused and deleted, and why")
            .SetGroup(mode)
            .AddSuboption("since", kNoLetter, "only the events from this day on").SetParam()
            .AddOption("sums", kNoLetter, "only the sums of completions, refusals and deletions, by user and reason")
            .Last()
        .AddOption("plan", kNoLetter, "which backups a server would delete, in order, and why it would keep the others")
            .SetGroup(mode)
            .AddSuboption("bytes", kNoLetter, "size of an upload for which the server makes room").SetParam()
            .AddOption("for", kNoLetter, "USER:full or USER:daily: the next backup of this user, with the usual size "
                                         "or that of --bytes").SetParam()
            .Last()
        .AddOption("check", kNoLetter, "one line and the exit status of a monitoring plugin")
            .SetGroup(mode)
            .AddSuboption("max-age", kNoLetter, "hours after which a user without a new backup is overdue")
                .SetDefault(str::Str(Options::kDefaultMaxAgeHours))
            .AddOption("min-days", kNoLetter, "number of days whose backups must fit into the size limit").SetParam()
            .Last()
        .AddOption("verify", kNoLetter, "check that the storage of BACKUP_TOKEN has the files of the backups")
            .SetGroup(mode)
            .AddSuboption("content", kNoLetter, "download and test this percentage of the backups; 1/DAYS: each backup "
                                                "on one day of so many days").SetParam()
            .AddOption("seed", kNoLetter, "repeat the random selection of an earlier --content").SetParam()
            .AddOption("orphans", kNoLetter, "search for stored files that belong to no backup")
            .Last()
        .AddOption("path", 'P', "local storage path").SetDefault(kDefaultInfoRoot)
        .AddOption("storage", 'U', "user individual storage").SetParam()
        .AddOption("size-limit", 'S', "maximum storage size to use; by default that of the running server").SetParam()
        .AddOption("count-limit", 'C', "backups to store. First - full, second - daily; by default those of the "
                                       "running server").SetParam()
        .AddOption("date", 'D', "reference date instead of today").SetParam()
        .AddOption("user", 'u', "only the backups of this user").SetParam()
        .AddOption("json", kNoLetter, "one JSON object per line")
        .AddOption("anonymous", kNoLetter, "hashes instead of the names of users");
    // clang-format on
}

[[noreturn]] void ThrowInvalid(const std::string& option, const std::string& value,
                               const std::string& expected) {
    throw kro_args::UsageError("--" + option + " '" + value + "' cannot be used: expected " +
                               expected);
}

// A number above 0. `expected` describes it.
int ParsePositive(const std::string& option, const std::string& text, const char* expected) {
    int number = 0;
    try {
        number = str::Int(text);
    } catch (const kro_err::Error&) {
        number = 0;
    }
    if (number <= 0) ThrowInvalid(option, text, expected);
    return number;
}

std::optional<std::int64_t> ParseBytes(const std::string& text) {
    if (text.empty()) return std::nullopt;
    std::int64_t bytes = -1;
    try {
        bytes = str::Int64(text);
    } catch (const kro_err::Error&) {
        bytes = -1;
    }
    if (bytes < 0) ThrowInvalid("bytes", text, "a whole number of bytes");
    return bytes;
}

// A user name may contain colons, so the last one separates the type.
void ParseFor(Options& options, const std::string& text) {
    if (text.empty()) return;
    const std::size_t colon = text.rfind(':');
    const std::string type = colon == text.npos ? "" : text.substr(colon + 1);
    if (colon == 0 || (type != "full" && type != "daily")) {
        ThrowInvalid("for", text, "USER:full or USER:daily");
    }
    options.for_user = text.substr(0, colon);
    options.is_for_full = type == "full";
}

void CheckArguments(const Options& options, const kro_args::Result& args) {
    if (options.mode.empty())
        throw kro_args::UsageError(
            "give one of --status, --list, --chain, --history, --plan, --check and --verify");
    if (!options.date.empty() && !kro_date::IsDate(options.date)) {
        ThrowInvalid("date", options.date, "YYYY-MM-DD");
    }
    if (!options.since.empty() && !kro_date::IsDate(options.since)) {
        ThrowInvalid("since", options.since, "YYYY-MM-DD");
    }
    if (!options.storage.empty() && !quarn2::IsSafeName(options.storage)) {
        ThrowInvalid("storage", options.storage, "a name without slashes");
    }
    try {
        ServerLimits::Parse(options.count_limit, options.size_limit);
    } catch (const std::exception& error) {
        throw kro_args::UsageError(error.what());
    }
    if (options.mode == "plan" && !options.user.empty()) {
        throw kro_args::UsageError("--plan needs the backups of all users; use --for USER:TYPE");
    }
    const int expected = options.mode == "chain" ? 2 : 0;
    if (args.ArgsCount() == expected) return;
    throw kro_args::UsageError("--" + options.mode +
                               (expected == 0 ? " takes no arguments" : " needs USER and DATE"));
}

// "10" is a percentage, "1/30" is a rotation of 30 days.
void ParseShare(Options& options, const std::string& text) {
    constexpr int kAll = 100;
    constexpr int kMaxDays = 366;
    constexpr std::string_view kOneOf = "1/";
    const char* const expected = "a percentage from 1 to 100, or 1/DAYS with 1 to 366 days";
    const bool is_rotation = str::StartsWith(text, kOneOf);
    const std::string number = is_rotation ? text.substr(kOneOf.size()) : text;
    constexpr std::size_t kMaxDigits = 3;
    const bool is_number = str::HasDigitsOnly(number) && number.size() <= kMaxDigits;
    const int value = is_number ? str::Int(number) : 0;
    if (value < 1 || value > (is_rotation ? kMaxDays : kAll)) {
        ThrowInvalid("content", text, expected);
    }
    (is_rotation ? options.content_days : options.content_share) = value;
}

void ParseVerifyOptions(Options& options, const kro_args::Result& args) {
    options.has_orphans = args.Has("orphans");
    if (args.Has("content")) ParseShare(options, args.Param("content"));
    if (args.Has("seed")) {
        if (options.content_days > 0) {
            throw kro_args::UsageError("--seed has no effect on --content 1/DAYS; leave it out");
        }
        const int seed = ParsePositive("seed", args.Param("seed"), "a number above 0");
        options.seed = static_cast<unsigned>(seed);
    }
}

void ParseChainArguments(Options& options, const kro_args::Result& args) {
    if (options.mode != "chain") return;
    if (!options.user.empty()) throw kro_args::UsageError("--chain takes the user as an argument");
    options.user = args.Args(0);
    options.chain_date = args.Args(1);
    if (options.user.empty()) throw kro_args::UsageError("--chain needs the name of a user");
    if (options.chain_date != "custom" && !kro_date::IsDate(options.chain_date)) {
        throw kro_args::UsageError("--chain " + options.user + " '" + options.chain_date +
                                   "': expected YYYY-MM-DD or custom");
    }
}

}  // namespace

Options ParseOptions(int argc, char** argv) {
    static char help[] = "--help";
    std::vector<char*> words(argv, argv + argc);
    for (char*& word : words) {
        if (std::strcmp(word, "-h") == 0) word = help;
    }
    kro_args::Args args(
        "Tovarn backup storage report\n"
        "Reports on the stored backups from the info files, the ledger and the events. Only "
        "--verify sends requests to the storage and needs the token; it also saves its result.\n"
        "Exit status: 0 no findings, 1 error, 2 invalid command line, 3 findings (listed on "
        "standard error). With --check: 0 ok, 1 warning, 2 critical, 3 unknown");
    DeclareOptions(args);
    args.Parse(argc, words.data());
    Options options;
    options.mode = args->Param("mode");
    options.path = GetArgPath(args->Param("path"));
    options.storage = args->Param("storage");
    options.size_limit = args->Param("size-limit");
    options.count_limit = args->Param("count-limit");
    options.date = args->Param("date");
    options.user = args->Param("user");
    ParseVerifyOptions(options, *args.GetResult());
    options.since = args->Param("since");
    options.has_only_sums = args->Has("sums");
    options.bytes = ParseBytes(args->Param("bytes"));
    ParseFor(options, args->Param("for"));
    options.is_json = args->Has("json");
    options.is_anonymous = args->Has("anonymous");
    options.max_age_hours =
        ParsePositive("max-age", args->Param("max-age"), "a number of hours above 0");
    if (args->Has("min-days")) {
        options.min_days =
            ParsePositive("min-days", args->Param("min-days"), "a number of days above 0");
    }
    CheckArguments(options, *args.GetResult());
    ParseChainArguments(options, *args.GetResult());
    return options;
}
