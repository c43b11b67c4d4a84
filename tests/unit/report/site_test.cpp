// Limits, broken ledger entries, anonymous names and the account of a scan.
#include <gtest/gtest.h>

#include "program_site.h"
#include "report_site.h"

namespace {

Options ListOptions() {
    Options options;
    options.mode = "list";
    options.path = "root";
    options.date = "2026-11-20";
    return options;
}

TEST(ReportLimits, OptionsComeBeforeTheServer) {
    Options options;
    ServerReport server;
    KnownLimits known = ChooseLimits(options, server);
    EXPECT_FALSE(known.is_size_known || known.is_count_known);
    server.size_limit = "100";
    server.count_limit = "2:6";
    known = ChooseLimits(options, server);
    EXPECT_TRUE(known.is_size_known && known.is_count_known);
    EXPECT_EQ(known.limits.size, 100);
    EXPECT_EQ(known.limits.daily, 6);
    EXPECT_STREQ(known.source, "server");
    options.size_limit = "0";
    known = ChooseLimits(options, server);
    EXPECT_EQ(known.limits.size, ServerLimits::kNoSize);
    EXPECT_EQ(known.limits.full, 2);
    EXPECT_STREQ(known.source, "options");
}

TEST(ReportLedger, ATextWithoutFilesIsBroken) {
    const auto is_broken = [](const std::string& text) {
        return IsBroken(LedgerEntry::Parse("F2026-11-20.web1", text), text);
    };
    EXPECT_TRUE(is_broken("junk"));
    EXPECT_TRUE(is_broken("info_bytes=x\nslice-1=stored 5 a"));
    EXPECT_TRUE(is_broken("slice-1=eaten 5 a"));
    EXPECT_FALSE(is_broken(""));  // written while the disk was full
    EXPECT_FALSE(is_broken("slice-1=stored 5 a"));
    EXPECT_FALSE(is_broken("info=root/a.info"));
}

TEST(ReportNames, AreHashedWithTheKey) {
    const Names plain(false, "key");
    EXPECT_EQ(plain.User("web1") + plain.Path("a/2026-11-20.web1.info") + plain.Date("foo"),
              "web1a/2026-11-20.web1.infofoo");
    const Names hashed(true, "key");
    const std::string user = hashed.User("web1");
    EXPECT_EQ(user.size(), std::string_view("user-0123456789abcdef").size());
    EXPECT_EQ(user, Names(true, "key").User("web1"));
    EXPECT_NE(user, Names(true, "other").User("web1"));
    EXPECT_NE(user, hashed.User("web2"));
    EXPECT_EQ(hashed.Path("web1/2026-11-20/2026-11-20.web1.info"), "2026-11-20." + user + ".info");
    EXPECT_EQ(hashed.In("F2026-11-20.web1.1.dar of web1", "web1"),
              "F2026-11-20." + user + ".1.dar of " + user);
    EXPECT_EQ(hashed.Date("2026-11-20") + hashed.Date("custom"), "2026-11-20custom");
    EXPECT_EQ(hashed.Date("web1").find("web1"), std::string::npos);
    EXPECT_EQ(hashed.Path("web1.info").find("web1"), std::string::npos);
}

class ReportSite : public ProgramSite {
  protected:
    ReportSite() { std::filesystem::create_directory("root"); }

    static void Info(const std::string& name, const std::string& size, const std::string& more) {
        Place("root/" + name + ".info", "type=full\nsize=" + size + "\n" + more);
    }

    static std::string Read(Site& site) {
        std::string text;
        ReadServerAndLedger(site);
        ScanSite(site, [&](Backup&& backup) {
            text += backup.user + " " + backup.date + " " + NameOf(backup.state) + " " +
                    std::to_string(backup.size) + "\n";
        });
        return text;
    }
};

TEST_F(ReportSite, EachKindOfInfoFileHasItsState) {
    const std::string finished = "finished=2026-11-15 01:00:00";
    Info("2026-11-15.a", "10", finished);
    Info("2026-11-29.a", "20", finished);
    Info("custom.a", "30", finished);
    Info("foo", "40", finished);
    Info("2026-11-16.a", "50", "");
    Info("2026-11-17.a", "60", "deletion=2026-11-18 01:00:00");
    Info("2026-11-18.a", "much", finished);
    Ledger("").Update("F2026-11-19.a", [](LedgerEntry& entry) {
        entry.slices["F2026-11-19.a.1.dar"] = {SliceState::kStored, 70, ""};
    });
    Site site(ListOptions());
    EXPECT_EQ(Read(site),
              "a 2026-11-15 complete 10\na 2026-11-16 unfinished 50\n"
              "a 2026-11-17 deletion interrupted 60\na 2026-11-29 future 20\n"
              "a custom custom 30\n foo misnamed 40\na 2026-11-19 unfinished 70\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(site.output.Finish(), 3);
    const std::string errors = testing::internal::GetCapturedStderr();
    EXPECT_EQ(errors,
              "quarn2_report: finding: info file 'root/2026-11-18.a.info': 'much' is not a whole "
              "decimal number; a server does not start with this file: correct it, or move it away "
              "and run --rescan\n");
}

TEST_F(ReportSite, ARepeatedJobMakesABackupUnfinished) {
    Info("2026-11-15.a", "100", "last-slice=F2026-11-15.a.1.dar\nfinished=2026-11-15 01:00:00");
    Ledger("").Update("F2026-11-15.a", [](LedgerEntry& entry) {
        entry.slices["F2026-11-15.a.1.dar"] = {SliceState::kUploading, 70, ""};
    });
    Site site(ListOptions());
    EXPECT_EQ(Read(site), "a 2026-11-15 unfinished 70\n");
    // The storage may have the old files and the new ones.
    EXPECT_EQ(site.account.storages.at("").unfinished, 170);
    EXPECT_EQ(site.output.Finish(), 0);
}

TEST_F(ReportSite, AUserLimitsInfoFilesAndLedger) {
    Info("2026-11-15.a", "10", "finished=x");
    Info("2026-11-15.b", "much", "finished=x");
    Ledger("").Update("F2026-11-19.b", [](LedgerEntry& entry) {
        entry.slices["F2026-11-19.b.1.dar"] = {SliceState::kStored, 70, ""};
    });
    Options options = ListOptions();
    options.user = "a";
    Site site(options);
    EXPECT_EQ(Read(site), "a 2026-11-15 complete 10\n");
    EXPECT_EQ(site.output.Finish(), 0);
}

}  // namespace
