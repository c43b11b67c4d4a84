#include "report_check.h"

#include <algorithm>
#include <utility>

#include "kro/str.h"
#include "report_text.h"

namespace {

using Names = std::vector<std::string>;

// The first names of a long list.
std::string ListText(const Names& names) {
    constexpr std::size_t kShown = 5;
    const Names shown(names.begin(),
                      names.begin() + static_cast<std::ptrdiff_t>(std::min(names.size(), kShown)));
    std::string text = str::Join(shown, ", ");
    if (names.size() <= kShown) return text;
    return text + " and " + str::Str(names.size() - kShown) + " more";
}

void AddList(std::vector<std::string>& problems, const Names& names, const std::string& one,
             const std::string& many, const std::string& rest) {
    if (names.empty()) return;
    problems.push_back(str::Str(names.size()) + " " + (names.size() == 1 ? one : many) + " " +
                       rest + ": " + ListText(names));
}

std::vector<std::string> CriticalProblems(const CheckFacts& facts) {
    std::vector<std::string> problems;
    AddList(problems, facts.overdue, "user", "users",
            "without a complete backup in " + str::Str(facts.max_age_hours) + " hours");
    AddList(problems, facts.refused, "user", "users", "whose upload was refused or abandoned");
    AddList(problems, facts.failed_deletions, "deletion", "deletions", "failed");
    AddList(problems, facts.not_restorable, "daily backup", "daily backups",
            "without the full backup");
    return problems;
}

std::vector<std::string> Warnings(const CheckFacts& facts) {
    if (facts.min_days == 0 || !facts.depth.expected) return {};
    const int days = *facts.depth.expected;
    if (days > kWarningDays) return {};
    const std::string when = days == 0 ? "already" : "in " + str::Str(days) + " days";
    return {when + " the size limit keeps fewer than " + str::Str(facts.min_days) +
            " days of backups"};
}

// One value of the performance data: LABEL=VALUE[UNIT];WARNING;CRITICAL;MIN;MAX.
std::string Figure(const char* label, std::int64_t value, const char* unit,
                   const std::string& rest) {
    return std::string(" ") + label + "=" + str::Str(value) + unit + rest;
}

std::string Figures(const CheckFacts& facts) {
    const std::string limit = facts.limit ? ";;;0;" + str::Str(*facts.limit) : ";;;0";
    const auto count = [](const Names& names) { return static_cast<std::int64_t>(names.size()); };
    std::string text = Figure("used", facts.used, "B", limit) +
                       Figure("unfinished", facts.unfinished, "B", ";;;0");
    if (facts.reserved) text += Figure("reserved", *facts.reserved, "B", ";;;0");
    return text + Figure("users", facts.users, "", ";;;0") +
           Figure("backups", facts.backups, "", ";;;0") +
           Figure("overdue", count(facts.overdue), "", ";;0;0") +
           Figure("refused", count(facts.refused), "", ";;0;0") +
           Figure("failed_deletions", count(facts.failed_deletions), "", ";;0;0") +
           Figure("not_restorable", count(facts.not_restorable), "", ";;0;0");
}

std::string Summary(const CheckFacts& facts) {
    return str::Str(facts.users) + " users, " + str::Str(facts.backups) + " backups, " +
           SizeText(facts.used) + (facts.limit ? " of " + SizeText(*facts.limit) : "");
}

}  // namespace

CheckResult Decide(const CheckFacts& facts) {
    CheckResult result;
    const auto add = [&result](Severity severity, const std::vector<std::string>& problems) {
        if (problems.empty()) return;
        if (result.problems.empty()) result.severity = severity;
        result.problems.insert(result.problems.end(), problems.begin(), problems.end());
    };
    add(Severity::kCritical, CriticalProblems(facts));
    std::vector<std::string> unreadable;
    AddList(unreadable, facts.unreadable, "part", "parts", "of the state cannot be read");
    add(Severity::kUnknown, unreadable);
    add(Severity::kWarning, Warnings(facts));
    return result;
}

const char* NameOf(Severity severity) noexcept {
    switch (severity) {
        case Severity::kOk:
            return "OK";
        case Severity::kWarning:
            return "WARNING";
        case Severity::kCritical:
            return "CRITICAL";
        case Severity::kUnknown:
            break;
    }
    return "UNKNOWN";
}

std::string CheckLine(const CheckResult& result, const CheckFacts& facts) {
    const std::string text =
        result.problems.empty() ? Summary(facts) : str::Join(result.problems, "; ");
    std::string line = Escaped(std::string(NameOf(result.severity)) + ": " + text);
    // Monitoring systems use "|" to separate the text from the performance data.
    std::replace(line.begin(), line.end(), '|', '!');
    return line + " |" + Figures(facts);
}
