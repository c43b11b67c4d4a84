// The decision of --check.
#include <gtest/gtest.h>

#include <functional>

#include "report_chain.h"
#include "report_check.h"

namespace {

CheckFacts Fine() {
    CheckFacts facts;
    facts.max_age_hours = 26;
    facts.min_days = 7;
    facts.users = 2;
    facts.backups = 5;
    facts.used = 1000;
    facts.limit = 5000;
    return facts;
}

TEST(ReportCheck, DecidesByTheMostSevereProblem) {
    struct Case {
        std::function<void(CheckFacts&)> change;
        Severity severity;
        std::string line;  // without performance data
    };
    const Case cases[] = {
        {[](CheckFacts&) {}, Severity::kOk, "OK: 2 users, 5 backups, 1.00 kB of 5.00 kB"},
        {[](CheckFacts& facts) { facts.overdue = {"a"}; }, Severity::kCritical,
         "CRITICAL: 1 user without a complete backup in 26 hours: a"},
        {[](CheckFacts& facts) { facts.overdue = {"a", "b", "c", "d", "e", "f", "g"}; },
         Severity::kCritical,
         "CRITICAL: 7 users without a complete backup in 26 hours: a, b, c, d, e and 2 more"},
        {[](CheckFacts& facts) { facts.refused = {"a"}; }, Severity::kCritical,
         "CRITICAL: 1 user whose upload was refused or abandoned: a"},
        {[](CheckFacts& facts) {
             facts.failed_deletions = {"2026-11-01.a", "2026-11-02.a"};
         },
         Severity::kCritical, "CRITICAL: 2 deletions failed: 2026-11-01.a, 2026-11-02.a"},
        {[](CheckFacts& facts) { facts.not_restorable = {"2026-11-01.a"}; }, Severity::kCritical,
         "CRITICAL: 1 daily backup without the full backup: 2026-11-01.a"},
        {[](CheckFacts& facts) { facts.unreadable = {"x|y\n"}; }, Severity::kUnknown,
         "UNKNOWN: 1 part of the state cannot be read: x!y\\x0a"},
        {[](CheckFacts& facts) {
             facts.depth = {true, 30, 20, 40};
         },
         Severity::kWarning,
         "WARNING: in 30 days the size limit keeps fewer than 7 days of backups"},
        {[](CheckFacts& facts) {
             facts.depth = {true, 0, 0, 0};
         },
         Severity::kWarning, "WARNING: already the size limit keeps fewer than 7 days of backups"},
        {[](CheckFacts& facts) {
             facts.depth = {true, 31, 20, 40};
         },
         Severity::kOk, "OK: 2 users, 5 backups, 1.00 kB of 5.00 kB"},
        {[](CheckFacts& facts) {
             facts.depth = {true, 0, 0, 0};
             facts.min_days = 0;
         },
         Severity::kOk, "OK: 2 users, 5 backups, 1.00 kB of 5.00 kB"},
        {[](CheckFacts& facts) {
             facts.depth = {true, 0, 0, 0};
             facts.unreadable = {"x"};
         },
         Severity::kUnknown,
         "UNKNOWN: 1 part of the state cannot be read: x; already the size limit keeps fewer than "
         "7 days of backups"},
        {[](CheckFacts& facts) {
             facts.unreadable = {"x"};
             facts.refused = {"a"};
         },
         Severity::kCritical,
         "CRITICAL: 1 user whose upload was refused or abandoned: a; 1 part of the state cannot be "
         "read: x"},
    };
    for (const Case& one : cases) {
        CheckFacts facts = Fine();
        one.change(facts);
        const CheckResult result = Decide(facts);
        EXPECT_EQ(result.severity, one.severity) << one.line;
        const std::string line = CheckLine(result, facts);
        EXPECT_EQ(line.substr(0, line.find(" |")), one.line);
    }
}

TEST(ReportCheck, HasPerformanceData) {
    CheckFacts facts = Fine();
    const auto figures = [&] {
        const std::string line = CheckLine(Decide(facts), facts);
        return line.substr(line.find('|'));
    };
    EXPECT_EQ(figures(),
              "| used=1000B;;;0;5000 unfinished=0B;;;0 users=2;;;0 backups=5;;;0 overdue=0;;0;0 "
              "refused=0;;0;0 failed_deletions=0;;0;0 not_restorable=0;;0;0");
    facts.limit.reset();
    facts.reserved = 70;
    facts.overdue = {"a"};
    EXPECT_EQ(figures(),
              "| used=1000B;;;0 unfinished=0B;;;0 reserved=70B;;;0 users=2;;;0 backups=5;;;0 "
              "overdue=1;;0;0 refused=0;;0;0 failed_deletions=0;;0;0 not_restorable=0;;0;0");
}

// The backups of one user: "F" is a full backup, "D" a daily, "X" a daily with another base. A
// lower-case letter is a backup that is marked as deleted.
std::string Broken(const std::string& kinds) {
    std::vector<Backup> backups;
    for (std::size_t i = 0; i < kinds.size(); ++i) {
        Backup backup;
        backup.user = "a";
        backup.date = "2026-11-0" + std::to_string(i + 1);
        backup.is_full = kinds[i] == 'F' || kinds[i] == 'f';
        backup.is_marked_deleted = kinds[i] == 'f' || kinds[i] == 'd';
        if (kinds[i] == 'X') backup.base = "F2026-10-01.a.tgz";
        backups.push_back(backup);
    }
    std::string text;
    for (const UserBackups& user : GroupByUser(backups)) {
        for (const Backup& backup : NotRestorable(user)) text += backup.date.back();
    }
    return text;
}

TEST(ReportCheck, DailiesNeedTheirFullBackup) {
    EXPECT_EQ(Broken("FDDFD"), "");
    EXPECT_EQ(Broken("DDFD"), "12");
    EXPECT_EQ(Broken("FDXFX"), "35");
    EXPECT_EQ(Broken("fDd"), "2");
    EXPECT_EQ(Broken("fdd"), "");
}

}  // namespace
