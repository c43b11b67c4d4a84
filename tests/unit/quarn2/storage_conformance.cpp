// The tests of the conformance suite; see storage_conformance.h.
#include "storage_conformance.h"

#include <gmock/gmock.h>

#include <atomic>
#include <thread>

using kro_err::Kind;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;
using Entry = quarn2::ListedEntry;
using Names = std::vector<std::string>;

// Larger than any piece of a transfer.
inline constexpr std::size_t kSeveralPieces = 17 * 1024 * 1024 + 1;

// Records the calls of an observer.
struct Watcher final : quarn2::TransferObserver {
    void Begin(std::int64_t size) override { begun.push_back(size); }
    void Advance(std::int64_t more) override {
        if (begun.empty()) ADD_FAILURE() << "bytes before the beginning";
        bytes += more;
    }

    std::vector<std::int64_t> begun;
    std::int64_t bytes = 0;
};

// --- Files ---

TEST_P(StorageConformance, GivesBackWhatWasStored) {
    EXPECT_TRUE(Upload("F2026-11-20.web1.tgz", "some bytes"));
    EXPECT_EQ(Download("F2026-11-20.web1.tgz"), "some bytes");
}

TEST_P(StorageConformance, StoresAnEmptyFile) {
    EXPECT_TRUE(Upload("empty", ""));
    EXPECT_EQ(Download("empty"), "");
    EXPECT_EQ(List(""), Names{"empty"});
}

TEST_P(StorageConformance, StoresALargeFile) {
    const std::string content = local_files::Noise(20 * 1024 * 1024 + 1);
    ASSERT_TRUE(Upload("large", content));
    EXPECT_TRUE(Download("large") == content);
}

TEST_P(StorageConformance, StoresEveryByteValue) {
    std::string content;
    for (int byte = 0; byte < 256; ++byte) content += static_cast<char>(byte);
    EXPECT_TRUE(Upload("bytes", content));
    EXPECT_EQ(Download("bytes"), content);
}

TEST_P(StorageConformance, ReplacesAFile) {
    EXPECT_TRUE(Upload("file", "a longer first content"));
    EXPECT_TRUE(Upload("file", "second"));
    EXPECT_EQ(Download("file"), "second");
    EXPECT_THAT(site_->Everything(), ElementsAre("file"));
}

TEST_P(StorageConformance, KeepsWhatWasStoredForAnotherObject) {
    EXPECT_TRUE(Upload("user/2026-11-20/file", "x"));
    EXPECT_EQ(DownloadBy(*Open(), "user/2026-11-20/file"), "x");
}

TEST_P(StorageConformance, TakesDottedBlankAndForeignNames) {
    for (const char* const name :
         {"web.1.example.com/2026-11-20/F2026-11-20.web.1.tgz", ".hidden", "...", "a..b", "-rf",
          "a b", "k\xc3\xa4se/\xe6\xbc\xa2", "\xff\xfe", "100%", "a+b&c=d?e#f", "quo\"te'",
          "back\\slash", "~", "*"}) {
        if (site_->RefusesName(name)) {
            EXPECT_THAT(KindOf([&] { Upload(name, name); }), Optional(Kind::kFailed)) << name;
            continue;
        }
        EXPECT_TRUE(Upload(name, name)) << name;
        EXPECT_EQ(Download(name), name);
        storage_->RemoveFile(name);
    }
    EXPECT_THAT(site_->Everything(), IsEmpty());
}

