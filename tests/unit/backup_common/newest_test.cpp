// The check whether the local info files belong to a storage.
#include <gtest/gtest.h>

#include "kro/kro_err.h"
#include "program_site.h"
#include "quarn2/token.h"
#include "quarn2_cp2_misc_newest.h"

namespace {

constexpr const char* kRoot = "root";

std::string Name(int day, const std::string& user = "web1") {
    return "2026-11-" + std::string(day < 10 ? "0" : "") + std::to_string(day) + "." + user;
}

std::string Slice(int day) { return "F" + Name(day) + ".tgz"; }

class Newest : public ProgramSite {
  protected:
    static void Know(int day) {
        Place("root/" + Name(day) + ".info", "finished=2026-11-" + Name(day).substr(8, 2) +
                                                 " 03:00:00\nlast-slice=" + Slice(day) + "\n");
    }
    static void Know(int first, int last) {
        for (int day = first; day <= last; ++day) Know(day);
    }

    void Store(const std::string& name) const { store_->SetFile(name, "x"); }

    NewestCheck Check() const { return FindNewestOnStorage(*storage_, kRoot); }

    std::shared_ptr<quarn2::Storage> storage_ =
        quarn2::GetStorage(quarn2::BackupToken("memory:site"));
};

TEST_F(Newest, TwoBackupsAreTooFewToConcludeAnything) {
    EXPECT_EQ(Check().result, NewestOnStorage::kTooFewKnown);
    Know(1, 2);
    EXPECT_EQ(Check().result, NewestOnStorage::kTooFewKnown);
    EXPECT_EQ(store_->log(), Lines());
}

TEST_F(Newest, ThreeBackupsAreEnough) {
    Know(1, 3);
    const NewestCheck check = Check();
    EXPECT_EQ(check.result, NewestOnStorage::kNoneFound);
    EXPECT_EQ(check.asked, 3U);
}

TEST_F(Newest, OneSliceIsEnough) {
    Know(1, 3);
    Store(Slice(1));
    EXPECT_EQ(Check().result, NewestOnStorage::kSomeFound);
}

TEST_F(Newest, OneInfoFileIsEnough) {
    Know(1, 3);
    Store(Name(2) + ".info");
    EXPECT_EQ(Check().result, NewestOnStorage::kSomeFound);
}

TEST_F(Newest, BackupsOfAnotherNameAreNotFound) {
    Know(1, 3);
    Store("F2026-11-01.web2.tgz");
    Store("2026-11-09.web1.info");
    EXPECT_EQ(Check().result, NewestOnStorage::kNoneFound);
}

TEST_F(Newest, OnlyTheNewestEightAreAskedFor) {
    Know(1, 9);
    Store(Slice(1));
    EXPECT_EQ(Check().asked, 8U);
    EXPECT_EQ(Check().result, NewestOnStorage::kNoneFound);
    Store(Slice(2));
    EXPECT_EQ(Check().result, NewestOnStorage::kSomeFound);
}

TEST_F(Newest, EachFileIsAskedForByName) {
    Know(1, 3);
    Store(Name(2) + ".info");
    Check();
    EXPECT_EQ(store_->log(), (Lines{"List " + Slice(3), "List " + Name(3) + ".info",
                                    "List " + Slice(2), "List " + Name(2) + ".info"}));
}

TEST_F(Newest, TheOrderIsThatOfTheTimesNotOfTheNames) {
    for (const char* user : {"a", "b", "c"}) {
        Place(std::string("root/custom.") + user + ".info",
              std::string("last-slice=C.") + user + ".tgz\nfinished=2026-11-0" +
                  (*user == 'b' ? "9" : "1") + " 03:00:00");
    }
    EXPECT_EQ(FilesOfNewest(kRoot).front(), (BackupFiles{"C.b.tgz", "custom.b.info"}));
}

TEST_F(Newest, BackupsInDirectoriesHaveTheirDirectorysName) {
    Know(1, 2);
    Place("root/web1/2026-11-03/2026-11-03.web1.info", "finished=2026-11-03 03:00:00\n");
    EXPECT_EQ(FilesOfNewest(kRoot).front(), (BackupFiles{"web1/2026-11-03/2026-11-03.web1.info"}));
}

TEST_F(Newest, WhatIsNoFinishedBackupDoesNotCount) {
    Know(1, 2);
    Place("root/" + Name(3) + ".info", "last-slice=" + Slice(3));
    Place("root/" + Name(4) + ".info",
          "deletion=2026-11-05 03:00:00\nlast-slice=" + Slice(4) + "\n");
    Place("root/" + Name(5) + ".info", std::string("finished=x\0", 11));
    EXPECT_EQ(Check().result, NewestOnStorage::kTooFewKnown);
}

TEST_F(Newest, NamesThatNoStorageCanHaveAreNotAskedFor) {
    Know(1, 2);
    for (const char* slice : {"../up.tgz", "/F.tgz", "a//b", "dir/", ".x.part~", "a\x01"}) {
        Place("root/" + Name(3) + ".info",
              std::string("finished=2026-11-03 03:00:00\nlast-slice=") + slice);
        EXPECT_EQ(FilesOfNewest(kRoot).front(), (BackupFiles{Name(3) + ".info"})) << slice;
    }
}

TEST_F(Newest, AStorageThatCannotBeAskedIsAnError) {
    Know(1, 3);
    store_->SetHook([](const std::string&, const std::string&) {
        throw kro_err::Error(kro_err::Kind::kUnavailable, "down");
    });
    EXPECT_EQ(TextOf<kro_err::Error>([&] { Check(); }), "down");
}

}  // namespace
