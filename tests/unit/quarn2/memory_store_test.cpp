// The functions that the storage in memory offers to tests.
#include <gmock/gmock.h>

#include "backends/memory/memory_backend.h"
#include "storage_site.h"

using kro_err::Kind;
using quarn2::MemoryStore;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;
using testing::Pair;

namespace {

class MemoryStoreTest : public testing::Test {
  protected:
    MemoryStoreTest() {
        store_->Reset();
        local_files::Save(source_, "12345");
    }
    static std::shared_ptr<quarn2::Storage> Open(const std::string& name) {
        quarn2::RegisterMemoryScheme();
        return quarn2::GetStorage(quarn2::BackupToken("memory:" + name));
    }

    std::shared_ptr<MemoryStore> store_ = MemoryStore::Named("a");
    std::shared_ptr<quarn2::Storage> storage_ = Open("a");
    TempDir local_;
    std::string source_ = local_ / "source";
};

TEST_F(MemoryStoreTest, IsSharedByName) {
    EXPECT_TRUE(storage_->Upload("dir/sub/file", source_));
    EXPECT_THAT(MemoryStore::Named("a")->files(), ElementsAre(Pair("dir/sub/file", "12345")));
    EXPECT_THAT(MemoryStore::Named("a")->directories(), ElementsAre("dir", "dir/sub"));
    EXPECT_EQ(store_->used(), 5);
    std::vector<std::string> names;
    Open("a")->List(names, "dir");
    EXPECT_THAT(names, ElementsAre("sub"));
    Open("b")->List(names, "");
    EXPECT_THAT(names, IsEmpty());
}

TEST_F(MemoryStoreTest, CapacityCountsAllFiles) {
    store_->SetCapacity(9);
    EXPECT_TRUE(storage_->Upload("a", source_));
    EXPECT_TRUE(storage_->Upload("a", source_)) << "what is replaced does not count";
    EXPECT_FALSE(storage_->Upload("dir/b", source_));
    EXPECT_THAT(store_->directories(), IsEmpty());
    storage_->RemoveFile("a");
    EXPECT_TRUE(storage_->Upload("dir/b", source_));
}

TEST_F(MemoryStoreTest, HookFailsOperationsAndMayLookAtTheStore) {
    store_->SetHook([this](const std::string& operation, const std::string& name) {
        if (operation == "Put" && store_->files().size() == 1) {
            throw kro_err::Error(Kind::kUnavailable, "no connection for " + name);
        }
    });
    EXPECT_TRUE(storage_->Upload("a", source_));
    EXPECT_THAT(KindOf([&] { storage_->Upload("b", source_); }), Optional(Kind::kUnavailable));
    EXPECT_EQ(store_->files().size(), 1U);
}

TEST_F(MemoryStoreTest, LogsEveryOperationInOrder) {
    std::vector<std::string> names;
    store_->SetFile("dir/x", "content");
    EXPECT_TRUE(storage_->Upload("a", source_));
    storage_->Download("dir/x", local_ / "target");
    storage_->List(names, "");
    storage_->RemoveFile("a");
    storage_->RemoveDir("dir");
    storage_->MkDir("b/c");
    storage_->Clear();
    EXPECT_THAT(store_->log(), ElementsAre("Put a", "Get dir/x", "List", "Remove a",
                                           "RemoveDir dir", "MakeDir b/c", "Clear"));
    EXPECT_EQ(local_files::Load(local_ / "target"), "content");
    store_->ClearLog();
    EXPECT_THAT(store_->log(), IsEmpty());
}

}  // namespace
