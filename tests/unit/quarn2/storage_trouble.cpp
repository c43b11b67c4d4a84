// The tests of the suite of network failures; see storage_trouble.h.
#include "storage_trouble.h"

// --- Broken transfers ---

TEST_P(StorageTrouble, WorksThroughTheRelay) {
    const std::string content = local_files::Noise(kLarge);
    const auto storage = OpenThroughRelay(kLongTimeout);
    EXPECT_TRUE(storage->Upload("file", LocalFile(content)));
    EXPECT_TRUE(Download(*storage, "file") == content);
    EXPECT_GT(relay_.Passed(Way::kUp), kLarge) << "every connection comes this way";
    EXPECT_GT(relay_.Passed(Way::kDown), kLarge);
}

TEST_P(StorageTrouble, UploadReset) { TestUpload(Harm::kReset, {Way::kUp, kLarge / 2}); }

TEST_P(StorageTrouble, UploadClosed) { TestUpload(Harm::kClose, {Way::kUp, kLarge / 2}); }

TEST_P(StorageTrouble, UploadStalled) { TestUpload(Harm::kStall, {Way::kUp, kLarge / 2}); }

TEST_P(StorageTrouble, UploadResetBeforeItsAnswer) {
    TestUpload(Harm::kReset, {Way::kDown, 0, kLarge}, Afterwards::kOldOrNew);
}

TEST_P(StorageTrouble, UploadClosedBeforeItsAnswer) {
    TestUpload(Harm::kClose, {Way::kDown, 0, kLarge}, Afterwards::kOldOrNew);
}

TEST_P(StorageTrouble, UploadStalledBeforeItsAnswer) {
    TestUpload(Harm::kStall, {Way::kDown, 0, kLarge}, Afterwards::kOldOrNew);
}

TEST_P(StorageTrouble, DownloadReset) { TestDownload(Harm::kReset, {Way::kDown, kLarge / 2}); }

TEST_P(StorageTrouble, DownloadClosed) { TestDownload(Harm::kClose, {Way::kDown, kLarge / 2}); }

TEST_P(StorageTrouble, DownloadStalled) { TestDownload(Harm::kStall, {Way::kDown, kLarge / 2}); }

// A backend may retry by itself, or leave the retry to the caller.
TEST_P(StorageTrouble, UploadOverABreakIsWholeOrFails) {
    const std::string content = local_files::Noise(kLarge);
    ASSERT_TRUE(OpenDirectly()->Upload("file", LocalFile("old")));
    const auto storage = OpenThroughRelay(kLongTimeout);
    relay_.HarmOnce(Harm::kReset, {Way::kUp, kLarge / 2});
    bool stored = false;
    const auto kind = KindOf([&] { stored = storage->Upload("file", LocalFile(content)); });
    ASSERT_TRUE(relay_.Harmed());
    EXPECT_EQ(kind.value_or(Kind::kUnavailable), Kind::kUnavailable);
    EXPECT_NE(stored, kind.has_value()) << "a break is no lack of room";
    EXPECT_TRUE(Download(*OpenDirectly(), "file") == (stored ? content : "old"));
    ExpectSoonAtMostLeftoversBeside("file");
    WaitUntilNothingIsWritten();
    EXPECT_TRUE(storage->Upload("file", LocalFile("next")));
    ExpectSoonNothingBut("file");
}

TEST_P(StorageTrouble, DownloadOverABreakIsWholeOrFails) {
    const std::string content = local_files::Noise(kLarge);
    ASSERT_TRUE(OpenDirectly()->Upload("file", LocalFile(content)));
    const auto storage = OpenThroughRelay(kLongTimeout);
    relay_.HarmOnce(Harm::kClose, {Way::kDown, kLarge / 2});
    const auto kind = KindOf([&] { storage->Download("file", local_ / "target"); });
    ASSERT_TRUE(relay_.Harmed());
    EXPECT_EQ(kind.value_or(Kind::kUnavailable), Kind::kUnavailable);
    EXPECT_EQ(local_files::Has(local_ / "target"), !kind);
    EXPECT_TRUE(kind || local_files::Load(local_ / "target") == content);
}

