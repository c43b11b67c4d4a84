// The tests of the conformance suite for operations on many names; see storage_conformance.h.
#include <gmock/gmock.h>

#include <thread>

#include "storage_conformance.h"

using kro_err::Kind;
using quarn2::FileDownload;
using quarn2::FileError;
using testing::IsEmpty;
using testing::Optional;
using Names = std::vector<std::string>;

namespace {

// The number of files. OpenParallel allows four requests at the same time, so each of its threads
// handles several files.
constexpr int kMany = 30;

std::vector<std::optional<Kind>> KindsOf(const std::vector<FileError>& errors) {
    std::vector<std::optional<Kind>> kinds;
    for (const FileError& error : errors) {
        kinds.push_back(error ? std::optional(error->kind()) : std::nullopt);
    }
    return kinds;
}

std::string NameOf(int number) {
    return std::string(number % 2 == 0 ? "" : "user/2026-11-20/") + "F2026-11-20.web1." +
           std::to_string(number) + ".dar";
}

// Counts the bytes of transfers, and checks that all calls come from one thread.
struct ThreadWatcher final : quarn2::TransferObserver {
    void Begin(std::int64_t /*size*/) override {
        EXPECT_EQ(std::this_thread::get_id(), thread);
        ++begun;
    }
    void Advance(std::int64_t more) override {
        EXPECT_EQ(std::this_thread::get_id(), thread);
        bytes += more;
    }

    std::thread::id thread = std::this_thread::get_id();
    int begun = 0;
    std::int64_t bytes = 0;
};

}  // namespace

TEST_P(StorageConformance, RemoveManyRemovesAllThatItCan) {
    Names names;
    std::vector<std::optional<Kind>> expected;
    for (int i = 0; i < kMany; ++i) names.push_back(NameOf(i));
    for (const std::string& name : names) ASSERT_TRUE(Upload(name, "slice"));
    ASSERT_TRUE(Upload("F2026-11-20.web1.5", "another file"));
    ASSERT_TRUE(Upload("directory/file", "x"));
    expected.resize(names.size());
    names.insert(names.begin() + 10, {"directory", "missing", "missing/missing", "../bad", ""});
    expected.insert(expected.begin() + 10,
                    {Kind::kFailed, std::nullopt, std::nullopt, Kind::kFailed, std::nullopt});
    EXPECT_EQ(KindsOf(OpenParallel()->RemoveMany(names)), expected);
    EXPECT_TRUE(SoonTrue([&] {
        return site_->Everything() == Names{"F2026-11-20.web1.5", "directory/file"};
    })) << testing::PrintToString(site_->Everything());
    EXPECT_THAT(OpenParallel()->RemoveMany(Names{}), IsEmpty());
}

TEST_P(StorageConformance, RemoveManyOfShortLists) {
    for (const std::size_t size : {1U, 2U, 5U}) {
        Names names;
        for (std::size_t i = 0; i < size; ++i) names.push_back("file" + std::to_string(i));
        for (const std::string& name : names) ASSERT_TRUE(Upload(name, "x"));
        EXPECT_EQ(KindsOf(OpenParallel()->RemoveMany(names)),
                  std::vector<std::optional<Kind>>(size));
        EXPECT_THAT(List(""), IsEmpty());
    }
}

TEST_P(StorageConformance, LeftoversGoWithTheRemovalOfMany) {
    ASSERT_TRUE(Upload("other", "x"));
    Names names = {"file"};
    for (int i = 0; i < 6; ++i) names.push_back("file" + std::to_string(i));
    for (const std::string& name : names) ASSERT_TRUE(Upload(name, "x"));
    for (const char* const name : {"file", "file3", "filed"}) {
        if (!site_->LeaveLeftover(name)) GTEST_SKIP() << "nothing is ever left here";
    }
    EXPECT_EQ(KindsOf(OpenParallel()->RemoveMany(names)),
              std::vector<std::optional<Kind>>(names.size()));
    const Names left = site_->Everything();
    EXPECT_EQ(left.size(), 2U) << "the other file, and the leftover of a name that was not given: "
                               << testing::PrintToString(left);
    storage_->RemoveFile("filed");
    ExpectSoonNothingBut(*site_, "other");
}

