// How the report determines the state of the server.
#include <gtest/gtest.h>

#include "report_server.h"

namespace {

ServerFacts Running() {
    ServerFacts facts;
    facts.holder = 77;
    facts.is_locked = true;
    facts.pid_file = PidFile::Parse("77\n2026-11-20\nthe-key\n5000\n2:6\nnode2");
    facts.pid_file_time = "2026-11-20 01:00:00";
    facts.state = {{"pid", "77"},
                   {"key", "the-key"},
                   {"storage", "local:///srv"},
                   {"time", "2026-11-20 01:00:01"}};
    return facts;
}

TEST(ReportServer, AReadyServerIsShown) {
    const ServerReport report = Conclude(Running());
    EXPECT_EQ(report.status, ServerStatus::kRuns);
    EXPECT_EQ(report.pid, "77");
    EXPECT_EQ(report.since, "2026-11-20 01:00:00");
    EXPECT_EQ(report.date, "2026-11-20");
    EXPECT_EQ(report.storage, "local:///srv");
    EXPECT_EQ(report.size_limit, "5000");
    EXPECT_EQ(report.count_limit, "2:6");
    EXPECT_EQ(report.reserved, std::nullopt);
    EXPECT_EQ(report.stale, "");
}

TEST(ReportServer, AReservationIsShownIfTheStateFileHasIt) {
    ServerFacts facts = Running();
    facts.state["reserved"] = "123";
    EXPECT_EQ(Conclude(facts).reserved, 123);
    facts.state["reserved"] = "much";
    EXPECT_EQ(Conclude(facts).reserved, std::nullopt);
}

TEST(ReportServer, AStateFileWithoutItsServerIsStale) {
    const std::string stale = "of process 77, written 2026-11-20 01:00:01, for local:///srv";
    ServerFacts dead = Running();
    dead.holder.reset();
    dead.is_locked = false;
    ServerReport report = Conclude(dead);
    EXPECT_EQ(report.status, ServerStatus::kNone);
    EXPECT_EQ(report.stale, stale);
    EXPECT_EQ(report.storage + report.pid + report.size_limit, "");

    ServerFacts another = Running();
    another.holder = 78;
    another.pid_file = PidFile::Parse("78\n2026-11-21\nother-key\n\n\n");
    report = Conclude(another);
    EXPECT_EQ(report.status, ServerStatus::kRuns);
    EXPECT_EQ(report.stale, stale);
    EXPECT_EQ(report.storage, "");
}

TEST(ReportServer, AServerThatStartsOrEndsIsNotReady) {
    ServerFacts starting = Running();
    starting.holder.reset();
    EXPECT_EQ(Conclude(starting).status, ServerStatus::kChanging);
    ServerFacts ending = Running();
    ending.pid_file = {};
    EXPECT_EQ(Conclude(ending).status, ServerStatus::kChanging);
    EXPECT_EQ(Conclude({}).status, ServerStatus::kNone);
}

}  // namespace
