// Features of S3 only: uploads in parts, and keys of other programs.
#include <gmock/gmock.h>

#include <chrono>
#include <functional>
#include <thread>

#include "backends/s3/directory.h"
#include "backends/s3/parts_upload.h"
#include "backends/s3/service.h"
#include "backends/s3/unfinished.h"
#include "quarn2_backend/registry.h"
#include "s3_site.h"

namespace {

using kro_err::Kind;
using namespace quarn2::s3;  // NOLINT(google-build-using-namespace): the unit under test
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;
using Names = std::vector<std::string>;

constexpr std::size_t kSeveralParts = 40 * 1024 * 1024 + 1;

// Counts the bytes that are read. Calls `action` once, before the first read in the second half.
class WatchedSource final : public TextSource {
  public:
    using TextSource::TextSource;

    std::size_t ReadAt(std::int64_t offset, std::span<std::byte> buffer) override {
        if (action && offset >= size() / 2) std::exchange(action, nullptr)();
        const std::size_t got = TextSource::ReadAt(offset, buffer);
        in_order = in_order && offset == read;
        read += static_cast<std::int64_t>(got);
        return got;
    }

    std::function<void()> action;
    std::int64_t read = 0;
    bool in_order = true;
};

// Stores all bytes. Sleeps for the duration `nap` before each write.
struct TextSink final : quarn2::ByteSink {
    void Write(std::span<const std::byte> bytes) override {
        if (nap.count() > 0) std::this_thread::sleep_for(nap);
        text.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    }
    std::string text;
    std::chrono::milliseconds nap{0};
};

class S3Parts : public testing::Test {
  protected:
    static std::unique_ptr<quarn2::StorageBackend> OpenBackend(const quarn2::BackupToken& token) {
        return quarn2::FindScheme(token.scheme())->open(token);
    }

    std::string Get(const std::string& name) {
        TextSink sink;
        backend_->Get(name, sink);
        return sink.text;
    }

    // Sends one request for each key below the prefix, several at once.
    void ForEachKey(const Names& keys, const std::function<Call(const std::string&)>& make) {
        constexpr std::size_t kAtOnce = 8;
        for (const std::string& key : keys) {
            while (service_.client().running() >= kAtOnce) service_.client().Wait();
            service_.client().Start(service_.Signed(make(service_.address().prefix + key)),
                                    [key](const quarn2::net::HttpResult& result) {
                                        EXPECT_TRUE(!result.error && result.reply.IsSuccess())
                                            << key;
                                    });
        }
        while (service_.client().running() > 0) service_.client().Wait();
    }

    void PutKeys(const Names& keys) {
        ForEachKey(keys, [](const std::string& key) {
            Call call;
            call.method = "PUT";
            call.key = key;
            SetBody(call, "x");
            return call;
        });
    }

    std::size_t AbortAllAsAStranger() {
        Unfinished unfinished(service_);
        const Uploads page =
            unfinished.PageOf(service_.Ask(unfinished.PageCall(service_.address().prefix, {})));
        for (const UnfinishedUpload& upload : page.uploads)
            EXPECT_TRUE(TryToAbort(service_, upload));
        return page.uploads.size();
    }