TEST_P(StorageConformance, RefusesHostileNames) {
    const Names names = {"../x",
                         "/abs",
                         "a//b",
                         "a/./b",
                         ".",
                         "..",
                         "a/..",
                         "a/",
                         "/",
                         "a\nb",
                         "a\tb",
                         "\x7f",
                         "a/../../x",
                         "./a",
                         "a/b\r",
                         ".x.part~",
                         "d/.x.part~",
                         ".d.part~/x",
                         std::string("a\0b", 3)};
    const std::string source = LocalFile("x");
    for (const std::string& name : names) {
        EXPECT_THAT(KindOf([&] { storage_->Upload(name, source); }), Optional(Kind::kFailed))
            << name;
        EXPECT_THAT(KindOf([&] { storage_->Download(name, local_ / "t"); }),
                    Optional(Kind::kFailed))
            << name;
        EXPECT_THAT(KindOf([&] { storage_->RemoveFile(name); }), Optional(Kind::kFailed)) << name;
        EXPECT_THAT(KindOf([&] { storage_->RemoveDir(name); }), Optional(Kind::kFailed)) << name;
        EXPECT_THAT(KindOf([&] { storage_->MkDir(name); }), Optional(Kind::kFailed)) << name;
        EXPECT_THAT(KindOf([&] { List(name); }), Optional(Kind::kFailed)) << name;
    }
    EXPECT_THAT(site_->Everything(), IsEmpty());
    EXPECT_FALSE(local_files::Has(local_ / "t"));
}

TEST_P(StorageConformance, EscapesControlCharactersInErrorTexts) {
    try {
        storage_->RemoveFile("a\nb");
        FAIL() << "a line feed was accepted";
    } catch (const kro_err::Error& error) {
        EXPECT_THAT(error.what(), testing::HasSubstr("'a\\x0ab'"));
    }
}

TEST_P(StorageConformance, NeedsANameForATransfer) {
    EXPECT_THAT(KindOf([&] { Upload("", "x"); }), Optional(Kind::kFailed));
    EXPECT_THAT(KindOf([&] { Download(""); }), Optional(Kind::kFailed));
}

TEST_P(StorageConformance, StoresAVeryLongNameOrSaysNo) {
    const std::string longest(100, 'x');
    EXPECT_TRUE(Upload(longest + "/" + longest + "/" + longest, "x"));
    const std::string name(5000, 'y');
    const auto kind = KindOf([&] { Upload(name, "y"); });
    if (kind) {
        EXPECT_EQ(*kind, Kind::kFailed);
    } else {
        EXPECT_EQ(Download(name), "y");
    }
}

TEST_P(StorageConformance, DoesNotUploadWhatIsNoPlainFile) {
    EXPECT_THAT(KindOf([&] { storage_->Upload("x", local_.path()); }), Optional(Kind::kFailed));
    EXPECT_TRUE(KindOf([&] { storage_->Upload("x", local_ / "missing"); }).has_value());
    EXPECT_THAT(site_->Everything(), IsEmpty());
}

TEST_P(StorageConformance, TellsSizeAndStoredName) {
    EXPECT_EQ(storage_->Size(LocalFile("12345")), StoredSize(5));
    const std::string hash = KeyHash().empty() ? "" : " " + KeyHash();
    EXPECT_EQ(storage_->GetFileInfo(LocalFile("123", "F2026-11-20.web1.tgz")),
              "F2026-11-20.web1.tgz " + std::to_string(StoredSize(3)) + hash);
}

// --- Downloads ---

TEST_P(StorageConformance, DownloadOfNothingIsNotFoundAndKeepsTheLocalFile) {
    local_files::Save(local_ / "target", "old");
    EXPECT_THAT(KindOf([&] { Download("missing"); }), Optional(Kind::kNotFound));
    EXPECT_THAT(KindOf([&] { Download("no/such/file"); }), Optional(Kind::kNotFound));
    EXPECT_EQ(local_files::Load(local_ / "target"), "old");
}

TEST_P(StorageConformance, DownloadOfADirectoryIsNotFound) {
    EXPECT_TRUE(Upload("dir/file", "x"));
    EXPECT_THAT(KindOf([&] { Download("dir"); }), Optional(Kind::kNotFound));
}

TEST_P(StorageConformance, DownloadReplacesTheLocalFileAndLeavesNothingBeside) {
    EXPECT_TRUE(Upload("file", "new"));
    local_files::Save(local_ / "target", "a longer old content");
    EXPECT_EQ(Download("file"), "new");
    std::ptrdiff_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(local_.path())) {
        files += entry.is_regular_file() ? 1 : 0;
    }
    EXPECT_EQ(files, 2) << "the source and the target";
}

