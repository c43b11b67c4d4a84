// The limit of bytes per second, with a clock that advances only during sleeps and stalls.
#include "storage/rate_limit.h"

#include <gmock/gmock.h>

#include <numeric>
#include <utility>

#include "backends/memory/memory_backend.h"
#include "fake_clock.h"
#include "quarn2_backend/registry.h"
#include "storage_site.h"

namespace {

constexpr std::int64_t kRate = 1000000;
constexpr std::size_t kHalfASecond = kRate / 2;

int Slept() {
    const std::vector<int> sleeps = fake_clock::Sleeps();
    return std::accumulate(sleeps.begin(), sleeps.end(), 0);
}

class RateLimit : public testing::Test {
  protected:
    RateLimit() {
        fake_clock::Reset();
        quarn2::RegisterMemoryScheme();
        store_->Reset();
    }
    ~RateLimit() override { fake_clock::Reset(); }

    static std::unique_ptr<quarn2::StorageBackend> Limited(std::int64_t rate) {
        return quarn2::RateLimited(
            quarn2::FindScheme("memory")->open(quarn2::BackupToken("memory:slow")), rate);
    }

    std::shared_ptr<quarn2::MemoryStore> store_ = quarn2::MemoryStore::Named("slow");
};

struct TextSink final : quarn2::ByteSink {
    void Expect(std::int64_t size) override { expected = size; }
    void Write(std::span<const std::byte> bytes) override {
        text.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        ++writes;
        fake_clock::Pass(std::exchange(stall, 0));
    }
    std::string text;
    std::int64_t expected = -1;
    int writes = 0;
    int stall = 0;
};

// Sleeps are whole milliseconds, so the sum may be one millisecond short.
void ExpectSlept(int milliseconds) {
    EXPECT_LE(Slept(), milliseconds);
    EXPECT_GE(Slept(), milliseconds - 1);
}

TEST_F(RateLimit, AnUploadTakesItsBytesByTheRate) {
    TextSource source(local_files::Noise(kHalfASecond));
    EXPECT_TRUE(Limited(kRate)->Put("file", source));
    ExpectSlept(500);
    EXPECT_TRUE(store_->files()["file"] == local_files::Noise(kHalfASecond));
}

TEST_F(RateLimit, ADownloadTakesItsBytesByTheRate) {
    store_->SetFile("file", local_files::Noise(kHalfASecond));
    TextSink sink;
    Limited(kRate)->Get("file", sink);
    ExpectSlept(500);
    EXPECT_TRUE(sink.text == local_files::Noise(kHalfASecond));
    EXPECT_EQ(sink.writes, 5) << "in even pieces";
}

TEST_F(RateLimit, NoSingleSleepIsLongerThanAPiece) {
    store_->SetFile("file", local_files::Noise(kHalfASecond));
    TextSink sink;
    Limited(kRate)->Get("file", sink);
    // The rest of a millisecond is added to the next sleep.
    EXPECT_THAT(fake_clock::Sleeps(), testing::Each(testing::Le(101)));
    EXPECT_THAT(fake_clock::Sleeps(), testing::Not(testing::IsEmpty()));
}

TEST_F(RateLimit, ARateBelowTenBytesGoesByteByByte) {
    store_->SetFile("file", "ab");
    TextSink sink;
    Limited(9)->Get("file", sink);
    EXPECT_EQ(sink.text, "ab");
    EXPECT_EQ(sink.writes, 2);
    ExpectSlept(222);
}

// The transfer must not make up for a stall of 1.5 seconds at full speed: the pieces after it keep
// the rate.
TEST_F(RateLimit, AStallIsNotMadeUpFor) {
    store_->SetFile("file", local_files::Noise(kHalfASecond));
    TextSink sink;
    sink.stall = 1500;
    Limited(kRate)->Get("file", sink);
    ExpectSlept(400);
}

TEST_F(RateLimit, AnEmptyFileCostsNoTime) {
    TextSource source("");
    EXPECT_TRUE(Limited(1)->Put("file", source));
    TextSink sink;
    Limited(1)->Get("file", sink);
    EXPECT_THAT(fake_clock::Sleeps(), testing::IsEmpty());
}

TEST_F(RateLimit, ASourceThatChangesIsStillFoundOut) {
    TextSource source("text");
    source.changed = true;
    EXPECT_EQ(KindOf([&] { Limited(kRate)->Put("file", source); }), kro_err::Kind::kFailed);
}

TEST_F(RateLimit, OfATokenIsKept) {
    const TempDir local;
    local_files::Save(local / "source", local_files::Noise(kHalfASecond));
    const auto storage = quarn2::GetStorage(quarn2::BackupToken("memory:slow?limit_rate=1000000"));
    EXPECT_TRUE(storage->Upload("file", local / "source"));
    ExpectSlept(500);
}

TEST_F(RateLimit, ZeroInATokenIsNoLimit) {
    const TempDir local;
    local_files::Save(local / "source", local_files::Noise(kHalfASecond));
    const auto storage = quarn2::GetStorage(quarn2::BackupToken("memory:slow?limit_rate=0"));
    EXPECT_TRUE(storage->Upload("file", local / "source"));
    EXPECT_THAT(fake_clock::Sleeps(), testing::IsEmpty());
}

}  // namespace