    S3Site site_;
    quarn2::BackupToken token_{site_.Token()};
    std::unique_ptr<quarn2::StorageBackend> backend_ = OpenBackend(token_);
    Service service_{token_};
};

TEST_F(S3Parts, AreReadOnceAndInOrder) {
    WatchedSource source(local_files::Noise(kSeveralParts));
    EXPECT_TRUE(backend_->Put("file", source));
    EXPECT_EQ(source.read, source.size());
    EXPECT_TRUE(source.in_order);
    EXPECT_TRUE(Get("file") == local_files::Noise(kSeveralParts));
}

// With a slow sink, all running range requests of a download end at the same time.
TEST_F(S3Parts, AreAllFetchedForASlowSink) {
    TextSource source(local_files::Noise(kSeveralParts));
    ASSERT_TRUE(backend_->Put("file", source));
    TextSink sink;
    sink.nap = std::chrono::milliseconds(1);
    backend_->Get("file", sink);
    EXPECT_TRUE(sink.text == local_files::Noise(kSeveralParts));
}

TEST_F(S3Parts, AreSentWithoutBeingHeldWhenTheyAreTooLarge) {
    WatchedSource source(local_files::Noise(kSeveralParts));
    Unfinished unfinished(service_);
    PartsUpload upload(service_, unfinished, "cannot store 'file'");
    const Plan plan{.part_size = 15 * kMiB, .in_memory = 0};
    EXPECT_EQ(upload.Run(service_.KeyOf("file"), source, plan), PartsUpload::Outcome::kStored);
    EXPECT_EQ(source.read, 2 * source.size());
    EXPECT_TRUE(Get("file") == local_files::Noise(kSeveralParts));
}

TEST_F(S3Parts, AreBegunAnewWhenSomebodyAbortsThem) {
    WatchedSource source(local_files::Noise(kSeveralParts));
    std::size_t aborted = 0;
    source.action = [&] { aborted = AbortAllAsAStranger(); };
    EXPECT_TRUE(backend_->Put("file", source));
    EXPECT_EQ(aborted, 1U);
    EXPECT_GT(source.read, source.size());
    EXPECT_TRUE(Get("file") == local_files::Noise(kSeveralParts));
    EXPECT_THAT(site_.Everything(), ElementsAre("file"));
}

TEST_F(S3Parts, OfAnotherObjectAreNotTakenForLeftovers) {
    WatchedSource source(local_files::Noise(kSeveralParts));
    source.action = [&] {
        const auto other = OpenBackend(token_);
        TextSource small("small");
        EXPECT_TRUE(other->Put("file", small));
        TextSource large(local_files::Noise(kSeveralParts, 2));
        EXPECT_TRUE(other->Put("file", large));
        other->Remove("file");
    };
    EXPECT_TRUE(backend_->Put("file", source));
    EXPECT_EQ(source.read, source.size());
    EXPECT_TRUE(Get("file") == local_files::Noise(kSeveralParts));
}

TEST_F(S3Parts, LeaveNothingWhenTheSourceChanges) {
    WatchedSource source(local_files::Noise(kSeveralParts));
    source.changed = true;
    EXPECT_THAT(KindOf([&] { backend_->Put("file", source); }), Optional(Kind::kFailed));
    EXPECT_THAT(site_.Everything(), IsEmpty());
    source.changed = false;
    source.fail_from = 30 * 1024 * 1024;
    EXPECT_THAT(KindOf([&] { backend_->Put("file", source); }), Optional(Kind::kFailed));
    EXPECT_THAT(site_.Everything(), IsEmpty());
}

TEST_F(S3Parts, LeaveNothingWhenThereIsNoRoom) {
    TextSource old("old");
    ASSERT_TRUE(backend_->Put("file", old));
    ASSERT_TRUE(site_.LimitRoom(20 * 1024 * 1024));
    // The gateway counts a part only after its arrival. The upload therefore needs more parts than
    // it sends at once.
    TextSource source(local_files::Noise(3 * kSeveralParts));
    EXPECT_FALSE(backend_->Put("file", source));
    EXPECT_EQ(Get("file"), "old");
    EXPECT_THAT(site_.Everything(), ElementsAre("file"));
}

TEST_F(S3Parts, LeftByThousandsAreAllFound) {
    constexpr int kMoreThanAPage = 1005;
    Names keys;
    for (int i = 0; i < kMoreThanAPage; ++i) keys.push_back("a b+" + std::to_string(i));
    ForEachKey(keys, [this](const std::string& key) {
        Call call = CreationCall(service_, "POST", key);
        call.query = {{"uploads", ""}};
        return call;
    });
    backend_->Clear();
    EXPECT_THAT(site_.Everything(), IsEmpty());
}

TEST_F(S3Parts, AreRefusedForFilesThatNoServerTakes) {
    struct Endless final : quarn2::ByteSource {
        std::int64_t size() const override { return 6LL << 40U; }
        std::size_t ReadAt(std::int64_t, std::span<std::byte>) override {
            ADD_FAILURE() << "read in vain";
            return 0;
        }
        void CheckUnchanged() override {}
    } source;
    EXPECT_THAT(KindOf([&] { backend_->Put("file", source); }), Optional(Kind::kFailed));
}

// --- Keys of other programs ---

TEST_F(S3Parts, ForeignKeysAreNotShownButGo) {
    PutKeys({"a//b", "a/../x", "../y", "dir/", "dir/\x01", "dir/f", "a%25", "/z", "dir/.x.part~"});
    EXPECT_EQ(backend_->List(""), (Names{"a", "dir"}));
    EXPECT_THAT(backend_->List("a"), IsEmpty());
    EXPECT_EQ(backend_->List("dir"), Names{"f"});
    EXPECT_THAT(KindOf([&] { backend_->Remove("dir"); }), Optional(Kind::kFailed));
    backend_->RemoveDir("dir");
    EXPECT_THAT(KindOf([&] { backend_->List("dir"); }), Optional(Kind::kNotFound));
    backend_->Clear();
    EXPECT_THAT(site_.Everything(), IsEmpty());
}

TEST_F(S3Parts, DirectoriesLargerThanAPageGoWhole) {
    Names keys = {"dir2/stays"};
    for (int i = 0; i < 2100; ++i) keys.push_back("dir/" + std::to_string(i));
    PutKeys(keys);
    backend_->RemoveDir("dir");
    EXPECT_THAT(site_.Everything(), ElementsAre("dir2/stays"));
}

TEST_F(S3Parts, AFileAndADirectoryOfOneNameAreShownOnce) {
    PutKeys({"both", "both/file"});
    EXPECT_EQ(backend_->List(""), Names{"both"});
}

}  // namespace
