// The plan of a server's deletions, compared with the deletions of the server's own code.
//
// QUARN2_CP_SEED=N repeats one seed.
#include <gtest/gtest.h>

#include <cstdio>
#include <random>

#include "dice.h"
#include "program_site.h"
#include "quarn2/token.h"
#include "quarn2_cp2_event_log.h"
#include "quarn2_cp2_ledger.h"
#include "report_plan.h"
#include "report_site.h"

namespace {

constexpr const char* kDate = "2026-11-20";

// A deletion as "REASON USER DATE".
std::string LineOf(RemovalReason reason, const std::string& user, const std::string& date) {
    return std::string(NameOf(reason)) + " " + user + " " + date;
}

struct Counts {
    std::size_t deletions = 0;
    std::size_t refusals = 0;
};

class ReportPlan : public ProgramSite {
  protected:
    ReportPlan() { Empty(); }

    // Removes all backups, events and ledger entries.
    void Empty() {
        store_->Reset();
        for (const char* path : {"root", "var/quarn2_cp.events", "var/quarn2_cp.ledger"}) {
            std::filesystem::remove_all(path);
        }
        std::filesystem::create_directory("root");
        options_ = {};
        options_.mode = "plan";
        options_.path = "root";
        options_.date = kDate;
    }

    void Info(const std::string& user, const std::string& date, bool is_full, int size,
              const std::string& more = "") {
        const std::string name = date + "." + user;
        const std::string slice = (is_full ? "F" : "I") + name + ".1.dar";
        const std::string info = "finished=" + date + " 01:00:00\nlast-slice=" + slice +
                                 "\nsize=" + std::to_string(size) +
                                 "\ntype=" + (is_full ? "full" : "incremental") + more;
        Place("root/" + name + ".info", info);
        store_->SetFile(name + ".info", info);
        store_->SetFile(slice, "x");
    }

    // Creates an open ledger entry, as an interrupted job leaves it.
    void Interrupt(const std::string& archive, std::int64_t bytes) {
        Ledger("").Update(archive, [&](LedgerEntry& entry) {
            entry.started = "2026-11-18 01:00:00";
            entry.slices[archive + ".1.dar"] = {SliceState::kAbandoned, bytes, ""};
        });
    }

    ServerPlan Plan(const std::optional<PlannedUpload>& upload) {
        Site site(options_);
        ReadServerAndLedger(site);
        ScanSite(site, [](Backup&& /*backup*/) {});
        ServerPlan plan = PlanServer(site.account, upload);
        EXPECT_EQ(site.output.Finish(), 0);
        return plan;
    }

    // Adds a line for each victim. Skips the empty records of missing days, for which no server
    // writes an event.
    static void AddLines(const Victims& victims, Lines& lines) {
        for (const Victim& victim : victims) {
            if (victim.size != 0) lines.push_back(LineOf(victim.reason, victim.user, victim.date));
        }
    }

    static Lines LinesOf(const ServerPlan& plan) {
        Lines lines;
        for (const PlanStep& step : plan.steps) AddLines(step.victims, lines);
        return lines;
    }

    // Starts a server with the test's options, which counts the backups below `root`.
    GlobalSizeControl::StorageDesc& Start(GlobalSizeControl& control) {
        const ServerLimits limits = ServerLimits::Parse(options_.count_limit, options_.size_limit);
        control.path = "root";
        control.size_limit = limits.size;
        control.full_limit = limits.full;
        control.daily_limit = limits.daily;
        GlobalSizeControl::StorageDesc& desc =
            control.AddStorage(quarn2::GetStorage(quarn2::BackupToken("memory:site")));
        control.unfinished = UnfinishedBackups(OwnLedger(), "memory:site", *desc.storage);
        control.Init(kDate);
        control.FinishDeletions();
        return desc;
    }

    // Runs a server and returns the deletions that it has recorded in its events. Sets `possible`
    // to the number of steps that the server did not refuse.
    Lines Serve(const std::optional<PlannedUpload>& upload, std::size_t& possible) {
        GlobalSizeControl control;
        GlobalSizeControl::StorageDesc& desc = Start(control);
        possible = 0;
        try {
            control.FitIntoLimits();
            ++possible;
            if (upload) Upload(control, desc, *upload);
            if (upload) ++possible;
            control.DropByCount(control.full_limit, control.daily_limit);
            ++possible;
        } catch (const std::runtime_error&) {
            return DeletedEvents();
        }
        return DeletedEvents();
    }

