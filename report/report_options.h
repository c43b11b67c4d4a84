// The command line of quarn2_report.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

// The options that all modes share, and those of single modes.
struct Options {
    static constexpr int kDefaultMaxAgeHours = 26;

    std::string mode;         // the name of the mode's option, such as "status"
    std::string path;         // the info root
    std::string storage;      // empty: the common storage
    std::string size_limit;   // empty when the option was not given
    std::string count_limit;  // empty when the option was not given
    std::string date;         // the reference date; empty when the option was not given
    std::string user;         // empty: all users
    bool is_json = false;
    bool is_anonymous = false;
    int max_age_hours = kDefaultMaxAgeHours;
    int min_days = 0;   // the minimum number of days that the limit must keep (--check); 0: none
    std::string since;  // the first local day of --history; empty: all days
    bool has_only_sums = false;         // --history shows the sums instead of the events
    std::optional<std::int64_t> bytes;  // the size of the upload of --plan
    std::string for_user;               // the user of the planned backup; empty: none
    bool is_for_full = false;           // the planned backup is a full one
    int content_share = 0;              // per cent of the backups whose content --verify downloads
    int content_days = 0;  // --verify downloads each backup once in this number of days; 0: never
    bool has_orphans = false;      // --verify looks for files that no info file names
    std::optional<unsigned> seed;  // the seed of the random choice for content_share
    std::string chain_date;        // the day to restore; "custom" for the custom backup

    // True when --verify checks the content of backups.
    bool HasContent() const noexcept { return content_share > 0 || content_days > 0; }
};

// Throws kro_args::UsageError for an invalid command line, and kro_args::EarlyExit after --help or
// --version.
Options ParseOptions(int argc, char** argv);
