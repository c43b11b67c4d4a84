// The decision of --check. The functions only process data.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "quarn2_cp2_forecast.h"

// The exit statuses of monitoring plugins.
enum class Severity { kOk = 0, kWarning = 1, kCritical = 2, kUnknown = 3 };

// The facts for the decision. Users and backups have the names that the output shows. Sizes are in
// bytes.
struct CheckFacts {
    std::vector<std::string> overdue;           // users without a complete backup in max_age_hours
    std::vector<std::string> refused;           // users whose last upload was refused or abandoned
    std::vector<std::string> failed_deletions;  // backups whose deletion has failed
    std::vector<std::string> not_restorable;    // dailies without their full backup
    std::vector<std::string> unreadable;        // why a part of the state cannot be read
    int max_age_hours = 0;
    int min_days = 0;  // 0: the depth is not checked
    Forecast depth;    // the time until the backups of min_days days exceed the size limit

    std::int64_t users = 0;
    std::int64_t backups = 0;
    std::int64_t used = 0;
    std::int64_t unfinished = 0;
    std::optional<std::int64_t> limit;
    std::optional<std::int64_t> reserved;
};

struct CheckResult {
    Severity severity = Severity::kOk;
    std::vector<std::string> problems;  // the most severe first
};

// A shortage within this number of days is a warning.
inline constexpr int kWarningDays = 30;

// Sorts the problems: critical ones, then an unreadable state, then warnings. An unreadable state
// can hide a critical problem.
CheckResult Decide(const CheckFacts& facts);

// The name of the severity in the output, such as "CRITICAL".
const char* NameOf(Severity severity) noexcept;

// The output of a monitoring plugin, escaped, without a line end: "OK: ... | used=...B;;;0;...".
std::string CheckLine(const CheckResult& result, const CheckFacts& facts);