// The error for a missing local directory must differ from the error for a missing file on the
// storage.
TEST_P(StorageConformance, DownloadIntoAMissingDirectoryFails) {
    EXPECT_TRUE(Upload("file", "x"));
    EXPECT_THAT(KindOf([&] { storage_->Download("file", local_ / "no/target"); }),
                Optional(Kind::kFailed));
}

// --- Listings ---

TEST_P(StorageConformance, EmptyRootHasNoNames) { EXPECT_THAT(List(""), IsEmpty()); }

TEST_P(StorageConformance, ListsFilesAndDirectoriesSorted) {
    for (const char* const name : {"b", "a/x", "a/y", "B", "a.b", "\xc3\xa4"})
        EXPECT_TRUE(Upload(name, ""));
    EXPECT_EQ(List(""), (Names{"B", "a", "a.b", "b", "\xc3\xa4"}));
    EXPECT_EQ(List("a"), (Names{"x", "y"}));
}

TEST_P(StorageConformance, ListingAFileGivesItsName) {
    EXPECT_TRUE(Upload("file", "x"));
    EXPECT_TRUE(Upload("dir/2026-11-20/file", "x"));
    EXPECT_EQ(List("file"), Names{"file"});
    EXPECT_EQ(List("dir/2026-11-20/file"), Names{"dir/2026-11-20/file"});
}

TEST_P(StorageConformance, MissingDirectoryIsNotFound) {
    EXPECT_TRUE(Upload("file", "x"));
    for (const char* const name : {"missing", "missing/deeper", "file/below", "fil"}) {
        EXPECT_THAT(KindOf([&] { List(name); }), Optional(Kind::kNotFound)) << name;
    }
}

