// The log lines that storage operations write for the operator.
#include "storage/logging_backend.h"

#include <gmock/gmock.h>

#include <regex>

#include "backends/memory/memory_backend.h"
#include "kro/kro_log.h"
#include "quarn2/storage.h"
#include "quarn2_backend/registry.h"
#include "storage_site.h"

namespace {

using kro_err::Error;
using kro_err::Kind;
using testing::ElementsAre;
using testing::IsEmpty;

class LoggingBackend : public testing::Test {
  protected:
    LoggingBackend() {
        quarn2::RegisterMemoryScheme();
        store_->Reset();
        const quarn2::BackupToken token("memory:logged");
        backend_ = quarn2::Logged(quarn2::FindScheme("memory")->open(token));
        std::filesystem::create_directory(directory_ / "var");
        std::filesystem::current_path(directory_.path());
        kro_log::Init("prog", 8);
    }
    ~LoggingBackend() override {
        kro_log::Close();
        std::filesystem::current_path("/");
    }

    // Returns the log lines without the part before the level, and with "N" in place of durations.
    std::vector<std::string> Lines() const {
        std::vector<std::string> lines;
        std::istringstream log(local_files::Load(directory_ / "var/prog.log"));
        for (std::string line; std::getline(log, line);) {
            line = line.substr(line.find("prog ") + 5);
            lines.push_back(std::regex_replace(line, std::regex("[0-9]+ ms"), "N ms"));
        }
        return lines;
    }

    void Fail(Kind kind, const char* text) {
        store_->SetHook(
            [kind, text](const std::string&, const std::string&) { throw Error(kind, text); });
    }

    TempDir directory_;
    std::shared_ptr<quarn2::MemoryStore> store_ = quarn2::MemoryStore::Named("logged");
    std::unique_ptr<quarn2::StorageBackend> backend_;
};

struct IgnoringSink final : quarn2::ByteSink {
    void Write(std::span<const std::byte> bytes) override { count += bytes.size(); }
    std::size_t count = 0;
};

TEST_F(LoggingBackend, EveryOperationLeavesALineWithWhatItDid) {
    TextSource source("12345");
    IgnoringSink sink;
    EXPECT_TRUE(backend_->Put("user/2026-11-20/file", source));
    backend_->Get("user/2026-11-20/file", sink);
    EXPECT_EQ(sink.count, 5U);
    backend_->MakeDir("dir");
    EXPECT_EQ(backend_->List("").size(), 2U);
    EXPECT_EQ(backend_->List("user").size(), 1U);
    EXPECT_EQ(backend_->ListSizes("user").size(), 1U);
    EXPECT_FALSE(backend_->ListAllFiles());
    backend_->Remove("user/2026-11-20/file");
    backend_->RemoveDir("user");
    backend_->Clear();
    EXPECT_THAT(
        Lines(),
        ElementsAre("storage 8: Put 'user/2026-11-20/file', 5 bytes: stored in N ms",
                    "storage 8: Get 'user/2026-11-20/file': 5 bytes in N ms",
                    "storage 8: Create directory 'dir': done in N ms",
                    "storage 8: List '': 2 names in N ms", "storage 8: List 'user': 1 name in N ms",
                    "storage 8: List 'user' with sizes: 1 name in N ms",
                    "storage 8: List all files: not possible with one listing in N ms",
                    "storage 8: Remove 'user/2026-11-20/file': done in N ms",
                    "storage 8: Remove directory 'user': done in N ms",
                    "storage 8: Clear: done in N ms"));
}

TEST_F(LoggingBackend, AFullStorageIsToldApartFromAFailure) {
    TextSource source("1");
    store_->SetCapacity(0);
    EXPECT_FALSE(backend_->Put("file", source));
    EXPECT_THAT(Lines(), ElementsAre("storage 8: Put 'file', 1 byte: storage full in N ms"));
}

TEST_F(LoggingBackend, AFailureIsToldWithItsKindAndThrownOn) {
    TextSource source("1");
    Fail(Kind::kUnavailable, "the line is cut");
    EXPECT_EQ(KindOf([&] { backend_->Put("file", source); }), Kind::kUnavailable);
    EXPECT_EQ(KindOf([&] { backend_->List(""); }), Kind::kUnavailable);
    EXPECT_THAT(
        Lines(),
        ElementsAre("storage 8: Put 'file', 1 byte: unavailable after N ms: the line is cut",
                    "storage 8: List '': unavailable after N ms: the line is cut"));
}

TEST_F(LoggingBackend, AStorageIsLoggedOnlyWhereSomebodyReadsThatLevel) {
    const auto storage = quarn2::GetStorage(quarn2::BackupToken("memory:logged"));
    storage->MkDir("seen");
    EXPECT_THAT(Lines(), ElementsAre("storage 8: Create directory 'seen': done in N ms"));
    kro_log::Close();
    kro_log::Init("quiet", 7);
    quarn2::GetStorage(quarn2::BackupToken("memory:logged"))->MkDir("unseen");
    EXPECT_FALSE(local_files::Has(directory_ / "var/quiet.log"));
}

}  // namespace