    // Reserves and completes an upload as the server does.
    void Upload(GlobalSizeControl& control, GlobalSizeControl::StorageDesc& desc,
                const PlannedUpload& upload) {
        const std::string archive = (upload.is_full ? "F" : "I") + std::string(kDate) + "." +
                                    (upload.user.empty() ? "zz" : upload.user);
        Ledger("").Update(archive, [&](LedgerEntry& entry) {
            entry.slices[archive + ".1.dar"] = {SliceState::kUploading, 0, ""};
        });
        control.RefreshUnfinished();
        control.ReclaimUnfinished(desc, upload.bytes, false);
        const std::int64_t needed = desc.NeededFor(upload.bytes, false);
        if (needed > LessSize(desc.limit, desc.reserved) &&
            (needed == upload.bytes || !control.CanMakeRoom(desc, upload.bytes, false))) {
            throw std::runtime_error("refused");
        }
        control.MakeRoom(desc, upload.bytes);
        Ledger("").End(archive);
        if (upload.user.empty()) return;
        Info(upload.user, kDate, upload.is_full, static_cast<int>(upload.bytes));
        desc.users[upload.user].backups[kDate] = {upload.bytes, upload.is_full ? 0 : 1, false};
        desc.free_size -= upload.bytes;
    }

    static Lines DeletedEvents() {
        Lines lines;
        ReadEvents(
            kEventsPath, {},
            [&lines](const Event& event) {
                if (event.kind != EventKind::kDeleted) return;
                lines.push_back(LineOf(event.reason, event.user, event.date));
            },
            [](const BrokenLine& line) { ADD_FAILURE() << line.reason; });
        return lines;
    }

    void MakeUser(Dice& dice, const std::string& user) {
        for (int day = 1; day < 20; ++day) {
            if (!dice.OneIn(3)) continue;
            const std::string date = DateOf(day);
            const bool is_full = dice.OneIn(2);
            Info(user, date, is_full, dice.Number(1, 40), dice.OneIn(12) ? "\ndeleted=1" : "");
            if (dice.OneIn(10)) Interrupt((is_full ? "F" : "I") + date + "." + user, 5);
        }
        if (dice.OneIn(3))
            Interrupt("F2026-10-0" + std::to_string(dice.Number(1, 9)) + "." + user, 30);
    }

    static std::string DateOf(int day) {
        return std::string("2026-11-") + (day < 10 ? "0" : "") + std::to_string(day);
    }

    std::optional<PlannedUpload> MakeModel(Dice& dice) {
        Empty();
        const int users = dice.Number(1, 3);
        for (int user = 0; user < users; ++user) {
            MakeUser(dice, std::string(1, static_cast<char>('a' + user)));
        }
        if (!dice.OneIn(4)) options_.size_limit = std::to_string(dice.Number(60, 600));
        options_.count_limit =
            std::to_string(dice.Number(0, 4)) + ":" + std::to_string(dice.Number(0, 6));
        if (dice.OneIn(5)) return std::nullopt;
        return PlannedUpload{dice.Number(1, 150), dice.OneIn(2) ? "a" : "", dice.OneIn(2)};
    }

    // Compares the plan with the deletions for one random model.
    void Compare(unsigned seed, Counts& counts) {
        Dice dice(seed);
        const std::optional<PlannedUpload> upload = MakeModel(dice);
        const ServerPlan plan = Plan(upload);
        const Lines planned = LinesOf(plan);
        std::size_t possible = 0;
        EXPECT_EQ(planned, Serve(upload, possible)) << "seed " << seed;
        const bool is_possible = plan.steps.back().IsPossible();
        EXPECT_EQ(possible, plan.steps.size() - (is_possible ? 0 : 1)) << "seed " << seed;
        counts.deletions += planned.size();
        counts.refusals += is_possible ? 0 : 1;
    }

    // Compares the plan with the deletions of the single pass that a node client requests because
    // the storage is full. Returns the number of deletions.
    std::size_t CompareFullStorage(unsigned seed) {
        Dice dice(seed);
        MakeModel(dice);
        options_.size_limit
            .clear();  // with a limit, the server refuses to evict for a full storage
        options_.count_limit = "0:1000000";
        Site site(options_);
        ReadServerAndLedger(site);
        ScanSite(site, [](Backup&& /*backup*/) {});
        GlobalSizeControl control;
        Start(control);
        EXPECT_EQ(control.max_count, site.account.max_count) << "seed " << seed;
        const int keep = control.max_count - dice.Number(1, 3);
        if (keep < 0) return 0;
        Lines planned;
        AddLines(PlanDropOne(site.account, keep, FindNotComplete(site.account)).AllVictims(),
                 planned);
        control.DropOldest(keep);
        EXPECT_EQ(planned, DeletedEvents()) << "seed " << seed;
        return planned.size();
    }