// Three pages show that the second page does not end the listing either.
TEST_P(StorageConformance, ListsMoreThanAPage) {
    const std::size_t count = 2 * site_->NamesPerPage() + 1;
    Names expected;
    for (std::size_t i = 0; i < count; ++i) {
        expected.push_back("slice." + std::to_string(10000 + i) + ".dar");
    }
    constexpr std::size_t kThreads = 4;
    std::vector<std::thread> threads;
    for (std::size_t first = 0; first < kThreads; ++first) {
        threads.emplace_back([this, first, &expected] {
            const auto backend = OpenBackend();
            for (std::size_t i = first; i < expected.size(); i += kThreads) {
                TextSource source("x");
                EXPECT_TRUE(backend->Put("many/" + expected[i], source));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(List("many"), expected);
    EXPECT_EQ(List(""), Names{"many"});
}

// The sizes are those of the stored bytes, so an encrypted file is larger than its content.
TEST_P(StorageConformance, ListsTheSizesOfFilesButNotOfDirectories) {
    for (const auto& [name, size] : {std::pair("empty", 0), {"dir/file", 70000}}) {
        EXPECT_TRUE(Upload(name, local_files::Noise(static_cast<std::size_t>(size))));
    }
    EXPECT_TRUE(Upload("dir/2026-11-20.web1.info", "size=1"));
    EXPECT_TRUE(Upload("dir/2026-11-20/deep", "x"));
    EXPECT_THAT(storage_->ListSizes(""),
                ElementsAre(Entry{"dir", std::nullopt}, Entry{"empty", StoredSize(0)}));
    EXPECT_THAT(storage_->ListSizes("dir"),
                ElementsAre(Entry{"2026-11-20", std::nullopt}, Entry{"2026-11-20.web1.info", 6},
                            Entry{"file", StoredSize(70000)}));
    EXPECT_EQ(storage_->ListSizes("empty").size(), 1U);
    EXPECT_EQ(storage_->ListSizes("empty").front().name, "empty");
    EXPECT_THAT(KindOf([&] { storage_->ListSizes("missing"); }), Optional(Kind::kNotFound));
    EXPECT_THAT(KindOf([&] { storage_->ListSizes("../x"); }), Optional(Kind::kFailed));
}

// A storage may refuse to list all files at once, but may not omit some of them.
TEST_P(StorageConformance, AListingOfAllFilesIsComplete) {
    if (!storage_->ListAllFiles()) GTEST_SKIP() << "the storage lists directory by directory";
    EXPECT_THAT(storage_->ListAllFiles(), Optional(IsEmpty()));
    const std::size_t count = site_->NamesPerPage() + 1;
    std::vector<Entry> expected;
    for (std::size_t i = 0; i < count; ++i) {
        expected.push_back({"web1/2026-11-20/" + std::to_string(10000 + i), StoredSize(1)});
    }
    const auto backend = OpenBackend();
    for (const Entry& entry : expected) {
        TextSource source("x");
        EXPECT_TRUE(backend->Put(entry.name, source));
    }
    EXPECT_TRUE(Upload("a", "12"));
    site_->LeaveLeftover("b");
    expected.insert(expected.begin(), Entry{"a", StoredSize(2)});
    EXPECT_THAT(storage_->ListAllFiles(), Optional(expected));
}

// --- Removals ---

TEST_P(StorageConformance, RemovesOneFile) {
    EXPECT_TRUE(Upload("a", "1"));
    EXPECT_TRUE(Upload("ab", "2"));
    storage_->RemoveFile("a");
    storage_->RemoveFile("a");
    EXPECT_THAT(site_->Everything(), ElementsAre("ab"));
}

TEST_P(StorageConformance, RemovalOfNothingSucceeds) {
    EXPECT_TRUE(Upload("file", "x"));
    for (const char* const name : {"", "missing", "missing/deeper", "file/below"}) {
        storage_->RemoveFile(name);
        if (*name != '\0') storage_->RemoveDir(name);
    }
    EXPECT_THAT(site_->Everything(), ElementsAre("file"));
}

TEST_P(StorageConformance, RemoveFileRefusesADirectory) {
    EXPECT_TRUE(Upload("dir/file", "x"));
    EXPECT_THAT(KindOf([&] { storage_->RemoveFile("dir"); }), Optional(Kind::kFailed));
    EXPECT_THAT(site_->Everything(), ElementsAre("dir/file"));
}

TEST_P(StorageConformance, RemovesADirectoryTreeAndNothingBesideIt) {
    for (const char* const name : {"dir/a", "dir/.b", "dir/c/d/e", "dir2/a", "dir.a", "dirs"}) {
        EXPECT_TRUE(Upload(name, "x"));
    }
    storage_->RemoveDir("dir");
    storage_->RemoveDir("dir");
    EXPECT_THAT(site_->Everything(), ElementsAre("dir.a", "dir2/a", "dirs"));
    EXPECT_THAT(KindOf([&] { List("dir"); }), Optional(Kind::kNotFound));
}

TEST_P(StorageConformance, RemoveDirLeavesAFileAlone) {
    EXPECT_TRUE(Upload("file", "x"));
    storage_->RemoveDir("file");
    EXPECT_EQ(Download("file"), "x");
}

TEST_P(StorageConformance, NeverRemovesTheRoot) {
    EXPECT_TRUE(Upload("file", "x"));
    EXPECT_THAT(KindOf([&] { storage_->RemoveDir(""); }), Optional(Kind::kFailed));
    EXPECT_THAT(site_->Everything(), ElementsAre("file"));
}

TEST_P(StorageConformance, ClearTakesAllButTheRoot) {
    for (const char* const name : {"a", ".b", "c/d/e", ".f/g"}) EXPECT_TRUE(Upload(name, "x"));
    site_->LeaveLeftover("a");
    site_->LeaveLeftover("c/d/h");
    storage_->Clear();
    EXPECT_THAT(site_->Everything(), IsEmpty());
    EXPECT_THAT(List(""), IsEmpty());
    EXPECT_TRUE(Upload("again", "x"));
}

TEST_P(StorageConformance, MkDirCanBeRepeated) {
    storage_->MkDir("");
    storage_->MkDir("user/2026-11-20");
    storage_->MkDir("user/2026-11-20");
    EXPECT_TRUE(Upload("user/2026-11-20/file", "x"));
    EXPECT_EQ(List("user/2026-11-20"), Names{"file"});
}

// --- Observed transfers ---

TEST_P(StorageConformance, ObserverSeesAllBytesOfAnUpload) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, kSeveralPieces}) {
        Watcher watcher;
        storage_->SetObserver(&watcher);
        ASSERT_TRUE(Upload("file", local_files::Noise(size)));
        storage_->SetObserver(nullptr);
        EXPECT_THAT(watcher.begun, ElementsAre(static_cast<std::int64_t>(size)));
        EXPECT_EQ(watcher.bytes, static_cast<std::int64_t>(size));
    }
}

TEST_P(StorageConformance, ObserverSeesAllBytesOfADownload) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, kSeveralPieces}) {
        const auto bytes = static_cast<std::int64_t>(size);
        ASSERT_TRUE(Upload("file", local_files::Noise(size)));
        Watcher watcher;
        storage_->SetObserver(&watcher);
        EXPECT_EQ(Download("file").size(), size);
        storage_->SetObserver(nullptr);
        EXPECT_THAT(watcher.begun, ElementsAre(testing::AnyOf(bytes, -1)));
        EXPECT_EQ(watcher.bytes, bytes);
    }
}