// --- Killed clients ---

TEST_P(StorageTrouble, AKilledUploadIsNotShownAndGoesWithTheNext) {
    ASSERT_TRUE(OpenDirectly()->Upload("dir/file", LocalFile("old")));
    KillUpload("dir/file");
    const auto storage = OpenDirectly();
    Names names;
    storage->List(names, "dir");
    EXPECT_EQ(names, Names{"file"});
    EXPECT_EQ(Download(*storage, "dir/file"), "old");
    ExpectSoonAtMostLeftoversBeside("dir/file");
    // An upload need not remove leftovers of the last few seconds.
    EXPECT_TRUE(SoonTrue([&] {
        EXPECT_TRUE(storage->Upload("dir/file", LocalFile("next")));
        return site_->Everything() == Names{"dir/file"};
    })) << testing::PrintToString(site_->Everything());
    EXPECT_EQ(Download(*storage, "dir/file"), "next");
}

TEST_P(StorageTrouble, AKilledUploadGoesWithTheRemoval) {
    const auto storage = OpenDirectly();
    ASSERT_TRUE(storage->Upload("other", LocalFile("x")));
    KillUpload("file");
    ExpectSoonAtMostLeftoversBeside("other");
    storage->RemoveFile("file");
    ExpectSoonNothingBut("other");
}

TEST_P(StorageTrouble, KilledUploadsGoWithClear) {
    const auto storage = OpenDirectly();
    KillUpload("file");
    KillUpload("dir/file");
    storage->Clear();
    EXPECT_THAT(List(*storage), testing::IsEmpty());
    EXPECT_TRUE(SoonTrue([&] { return site_->Everything().empty(); }))
        << testing::PrintToString(site_->Everything());
}

// --- Connections ---

TEST_P(StorageTrouble, KeepsItsConnection) {
    const auto storage = OpenThroughRelay(kLongTimeout);
    for (int i = 0; i < 10; ++i) {
        const std::string name = "dir/" + std::to_string(i);
        ASSERT_TRUE(storage->Upload(name, LocalFile(name)));
        EXPECT_EQ(Download(*storage, name), name);
        EXPECT_EQ(List(*storage), Names{"dir"});
        storage->RemoveFile(name + "x");
    }
    EXPECT_LE(relay_.Accepted(site_->Parts().port), 4) << "a few side by side, not one for each";
}

// Counts instead of measuring time, because the result must not depend on the speed of the machine.
TEST_P(StorageTrouble, ASmallUploadTakesFewRoundTrips) {
    constexpr std::size_t kSmall = 64UL * 1024;
    constexpr int kUploads = 12;
    const std::string source = LocalFile(local_files::Noise(kSmall));
    const auto storage = OpenThroughRelay(kLongTimeout);
    ASSERT_TRUE(storage->Upload("dir/first", source));
    relay_.HoldAnswers(std::chrono::milliseconds(15));
    std::vector<int> counts;
    for (int i = 0; i < kUploads; ++i) {
        const int before = relay_.RoundTrips();
        ASSERT_TRUE(storage->Upload("dir/" + std::to_string(i), source));
        counts.push_back(relay_.RoundTrips() - before);
    }
    EXPECT_LE(*std::min_element(counts.begin(), counts.end()), site_->RoundTripsOfUpload())
        << testing::PrintToString(counts);
    RecordProperty("round_trips", testing::PrintToString(counts));
}