TEST_P(StorageConformance, DownloadManyFetchesAllThatItCan) {
    std::vector<FileDownload> files;
    std::vector<std::optional<Kind>> expected;
    std::size_t bytes = 0;
    for (int i = 0; i < kMany; ++i) {
        const std::string content = local_files::Noise(static_cast<std::size_t>(100 * i), 7);
        ASSERT_TRUE(Upload(NameOf(i), content));
        files.push_back({NameOf(i), local_ / ("got" + std::to_string(i))});
        bytes += content.size();
    }
    expected.resize(files.size());
    files.insert(files.begin() + 10, {{"missing", local_ / "missing"},
                                      {NameOf(1), local_ / "no/directory"},
                                      {"../bad", local_ / "bad"}});
    expected.insert(expected.begin() + 10, {Kind::kNotFound, Kind::kFailed, Kind::kFailed});
    const auto storage = OpenParallel();
    ThreadWatcher watcher;
    storage->SetObserver(&watcher);
    storage->DeferSync(true);
    EXPECT_EQ(KindsOf(storage->DownloadMany(files)), expected);
    for (int i = 0; i < kMany; ++i) {
        EXPECT_EQ(local_files::Load(local_ / ("got" + std::to_string(i))),
                  local_files::Noise(static_cast<std::size_t>(100 * i), 7));
    }
    EXPECT_FALSE(local_files::Has(local_ / "missing"));
    EXPECT_FALSE(local_files::Has(local_ / "bad"));
    EXPECT_EQ(watcher.begun, kMany);
    EXPECT_EQ(watcher.bytes, static_cast<std::int64_t>(bytes));
}

TEST_P(StorageConformance, ListManyListsAllThatItCan) {
    for (int i = 0; i < 12; ++i) {
        ASSERT_TRUE(Upload("user" + std::to_string(i) + "/file", "x"));
        ASSERT_TRUE(Upload("user" + std::to_string(i) + "/another", "x"));
    }
    int number = -1;
    int good = 0;
    OpenParallel()->ListMany(
        [&]() -> std::optional<std::string> {
            if (++number > 12) return std::nullopt;
            return "user" + std::to_string(number);
        },
        [&](const std::string& directory, Names& names, const FileError& error) {
            if (directory == "user12") {
                EXPECT_TRUE(error && error->kind() == Kind::kNotFound);
                EXPECT_THAT(names, IsEmpty());
                return;
            }
            EXPECT_EQ(names, (Names{"another", "file"})) << directory;
            ++good;
        });
    EXPECT_EQ(good, 12);
}

TEST_P(StorageConformance, EncryptedFilesOfAListNeedThePassword) {
    if (KeyHash().empty()) GTEST_SKIP() << "only for an encrypted storage";
    std::vector<FileDownload> files;
    for (int i = 0; i < kMany; ++i) {
        const bool is_info = i == 3;
        const std::string name = is_info ? "2026-11-20.web1.info" : NameOf(i);
        ASSERT_TRUE(Upload(name, "content"));
        files.push_back({name, local_ / ("got" + std::to_string(i))});
    }
    quarn2::BackupToken token(site_->Token());
    token.DropParam("arch_password");
    const auto storage = quarn2::GetStorage(token);
    std::vector<std::optional<Kind>> expected(files.size(), Kind::kUnauthorized);
    expected[3] = std::nullopt;
    EXPECT_EQ(KindsOf(storage->DownloadMany(files)), expected);
    storage->AllowCiphertext(true);
    EXPECT_EQ(KindsOf(storage->DownloadMany(files)),
              std::vector<std::optional<Kind>>(files.size()));
    EXPECT_NE(local_files::Load(local_ / "got5"), "content");
}