TEST_P(StorageConformance, ObserverSeesNothingOfWhatIsNotThereNorOnceItIsTakenAway) {
    Watcher watcher;
    storage_->SetObserver(&watcher);
    EXPECT_THAT(KindOf([&] { Download("missing"); }), Optional(Kind::kNotFound));
    List("");
    storage_->SetObserver(nullptr);
    EXPECT_TRUE(Upload("file", "x"));
    EXPECT_EQ(Download("file"), "x");
    EXPECT_THAT(watcher.begun, IsEmpty());
    EXPECT_EQ(watcher.bytes, 0);
}

TEST_P(StorageConformance, DownloadWithDeferredSyncIsWholeAndKeepsItsPromises) {
    const std::string content = local_files::Noise(kSeveralPieces);
    ASSERT_TRUE(Upload("file", content));
    ASSERT_TRUE(Upload("empty", ""));
    storage_->DeferSync(true);
    EXPECT_TRUE(Download("file") == content);
    EXPECT_THAT(KindOf([&] { Download("missing"); }), Optional(Kind::kNotFound));
    EXPECT_TRUE(local_files::Load(local_ / "target") == content) << "the old file stays";
    EXPECT_EQ(Download("empty"), "");
    storage_->DeferSync(false);
    EXPECT_TRUE(Download("file") == content);
    EXPECT_FALSE(local_files::Has(local_ / ".target.part~"));
}

// --- Interrupted transfers ---

TEST_P(StorageConformance, BrokenSourceLeavesTheOldFile) {
    ASSERT_TRUE(Upload("dir/file", "old"));
    const auto backend = OpenBackend();
    TextSource broken(local_files::Noise(3 * 1024 * 1024));
    broken.fail_from = 2 * 1024 * 1024;
    EXPECT_THAT(KindOf([&] { backend->Put("dir/file", broken); }), Optional(Kind::kFailed));
    TextSource changed("grown meanwhile");
    changed.changed = true;
    EXPECT_THAT(KindOf([&] { backend->Put("dir/file", changed); }), Optional(Kind::kFailed));
    EXPECT_EQ(Download("dir/file"), "old");
    ExpectSoonNothingBut(*site_, "dir/file");
}

TEST_P(StorageConformance, UploadWorksAfterAFailure) {
    const auto backend = OpenBackend();
    TextSource source(local_files::Noise(300 * 1024));
    source.changed = true;
    EXPECT_THAT(KindOf([&] { backend->Put("file", source); }), Optional(Kind::kFailed));
    source.changed = false;
    EXPECT_TRUE(backend->Put("file", source));
    EXPECT_EQ(Download("file"), local_files::Noise(300 * 1024));
}

