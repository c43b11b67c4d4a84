// Info files of other machines: the server fetches them when their backups are completed or
// removed.
#include <gtest/gtest.h>

#include "kro/kro_err.h"
#include "program_site.h"
#include "quarn2/token.h"
#include "quarn2_cp2_server_info.h"
#include "session_link.h"

namespace {

const std::string kText = "last-slice=F2026-11-20.web1.tgz\nsize=7\ntype=full";

class InfoFile : public ProgramSite {
  protected:
    InfoFile() : storage_(quarn2::GetStorage(quarn2::BackupToken("memory:site"))) {}

    std::string Fetch() { return FetchInfoFile(*storage_, "root", "web1", "2026-11-20"); }

    std::shared_ptr<quarn2::Storage> storage_;
};

TEST_F(InfoFile, ComesFromTheTopOfTheStorage) {
    store_->SetFile("2026-11-20.web1.info", kText);
    EXPECT_EQ(Fetch(), "root/2026-11-20.web1.info");
    EXPECT_EQ(local_files::Load("root/2026-11-20.web1.info"), kText);
}

TEST_F(InfoFile, ReplacesAnOlderCopy) {
    Place("root/2026-11-20.web1.info", "type=incremental");
    store_->SetFile("2026-11-20.web1.info", kText);
    EXPECT_EQ(Fetch(), "root/2026-11-20.web1.info");
    EXPECT_EQ(local_files::Load("root/2026-11-20.web1.info"), kText);
}

TEST_F(InfoFile, ComesFromTheBackupsDirectoryIntoOneOfTheSameName) {
    store_->SetFile("web1/2026-11-20/2026-11-20.web1.info", kText);
    EXPECT_EQ(Fetch(), "root/web1/2026-11-20/2026-11-20.web1.info");
    EXPECT_EQ(local_files::Load("root/web1/2026-11-20/2026-11-20.web1.info"), kText);
}

TEST_F(InfoFile, OneThatIsNotThereLeavesNothingHere) {
    EXPECT_EQ(Fetch(), "");
    EXPECT_EQ(Below("root"), Lines());
}

TEST_F(InfoFile, AStorageInTroubleIsAnError) {
    store_->SetHook([](const std::string&, const std::string&) {
        throw kro_err::Error(kro_err::Kind::kUnavailable, "down");
    });
    EXPECT_THROW(Fetch(), kro_err::Error);
}

// --- In a session with another machine ---

class Remote : public InfoFile {
  protected:
    Remote() {
        kro_log::Init("quarn2_cp", 5);
        control_.size_limit = 100;
        control_.path = "root";
        desc_.owner = &control_;
        desc_.storage = storage_;
        desc_.limit = desc_.free_size = 100;
        // Creates an entry, because an info root without any entry counts as missing.
        Place("root/.keep", "");
    }

    void Backup(const std::string& date) {
        store_->SetFile(date + ".web1.info",
                        "last-slice=F" + date + ".web1.tgz\nsize=40\ntype=full");
        store_->SetFile("F" + date + ".web1.tgz", "x");
    }

    GlobalSizeControl control_;
    GlobalSizeControl::StorageDesc& desc_ = control_.storages[""];
    SessionLink link_{desc_, {"ssh"}};
};

TEST_F(Remote, ACompletionBringsTheInfoFileHere) {
    Backup("2026-11-20");
    EXPECT_EQ(link_.Answer("COMPLETE web1 2026-11-20 full 40"), "OK 0");
    EXPECT_EQ(local_files::Load("root/2026-11-20.web1.info"),
              store_->files().at("2026-11-20.web1.info"));
    EXPECT_EQ(desc_.free_size, 60);
    EXPECT_EQ(Log(), Lines());
}

TEST_F(Remote, ACustomBackupsInfoFileToo) {
    store_->SetFile("custom.web1.info", "type=custom");
    EXPECT_EQ(link_.Answer("COMPLETE web1 custom custom 40"), "OK 0");
    EXPECT_TRUE(local_files::Has("root/custom.web1.info"));
}

TEST_F(Remote, ACompletionCountsWhateverBecomesOfTheInfoFile) {
    store_->SetHook([](const std::string&, const std::string&) {
        throw kro_err::Error(kro_err::Kind::kUnavailable, "down");
    });
    EXPECT_EQ(link_.Answer("COMPLETE web1 2026-11-20 full 40"), "OK 0");
    EXPECT_EQ(desc_.free_size, 60);
    EXPECT_EQ(Log(), (Lines{"4: Cant keep info file of '2026-11-20.web1'. What: down"}));
}

TEST_F(Remote, AnEvictionDeletesWhatOnlyTheStorageKnows) {
    Backup("2026-11-19");
    Backup("2026-11-20");
    for (const char* date : {"2026-11-19", "2026-11-20"}) {
        link_.Answer("COMPLETE web1 " + std::string(date) + " full 40");
        std::filesystem::remove("root/" + std::string(date) + ".web1.info");
    }
    control_.max_count = 2;
    EXPECT_EQ(link_.Answer("RESERVE 50"), "OK 1");
    EXPECT_EQ(Stored(), (Lines{"2026-11-20.web1.info", "F2026-11-20.web1.tgz"}));
    EXPECT_EQ(Log(), (Lines{"5: Evict backup 'root/2026-11-19.web1.info', size: 40"}));
    EXPECT_EQ(Below("root"), (Lines{".keep"}));
}

TEST_F(Remote, AnEvictionWaitsForAStorageInTrouble) {
    for (const char* date : {"2026-11-19", "2026-11-20"}) {
        link_.Answer("COMPLETE web1 " + std::string(date) + " full 40");
    }
    store_->SetHook([](const std::string&, const std::string&) {
        throw kro_err::Error(kro_err::Kind::kUnavailable, "down");
    });
    control_.max_count = 2;
    EXPECT_EQ(link_.Answer("RESERVE 50"), "ERR down");
    EXPECT_EQ(desc_.free_size, 20);
    EXPECT_EQ(desc_.users.at("web1").backups.size(), 2U);
}

}  // namespace