    Options options_;
};

// The models of this seed always run, because they cause deletions and refusals.
constexpr unsigned kFixed = 100;
constexpr unsigned kModels = 16;

unsigned ChosenSeed() {
    const char* given = std::getenv("QUARN2_CP_SEED");
    const unsigned chosen =
        given != nullptr ? static_cast<unsigned>(std::stoul(given)) : std::random_device()();
    std::printf("seed %u\n", chosen);
    return chosen;
}

TEST_F(ReportPlan, OfRandomModelsIsWhatTheServerDoes) {
    const unsigned chosen = ChosenSeed();
    Counts counts;
    for (const unsigned seed : {kFixed, chosen}) {
        for (unsigned i = 0; i < kModels && !HasFailure(); ++i) Compare(seed + i, counts);
    }
    EXPECT_GT(counts.deletions, 50U);
    EXPECT_GT(counts.refusals, 0U);
}

// If an info file has "deleted", the account has an empty record for each following day without a
// backup. 2026-11-03 is such a day, because its repeated job was interrupted.
TEST_F(ReportPlan, TheEmptyRecordOfADayIsNotTheInterruptedBackupOfThatDay) {
    Info("a", "2026-11-01", true, 40, "\ndeleted=1");
    Info("a", "2026-11-03", false, 10);
    Interrupt("I2026-11-03.a", 5);
    options_.count_limit = "9:1";
    EXPECT_EQ(LinesOf(Plan(std::nullopt)), Lines());
    std::size_t possible = 0;
    EXPECT_EQ(Serve(std::nullopt, possible), Lines());
    EXPECT_EQ(possible, 2U);
    EXPECT_TRUE(local_files::Has("root/2026-11-03.a.info"));
}

TEST_F(ReportPlan, OfAFullStorageIsWhatTheServerDoes) {
    const unsigned chosen = ChosenSeed();
    std::size_t deletions = 0;
    for (const unsigned seed : {kFixed, chosen}) {
        for (unsigned i = 0; i < kModels && !HasFailure(); ++i) {
            deletions += CompareFullStorage(seed + i);
        }
    }
    EXPECT_GT(deletions, 10U);
}

TEST_F(ReportPlan, NamesTheMissingBytes) {
    Info("a", "2026-11-15", true, 100);
    options_.size_limit = "150";
    ServerPlan plan = Plan(PlannedUpload{51, "", false});
    ASSERT_EQ(plan.steps.size(), 2U);
    EXPECT_EQ(plan.steps[1].missing, 1);
    EXPECT_EQ(Plan(PlannedUpload{50, "", false}).steps.size(), 3U);
    options_.size_limit = "70";
    plan = Plan(std::nullopt);
    ASSERT_EQ(plan.steps.size(), 1U);
    EXPECT_EQ(plan.steps[0].missing, 30);
    ASSERT_EQ(plan.kept.size(), 1U);
    EXPECT_EQ(plan.kept[0].reason, KeepReason::kNewest);
}

TEST_F(ReportPlan, AFullBackupOfTheUserMakesItsOlderChainRemovable) {
    Info("a", "2026-11-01", true, 40);
    Info("a", "2026-11-02", false, 10);
    options_.count_limit = "1:9";
    EXPECT_EQ(LinesOf(Plan(std::nullopt)), Lines());
    EXPECT_EQ(Plan(std::nullopt).kept[0].reason, KeepReason::kNeededByDaily);
    options_.count_limit = "1:0";
    EXPECT_EQ(LinesOf(Plan(PlannedUpload{40, "a", true})),
              (Lines{"count-daily a 2026-11-02", "count-full a 2026-11-01"}));
}

TEST(ReportPlanSize, OfAUsualBackupIsTheMedianOfItsType) {
    const Backups backups = {{"2026-11-01", {100, 0, false}},
                             {"2026-11-02", {1, 1, false}},
                             {"2026-11-03", {0, 1, false}},
                             {"2026-11-04", {3, 1, false}},
                             {"2026-11-05", {900, 1, false}}};
    EXPECT_EQ(TypicalSize(backups, true), 100);
    EXPECT_EQ(TypicalSize(backups, false), 3);
    EXPECT_EQ(TypicalSize({}, true), std::nullopt);
}

}  // namespace