TEST_P(StorageConformance, LeftoversAreNotShown) {
    if (!site_->LeaveLeftover("file")) GTEST_SKIP() << "nothing is ever left here";
    EXPECT_THAT(List(""), IsEmpty());
    EXPECT_THAT(KindOf([&] { Download("file"); }), Optional(Kind::kNotFound));
}

TEST_P(StorageConformance, LeftoversGoWithTheNextUpload) {
    if (!site_->LeaveLeftover("file")) GTEST_SKIP() << "nothing is ever left here";
    EXPECT_TRUE(Upload("file", "x"));
    EXPECT_EQ(Download("file"), "x");
    EXPECT_THAT(site_->Everything(), ElementsAre("file"));
}

TEST_P(StorageConformance, LeftoversGoWithTheRemoval) {
    ASSERT_TRUE(Upload("other", "x"));
    if (!site_->LeaveLeftover("file")) GTEST_SKIP() << "nothing is ever left here";
    storage_->RemoveFile("file");
    EXPECT_THAT(site_->Everything(), ElementsAre("other"));
}

TEST_P(StorageConformance, FullStorageIsFalseAndKeepsTheOldFile) {
    storage_.reset();
    if (!site_->LimitRoom(1024 * 1024)) GTEST_SKIP() << "the storage cannot be made full here";
    storage_ = Open();
    ASSERT_TRUE(Upload("file", "old"));
    EXPECT_FALSE(Upload("file", local_files::Noise(4 * 1024 * 1024)));
    EXPECT_FALSE(Upload("dir/new", local_files::Noise(4 * 1024 * 1024)));
    EXPECT_EQ(Download("file"), "old");
    ExpectSoonNothingBut(*site_, "file");
    EXPECT_TRUE(Upload("file", local_files::Noise(700 * 1024))) << "room is free again";
}

// --- Several at once ---

// Reports an exception of a thread as a failure of this test. Otherwise it would end the test
// program.
template <class Work>
void FourAtOnce(const Work& work) {
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 4; ++i) {
        threads.emplace_back([i, &work] {
            try {
                work(i);
            } catch (const std::exception& error) {
                ADD_FAILURE() << error.what();
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
}

TEST_P(StorageConformance, SeparateObjectsWorkOnDifferentNamesAtOnce) {
    std::atomic<int> good = 0;
    FourAtOnce([this, &good](unsigned i) {
        const auto storage = Open();
        const std::string id = std::to_string(i);
        const std::string content = local_files::Noise(200 * 1024, i);
        for (int round = 0; round < 10; ++round) {
            const std::string name = "user/2026-11-20/" + id + "." + std::to_string(round);
            good += storage->Upload(name, LocalFile(content, "source" + id)) ? 1 : 0;
            good += DownloadBy(*storage, name, "target" + id) == content ? 1 : 0;
        }
    });
    EXPECT_EQ(good, 80);
    EXPECT_EQ(List("user/2026-11-20").size(), 40U);
}

TEST_P(StorageConformance, SeparateObjectsWriteOneNameWhole) {
    std::atomic<int> good = 0;
    ASSERT_TRUE(Upload("shared", local_files::Noise(300 * 1024, 0)));
    FourAtOnce([this, &good](unsigned i) {
        const auto storage = Open();
        const std::string id = std::to_string(i);
        const std::string source = LocalFile(local_files::Noise(300 * 1024, i), "source" + id);
        for (int round = 0; round < 10; ++round) {
            good += storage->Upload("shared", source) ? 1 : 0;
            const std::string got = DownloadBy(*storage, "shared", "target" + id);
            for (unsigned n = 0; n < 4; ++n) {
                good += got == local_files::Noise(300 * 1024, n) ? 1 : 0;
            }
        }
    });
    EXPECT_EQ(good, 80) << "every upload succeeded, every download was one writer's content";
    ExpectSoonNothingBut(*site_, "shared");
}
