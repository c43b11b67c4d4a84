// The events that deletions and abandoned uploads write.
#include <gmock/gmock.h>

#include "kro/kro_err.h"
#include "master_server.h"
#include "program_site.h"
#include "quarn2/token.h"
#include "quarn2_cp2_event_log.h"
#include "quarn2_cp2_misc_cleanup.h"
#include "quarn2_cp2_misc_delete.h"
#include "quarn2_cp2_put_node.h"
#include "quarn2_cp2_server_plan.h"

namespace {

using testing::ElementsAre;

// The events as "EVENT REASON USER DATE".
Lines Events() {
    Lines lines;
    ReadEvents(
        kEventsPath, {},
        [&](const Event& event) {
            const std::string line = FormatEvent(event);
            const std::size_t begin = line.find("\"event\":\"") + 9;
            lines.push_back(line.substr(begin, line.find('"', begin) - begin) + " " +
                            NameOf(event.reason) + " " + event.user + " " + event.date);
        },
        [](const BrokenLine& line) { ADD_FAILURE() << line.reason; });
    return lines;
}

std::vector<Event> AllEvents() {
    std::vector<Event> events;
    ReadEvents(
        kEventsPath, {}, [&](const Event& event) { events.push_back(event); },
        [](const BrokenLine& line) { ADD_FAILURE() << line.reason; });
    return events;
}

class ServerEvents : public ProgramSite {
  protected:
    ServerEvents() {
        control_.path = "root";
        control_.size_limit = 1000;
        desc_ = &control_.AddStorage(quarn2::GetStorage(quarn2::BackupToken("memory:site")));
    }

    void Backup(const std::string& user, const std::string& date, const std::string& more = "") {
        const std::string name = date + "." + user;
        const std::string info = "finished=" + date + " 01:00:00\nlast-slice=F" + name +
                                 ".tgz\nsize=100\ntype=full" + more;
        Place("root/" + name + ".info", info);
        store_->SetFile(name + ".info", info);
        store_->SetFile("F" + name + ".tgz", "x");
    }

    void Weeks() {
        for (const char* user : {"web1", "web2"}) {
            for (const char* date : {"2026-11-01", "2026-11-08", "2026-11-15"}) Backup(user, date);
        }
        control_.Init("2026-11-20");
    }

    GlobalSizeControl control_;
    GlobalSizeControl::StorageDesc* desc_ = nullptr;
};

TEST_F(ServerEvents, OfAnEvictionSeriesFollowThePlan) {
    Weeks();
    const EvictionPlan plan = PlanRoom(control_, control_.storages.begin()->first, 700, {});
    Lines expected;
    for (const Victim& victim : plan.AllVictims()) {
        const std::string rest =
            std::string(NameOf(victim.reason)) + " " + victim.user + " " + victim.date;
        expected.push_back("deletion-begun " + rest);
        expected.push_back("deleted " + rest);
    }
    ASSERT_GT(expected.size(), 4U);
    control_.MakeRoom(*desc_, 700);
    EXPECT_EQ(Events(), expected);
    const Event last = AllEvents().back();
    EXPECT_EQ(last.used, control_.MaxUsedSize());
    EXPECT_EQ(last.limit, 1000);
    EXPECT_EQ(last.size, 100);
    EXPECT_EQ(last.type, "full");
}

TEST_F(ServerEvents, OfADeletionThatFailsAndIsFinishedLater) {
    Weeks();
    const std::string marked = "web1 2026-11-01";
    const std::string slice = "F2026-11-01.web1.tgz";
    store_->SetHook([&](const std::string& /*operation*/, const std::string& name) {
        if (name == "2026-11-01.web1.info" && !store_->files().contains(slice)) {
            throw kro_err::Error(kro_err::Kind::kUnavailable, "no answer");
        }
    });
    EXPECT_EQ(TextOf<kro_err::Error>([&] { control_.MakeRoom(*desc_, 450); }), "no answer");
    EXPECT_THAT(Events(), ElementsAre("deletion-begun size-reserve " + marked,
                                      "deletion-failed size-reserve " + marked));
    EXPECT_EQ(AllEvents().back().detail, "no answer");
    store_->SetHook({});
    control_.Init("2026-11-20");
    control_.FinishDeletions();
    EXPECT_THAT(Events(),
                ElementsAre("deletion-begun size-reserve " + marked,
                            "deletion-failed size-reserve " + marked, "deleted resumed " + marked));
}

TEST_F(ServerEvents, OfAFullBackupAndItsDaily) {
    Backup("web1", "2026-11-15");
    Backup("web1", "2026-11-16", "\nbase=F2026-11-15.web1.tgz");
    setenv("BACKUP_STORAGE", "site", 1);
    DeleteWithDepends(desc_->storage, "root/2026-11-15.web1.info", true);
    EXPECT_THAT(
        Events(),
        ElementsAre("deletion-begun dependant web1 2026-11-16", "deleted dependant web1 2026-11-16",
                    "deletion-begun asked web1 2026-11-15", "deleted asked web1 2026-11-15"));
    for (const Event& event : AllEvents()) EXPECT_EQ(event.storage, "site");
}

TEST_F(ServerEvents, OfTheListOfIncompleteBackups) {
    const std::string list = "root/.cleanup";
    Place(list,
          "memory:site\t2026-11-15.web1\ngopher://h/p\t2026-11-16.web2\n"
          "memory:site\t2026-11-17.web3.1.dar\n");
    store_->SetFile("F2026-11-15.web1.tgz", "x");
    CleanUp("root");
    EXPECT_THAT(Events(), ElementsAre("deleted incomplete web1 2026-11-15",
                                      "deletion-failed incomplete web2 2026-11-16",
                                      "deleted incomplete web3 2026-11-17"));
    EXPECT_NE(AllEvents()[1].detail, "");
    EXPECT_EQ(AllEvents()[1].detail.find("\t"), std::string::npos) << "not the line of the list";
}

TEST_F(ServerEvents, OfAnAbandonedUpload) {
    const std::string slice = "b/F2026-11-15.web1.1.dar";
    Place(slice, "12345");
    MasterServer server("memory:site");
    store_->SetHook([](const std::string& operation, const std::string& /*name*/) {
        if (operation == "Put") throw kro_err::Error(kro_err::Kind::kUnavailable, "no answer");
    });
    kro_thread::SafeLock lock;
    NodeSide node(lock, server.link());
    EXPECT_EQ(TextOf<std::runtime_error>([&] { node.Serve("PUTLAST " + slice); }), "Failed upload");
    EXPECT_THAT(Events(), ElementsAre("abandoned  web1 2026-11-15"));
    const Event event = AllEvents().front();
    EXPECT_EQ(event.detail, "F2026-11-15.web1.1.dar: no answer");
    EXPECT_EQ(event.size, 5);
}

TEST_F(ServerEvents, AreNotNeededForADeletion) {
    Backup("web1", "2026-11-15");
    std::filesystem::create_directory(kEventsPath);
    Delete(desc_->storage, "root/2026-11-15.web1.info", false);
    EXPECT_THAT(Stored(), ElementsAre());
}

}  // namespace