TEST_P(StorageTrouble, AClosedIdleConnectionIsNotNoticed) {
    const auto storage = OpenThroughRelay(kLongTimeout);
    ASSERT_TRUE(storage->Upload("dir/file", LocalFile("first")));
    relay_.CloseConnections();
    EXPECT_TRUE(storage->Upload("dir/file", LocalFile("second")));
    relay_.CloseConnections();
    EXPECT_EQ(Download(*storage, "dir/file"), "second");
    relay_.CloseConnections();
    EXPECT_EQ(List(*storage), Names{"dir"});
    relay_.CloseConnections();
    storage->RemoveFile("dir/file");
    relay_.CloseConnections();
    storage->MkDir("other/deeper");
    relay_.CloseConnections();
    storage->RemoveDir("other");
    relay_.CloseConnections();
    storage->Clear();
    relay_.CloseConnections();
    EXPECT_TRUE(storage->Upload("large", LocalFile(local_files::Noise(kLarge))));
    ExpectSoonNothingBut("large");
}

TEST_P(StorageTrouble, NothingListening) {
    relay_.Refuse();
    const auto storage = OpenThroughRelay(kTimeout);
    ExpectUnavailable([&] { List(*storage); });
    ExpectUnavailable([&] { storage->Upload("file", LocalFile("x")); });
    ExpectUnavailable([&] { Download(*storage, "file"); });
    ExpectUnavailable([&] { storage->RemoveFile("file"); });
    relay_.Heal();
    EXPECT_TRUE(storage->Upload("file", LocalFile("x")));
}

TEST_P(StorageTrouble, AServerThatNeverAnswers) {
    relay_.HarmForGood(Harm::kStall, {Way::kDown, 0});
    ExpectUnavailable([&] { List(*OpenThroughRelay(kTimeout)); });
    ExpectUnavailable([&] { OpenThroughRelay(kTimeout)->Upload("file", LocalFile("x")); });
}

// The server falls silent between two operations of the same storage object.
TEST_P(StorageTrouble, AServerThatAnswersNoMore) {
    const auto storage = OpenThroughRelay(kTimeout);
    ASSERT_TRUE(storage->Upload("file", LocalFile("x")));
    relay_.HarmForGood(Harm::kStall, {Way::kDown, 0});
    ExpectUnavailable([&] { List(*storage); });
    ExpectUnavailable([&] { storage->RemoveFile("file"); });
    relay_.Heal();
    EXPECT_EQ(List(*storage), Names{"file"});
}

// --- Refusals ---

TEST_P(StorageTrouble, RefusesWhatCannotBeTrustedAndIsRefused) {
    const Relay unnamed(site_->Ports(), RemoteSite::kUnnamedHost);
    for (const auto& [what, parts] : site_->Refused()) {
        SCOPED_TRACE(what);
        ExpectFailure(Kind::kUnauthorized, parts, [&, &refused = parts] { List(*Open(refused)); });
    }
    EXPECT_THAT(site_->Everything(), testing::IsEmpty());
}

TEST_P(StorageTrouble, RefusedUploadsAreNotForWantOfRoom) {
    const TokenParts refused = site_->Refused().at("an unknown user");
    const auto storage = Open(refused);
    ExpectFailure(Kind::kUnauthorized, refused, [&] { storage->Upload("file", LocalFile("x")); });
    EXPECT_THAT(site_->Everything(), testing::IsEmpty());
}

TEST_P(StorageTrouble, AMissingRootIsNotFoundAndNeverMade) {
    const auto storage = Open(site_->Missing());
    EXPECT_THAT(KindOf([&] { List(*storage); }), Optional(Kind::kNotFound));
    EXPECT_THAT(KindOf([&] { storage->Upload("file", LocalFile("x")); }),
                Optional(Kind::kNotFound));
    EXPECT_THAT(KindOf([&] { storage->Upload("dir/file", LocalFile("x")); }),
                Optional(Kind::kNotFound));
    EXPECT_TRUE(KindOf([&] { storage->Download("file", local_ / "target"); }).has_value());
    EXPECT_THAT(KindOf([&] { List(*storage); }), Optional(Kind::kNotFound)) << "still missing";
    EXPECT_THAT(KindOf([&] { List(*Open(site_->Missing())); }), Optional(Kind::kNotFound));
}
