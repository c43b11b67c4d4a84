// What a node client that died leaves for the next one.
#include <gtest/gtest.h>

#include <future>

#include "gate.h"
#include "kro/kro_err.h"
#include "master_server.h"
#include "program_site.h"
#include "quarn2_cp2_put_marks.h"
#include "quarn2_cp2_put_node.h"

namespace {

constexpr const char* kFirst = "b/F2026-11-15.web1.1.dar";
constexpr const char* kSecond = "b/F2026-11-15.web1.2.dar";
constexpr const char* kInfo = "b/2026-11-15.web1.info";
constexpr const char* kKey = "2026-11-15.web1";
const std::string kFirstName = "F2026-11-15.web1.1.dar";
const std::string kMark = "tmp/quarn2_cp.uploads/" + kFirstName;

class Marks : public ProgramSite {
  protected:
    Marks() {
        Place(kFirst, "first");
        Place(kSecond, "second!");
        Place(kInfo, "last-slice=F2026-11-15.web1.2.dar\nsize=512\ntype=full\n");
    }

    // A client died in the middle of the first slice's upload.
    static void Die(const std::string& storage = "") {
        UploadMarks(storage).Begin(kKey, kFirstName);
    }

    std::string PutLastError(NodeSide& node) {
        return TextOf<std::runtime_error>([&] { node.Serve(std::string("PUTLAST ") + kInfo); });
    }

    kro_thread::SafeLock lock_;
    MasterServer server_{"memory:site"};
};

TEST_F(Marks, AStoredFileLeavesNone) {
    NodeSide node(lock_, server_.link());
    node.Serve(std::string("PUT ") + kFirst);
    node.Serve(std::string("PUT ") + kSecond);
    EXPECT_EQ(node.Serve(std::string("PUTLAST ") + kInfo), "OK 2026-11-15.web1.info 53");
    EXPECT_EQ(Below("tmp/quarn2_cp.uploads"), Lines());
}

TEST_F(Marks, AnUploadUnderWayHasOne) {
    Gate gate;
    store_->SetHook([&](const std::string& operation, const std::string&) {
        if (operation == "Put") gate.Pass();
    });
    NodeSide node(lock_, server_.link());
    node.Serve(std::string("PUT ") + kFirst);
    gate.WaitForArrival();
    EXPECT_TRUE(local_files::Has(kMark));
    gate.Open();
}

TEST_F(Marks, ABackupIsNotCompletedWithoutASliceThatDiedWithItsClient) {
    Die();
    NodeSide node(lock_, server_.link());
    EXPECT_EQ(node.Serve(std::string("PUT ") + kSecond), "OK F2026-11-15.web1.2.dar 7");
    EXPECT_EQ(PutLastError(node), "Failed upload");
    EXPECT_EQ(PutLastError(node), "Failed upload") << "asking again makes nothing whole";
    EXPECT_EQ(Log(3), (Lines{"3: Upload of '" + kFirstName + "' was broken off",
                             "3: Upload of '" + kFirstName + "' was broken off"}));
    for (const std::string& line : server_.lines()) EXPECT_FALSE(line.starts_with("COMPLETE"));
    node.Serve(std::string("PUT ") + kFirst);
    EXPECT_EQ(node.Serve(std::string("PUTLAST ") + kInfo), "OK 2026-11-15.web1.info 53");
    EXPECT_EQ(Below("tmp/quarn2_cp.uploads"), Lines());
}

TEST_F(Marks, OtherBackupsAreNotHeldUp) {
    UploadMarks("").Begin("2026-11-15.web2", "F2026-11-15.web2.1.dar");
    Die("alice");
    NodeSide node(lock_, server_.link());
    EXPECT_EQ(node.Serve(std::string("PUTLAST ") + kInfo), "OK 2026-11-15.web1.info 53");
}

TEST_F(Marks, AUsersOwnStorageHasItsOwn) {
    Die("alice");
    NodeSide node(lock_, server_.link(), "alice");
    EXPECT_EQ(PutLastError(node), "Failed upload");
}

TEST_F(Marks, ThoseOfAnEarlierStartOfTheMachineMeanNothing) {
    Place(kMark, std::string("an earlier boot\n") + kKey + "\n" + kFirstName);
    NodeSide node(lock_, server_.link());
    EXPECT_EQ(node.Serve(std::string("PUTLAST ") + kInfo), "OK 2026-11-15.web1.info 53");
}

TEST_F(Marks, AnUploadOfAnotherClientIsWaitedFor) {
    std::unique_ptr<UploadMark> mark = UploadMarks("").Begin(kKey, kFirstName);
    NodeSide node(lock_, server_.link());
    auto last =
        std::async(std::launch::async, [&] { return node.Serve(std::string("PUTLAST ") + kInfo); });
    EXPECT_EQ(last.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    mark->Remove();
    EXPECT_EQ(last.get(), "OK 2026-11-15.web1.info 53");
}

TEST_F(Marks, AnUploadOfAnotherClientThatFailsAfterAllIsNoticed) {
    std::unique_ptr<UploadMark> mark = UploadMarks("").Begin(kKey, kFirstName);
    NodeSide node(lock_, server_.link());
    auto last = std::async(std::launch::async, [&] { return PutLastError(node); });
    EXPECT_EQ(last.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    mark.reset();
    EXPECT_EQ(last.get(), "Failed upload");
}

TEST_F(Marks, AFailureThatNobodyWasToldOfStays) {
    store_->SetHook([](const std::string& operation, const std::string&) {
        if (operation == "Put") throw kro_err::Error(kro_err::Kind::kUnauthorized, "no");
    });
    { NodeSide(lock_, server_.link()).Serve(std::string("PUT ") + kFirst); }
    EXPECT_TRUE(local_files::Has(kMark));
}

TEST_F(Marks, AFailureThatAJobWasToldOfGoes) {
    store_->SetHook([](const std::string& operation, const std::string&) {
        if (operation == "Put") throw kro_err::Error(kro_err::Kind::kUnauthorized, "no");
    });
    NodeSide node(lock_, server_.link());
    node.Serve(std::string("PUT ") + kFirst);
    EXPECT_EQ(TextOf<std::runtime_error>([&] { node.Serve(std::string("PUT ") + kSecond); }),
              "Failed upload");
    EXPECT_FALSE(local_files::Has(kMark));
}

}  // namespace
