// The get command: the file that it fetches, the previous file that it removes first, and its
// attempts.
#include <unistd.h>

#include "kro/kro_args.h"
#include "kro/kro_err.h"
#include "program_site.h"
#include "quarn2_cp2_get.h"

namespace {

using kro_err::Kind;

constexpr const char* kSlice = "F2026-11-20.web1.tgz.part3";
constexpr const char* kZero = "r//F2026-11-20.web1.tgz.part0";
constexpr const char* kInfoName = "2026-11-20.web1.info";
constexpr const char* kNoFile = "(no such file)";

void CallGet(std::vector<std::string> words) {
    kro_args::Args args("");
    args.AddOption("operation", ' ', "");
    args.AddOption("init", ' ', "");
    args.AddOption("tmp-file", ' ', "").SetParam();
    words.insert(words.begin(), "quarn2_cp");
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    args.Parse(static_cast<int>(argv.size()), argv.data());
    CommandGet(args.GetResult());
}

class GetCommand : public ProgramSite {
  protected:
    // Returns the content of a local file, or kNoFile.
    static std::string Local(const std::string& path) {
        return local_files::Has(path) ? local_files::Load(path) : kNoFile;
    }
    template <class Error = std::runtime_error>
    static std::string Failure(const std::vector<std::string>& words) {
        return TextOf<Error>([&] { CallGet(words); });
    }
    // Makes all later downloads fail with this error.
    void FailDownloads(Kind kind, const std::string& text = "the line broke") {
        store_->SetHook([kind, text](const std::string& operation, const std::string&) {
            if (operation == "Get") throw kro_err::Error(kind, text);
        });
    }
    void StoreChain() {
        store_->SetFile(kInfoName, std::string("last-slice=") + kSlice + " 100\n");
        store_->SetFile(kSlice, "slice");
    }
};

// --- Paths ---

TEST_F(GetCommand, FetchesAFileOfTheStorageRoot) {
    store_->SetFile("F2026-11-20.web1.1.dar", "bytes");
    CallGet({"r//F2026-11-20.web1.1.dar"});
    EXPECT_EQ(Local("r/F2026-11-20.web1.1.dar"), "bytes");
    EXPECT_EQ(Log(),
              (Lines{"5: Get 'r/F2026-11-20.web1.1.dar'", "7: Download r/F2026-11-20.web1.1.dar"}));
    EXPECT_EQ(store_->log(), (Lines{"Get F2026-11-20.web1.1.dar"}));
    EXPECT_EQ(Below("r"), (Lines{"F2026-11-20.web1.1.dar"}));
}

TEST_F(GetCommand, FetchesFromADirectoryOfTheStorageAndMakesTheLocalOne) {
    store_->SetFile("web1/2026-11-20/F2026-11-20.web1.tgz", "bytes");
    CallGet({"deep/r//web1/2026-11-20/F2026-11-20.web1.tgz"});
    EXPECT_EQ(Local("deep/r/web1/2026-11-20/F2026-11-20.web1.tgz"), "bytes");
}

TEST_F(GetCommand, TheLastDoubleSlashSeparatesThePlaces) {
    store_->SetFile("b/x.tgz", "bytes");
    CallGet({root_ / "a//c//b/./x.tgz"});
    EXPECT_EQ(Local("a/c/b/x.tgz"), "bytes");
    EXPECT_EQ(store_->log(), (Lines{"Get b/x.tgz"}));
}

TEST_F(GetCommand, AFileThatIsThereIsNotFetchedAndTheTmpFileLeftAlone) {
    store_->SetFile("x.tgz", "new");
    Place("r/x.tgz", "old");
    Place("r/before", "the slice before");
    Place("tmp-file", "r/before");
    CallGet({"r//x.tgz", "--tmp-file", "tmp-file"});
    CallGet({"r/x.tgz", "--init"});
    EXPECT_EQ(Local("r/x.tgz"), "old");
    EXPECT_EQ(Local("r/before"), "the slice before");
    EXPECT_EQ(Local("tmp-file"), "r/before");
    EXPECT_EQ(Log(), (Lines{"5: Get 'r/x.tgz'", "5: Get 'r/x.tgz'"}));
    EXPECT_EQ(store_->log(), (Lines{}));
}

TEST_F(GetCommand, WithoutADoubleSlashTheFileIsAtTheStorageRoot) {
    store_->SetFile("x.tgz", "bytes");
    store_->SetFile("r/x.tgz", "another");
    CallGet({"r/x.tgz"});
    CallGet({"x.tgz"});
    EXPECT_EQ(Local("r/x.tgz"), "bytes");
    EXPECT_EQ(Local("x.tgz"), "bytes");
    EXPECT_EQ(store_->log(), (Lines{"Get x.tgz", "Get x.tgz"}));
}

TEST_F(GetCommand, ALocalDirectoryThatCannotBeMadeIsAnError) {
    Place("file", "kept");
    store_->SetFile("x.tgz", "bytes");
    EXPECT_EQ(Failure({"file/r//x.tgz"}), "Failed to make the directory 'file/r': Not a directory");
    EXPECT_EQ(Local("file"), "kept");
    EXPECT_EQ(store_->log(), (Lines{}));
}

TEST_F(GetCommand, APlaceAboveTheStorageIsRefused) {
    EXPECT_EQ(Failure<kro_err::Error>({"r//../x.tgz"}),
              "name '../x.tgz' is not allowed on a storage: it has a '.' or '..' component");
    EXPECT_EQ(store_->log(), (Lines{"List"}));
}

TEST_F(GetCommand, AMissingTokenIsAnError) {
    unsetenv("BACKUP_TOKEN");
    EXPECT_EQ(Failure<kro_err::Error>({"r//x.tgz"}),
              "the storage token is empty: set BACKUP_TOKEN, for instance to local:///srv/backups");
    EXPECT_FALSE(local_files::Has("r"));
}

// --- The start of a restore ---

TEST_F(GetCommand, InitFetchesTheInfoFileAndThenTheSliceItNames) {
    StoreChain();
    CallGet({kZero, "--init"});
    EXPECT_EQ(store_->log(), (Lines{"Get 2026-11-20.web1.info", "Get F2026-11-20.web1.tgz.part3"}));
    EXPECT_EQ(Below("r"), (Lines{kInfoName, kSlice}));
    EXPECT_EQ(Local(std::string("r/") + kSlice), "slice");
    EXPECT_EQ(Log(), (Lines{"5: Get 'r/F2026-11-20.web1.tgz.part0'",
                            "7: Download r/F2026-11-20.web1.tgz.part3"}));
}

TEST_F(GetCommand, InitTakesALocalInfoFileAsItIs) {
    StoreChain();
    store_->SetFile("F2026-11-20.web1.tgz.part2", "second");
    Place(std::string("r/") + kInfoName, "last-slice=F2026-11-20.web1.tgz.part2\n");
    CallGet({kZero, "--init"});
    EXPECT_EQ(store_->log(), (Lines{"Get F2026-11-20.web1.tgz.part2"}));
}

TEST_F(GetCommand, InitWorksInADirectoryOfTheStorage) {
    const std::string directory = "web.1.org/2026-11-20/";
    store_->SetFile(directory + "2026-11-20.web.1.org.info",
                    "last-slice=" + directory + "I2026-11-20.web.1.org.12.dar\n");
    store_->SetFile(directory + "I2026-11-20.web.1.org.12.dar", "slice");
    CallGet({"r//" + directory + "I2026-11-20.web.1.org.0.dar", "--init"});
    EXPECT_EQ(Local("r/" + directory + "I2026-11-20.web.1.org.12.dar"), "slice");
}

TEST_F(GetCommand, InitOfACustomBackupReadsItsInfoFile) {
    store_->SetFile("custom.web1.info", "last-slice=C2026-11-20.web1.tgz\n");
    store_->SetFile("C2026-11-20.web1.tgz", "custom");
    CallGet({"r//C2026-11-20.web1.tgz.part0", "--init"});
    EXPECT_EQ(Local("r/C2026-11-20.web1.tgz"), "custom");
    EXPECT_EQ(Below("r"), (Lines{"C2026-11-20.web1.tgz", "custom.web1.info"}));
}

TEST_F(GetCommand, InitDerivesTheInfoFilesName) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"F2026-11-20.web1.tgz.part0", "2026-11-20.web1.info"},
        {"I2026-11-20.web.1.org.0.dar", "2026-11-20.web.1.org.info"},
        {"I2026-11-20.web1.10.dar", "2026-11-20.web1.info"},
        {"Fname.part0", "name.info"},
        {"X0.dar", "0.dar.info"},
        {"C2026-11-20.web.1.0.dar", "custom.web.1.info"},
        {"Cshort.part0", "custom..info"},
        {"custom-12345web1.0.dar", "custom.web1.0.dar.info"},
        {"custompart0", "custom..info"}};
    for (const auto& [name, info] : cases) {
        store_->ClearLog();
        Failure({"r//" + name, "--init"});
        EXPECT_EQ(store_->log(), (Lines{"Get " + info, "List"})) << name;
    }
}

TEST_F(GetCommand, InitOfANameWithADigitInFrontFetchesTheIndexWithoutAnInfoFile) {
    store_->SetFile("2026-11-20.web1.tgz", "index");
    for (const char* const name : {"r//2026-11-20.web1.tgz.part0", "s//2026-11-20.web1.0.dar"}) {
        store_->ClearLog();
        CallGet({name, "--init"});
        EXPECT_EQ(store_->log(), (Lines{"Get 2026-11-20.web1.tgz"}));
    }
    EXPECT_EQ(Local("r/2026-11-20.web1.tgz"), "index");
    EXPECT_EQ(Local("s/2026-11-20.web1.tgz"), "index");
}

TEST_F(GetCommand, InitFetchesTheEncryptedIndexOfAnEncryptedBackup) {
    store_->SetFile("2026-11-20.web1.tgz.aes", "index");
    Place("r/.encrypted_indexes", "2026-11-20.web1.tgz.aes=hash");
    CallGet({"r//2026-11-20.web1.0.dar", "--init"});
    EXPECT_EQ(Local("r/2026-11-20.web1.tgz.aes"), "index");
    EXPECT_EQ(store_->log(), (Lines{"Get 2026-11-20.web1.tgz.aes"}));
}

TEST_F(GetCommand, WithoutInitAZeroSliceIsFetchedAsItIs) {
    store_->SetFile("F2026-11-20.web1.0.dar", "zero");
    CallGet({"r//F2026-11-20.web1.0.dar"});
    CallGet({"s//F2026-11-20.web1.0.dar", "--operation"});
    EXPECT_EQ(Local("r/F2026-11-20.web1.0.dar"), "zero");
    EXPECT_EQ(store_->log(), (Lines{"Get F2026-11-20.web1.0.dar", "Get F2026-11-20.web1.0.dar"}));
}

TEST_F(GetCommand, InitOfAnotherSliceFetchesThatSlice) {
    store_->SetFile("F2026-11-20.web1.1.dar", "first");
    CallGet({"r//F2026-11-20.web1.1.dar", "--init"});
    EXPECT_EQ(store_->log(), (Lines{"Get F2026-11-20.web1.1.dar"}));
}

// --- Unusable info files ---

TEST_F(GetCommand, AnInfoFileThatTheStorageLacksIsAnErrorAndLosesNothing) {
    Place("r/before", "the slice before");
    Place("tmp-file", "r/before");
    EXPECT_EQ(Failure<kro_err::Error>({kZero, "--init", "--tmp-file", "tmp-file"}),
              "no file '2026-11-20.web1.info' on the storage");
    EXPECT_EQ(Below("r"), (Lines{"2026-11-20.web1.info.attempts", "before"}));
    EXPECT_EQ(Local("tmp-file"), "r/before");
}

TEST_F(GetCommand, AnInfoFileWithoutALastSliceIsAnErrorAndLosesNothing) {
    const std::string info = std::string("r/") + kInfoName;
    const std::string no_slice =
        "info file '" + info +
        "' does not contain the name of the last slice: this backup cannot be restored";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", no_slice},
        {"size=1\ntype=full\n", no_slice},
        {"last-slice=\n", no_slice},
        {std::string("\x7f"
                     "ELF\0\0\1",
                     7),
         "'" + info + "' is not an info file: it contains a NUL byte"}};
    for (const auto& [content, text] : cases) {
        Place(info, content);
        Place("r/before", "the slice before");
        Place("tmp-file", "r/before");
        EXPECT_EQ(Failure({kZero, "--init", "--tmp-file", "tmp-file"}), text);
        EXPECT_EQ(Local(info), content);
        EXPECT_EQ(Local("tmp-file"), "r/before");
        EXPECT_EQ(Below("r"), (Lines{kInfoName, "before"}));
    }
    EXPECT_EQ(store_->log(), (Lines{}));
}

TEST_F(GetCommand, ALastSliceOutsideTheTargetsDirectoryIsLookedForInIt) {
    store_->SetFile(kInfoName, "last-slice=../../outside\n");
    store_->SetFile("outside", "x");
    CallGet({kZero, "--init"});
    EXPECT_EQ(Local("r/outside"), "x");
    EXPECT_EQ(Below("r"), (Lines{kInfoName, "outside"}));
}

// --- The tmp-file ---

TEST_F(GetCommand, TheFileFetchedBeforeGoesBeforeTheDownloadAndTheNewOneIsNoted) {
    store_->SetFile("x.tgz", "bytes");
    Place("r/before", "the slice before");
    Place("tmp-file", "r/before");
    store_->SetHook([](const std::string&, const std::string&) {
        EXPECT_FALSE(local_files::Has("r/before"));
        EXPECT_EQ(Local("tmp-file"), "r/before");
    });
    CallGet({"r//x.tgz", "--tmp-file", "tmp-file"});
    EXPECT_EQ(Local("tmp-file"), "r/x.tgz");
    EXPECT_EQ(Below("r"), (Lines{"x.tgz"}));
}

TEST_F(GetCommand, AWalkThroughABackupKeepsOneSliceOnTheDisk) {
    for (int i = 1; i <= 4; ++i) store_->SetFile("F.web1." + std::to_string(i) + ".dar", "x");
    for (int i = 4; i >= 1; --i) {
        const std::string name = "F.web1." + std::to_string(i) + ".dar";
        CallGet({"r//" + name, "--tmp-file", "tmp-file"});
        EXPECT_EQ(Below("r"), (Lines{name}));
    }
}

TEST_F(GetCommand, ATmpFileThatNamesTheRequestedFileDoesNotDeleteIt) {
    const std::string local = std::string("r/") + kSlice;
    Place(std::string("r/") + kInfoName, std::string("last-slice=") + kSlice + "\n");
    Place(local, "good");
    Place("tmp-file", local);
    EXPECT_EQ(Failure({kZero, "--init", "--tmp-file", "tmp-file"}),
              "no file 'F2026-11-20.web1.tgz.part3' on the storage");
    EXPECT_EQ(Local(local), "good");
    EXPECT_EQ(Local("tmp-file"), local);
}

TEST_F(GetCommand, AFailedDownloadIsNotNoted) {
    Place("r/before", "the slice before");
    Place("tmp-file", "r/before");
    EXPECT_EQ(Failure({"r//x.tgz", "--tmp-file", "tmp-file"}), "no file 'x.tgz' on the storage");
    EXPECT_EQ(Local("tmp-file"), "r/before");
}

TEST_F(GetCommand, WithoutAnythingToRemoveTheTargetIsStillNoted) {
    for (const char* const content : {"", "r/missing", "no/such/directory/x"}) {
        store_->SetFile("x.tgz", "bytes");
        Place("tmp-file", content);
        CallGet({"r//x.tgz", "--tmp-file", "tmp-file"});
        EXPECT_EQ(Local("tmp-file"), "r/x.tgz");
        std::filesystem::remove("r/x.tgz");
    }
    CallGet({"r//x.tgz", "--tmp-file", "new-tmp-file"});
    EXPECT_EQ(Local("new-tmp-file"), "r/x.tgz");
}

std::string NoPlainFile(const std::string& named) {
    return "--tmp-file 'tmp-file' names '" + named +
           "', which is not a regular file; nothing was removed or fetched. Remove the tmp-file to "
           "start again";
}

TEST_F(GetCommand, ATmpFileThatNamesADirectoryOrALinkRemovesNothing) {
    store_->SetFile("x.tgz", "bytes");
    Place("home/web1/file", "kept");
    std::filesystem::create_symlink("home/web1/file", "link");
    for (const char* const named : {"home/web1", "home/web1/", "link", "/dev/null"}) {
        Place("tmp-file", named);
        EXPECT_EQ(Failure({"r//x.tgz", "--tmp-file", "tmp-file"}), NoPlainFile(named));
        EXPECT_EQ(Local("tmp-file"), named);
    }
    EXPECT_EQ(Local("home/web1/file"), "kept");
    EXPECT_TRUE(std::filesystem::is_symlink("link"));
    EXPECT_EQ(store_->log(), (Lines{}));
}

TEST_F(GetCommand, ATmpFileWithANulRemovesNothing) {
    store_->SetFile("x.tgz", "bytes");
    Place("victim", "kept");
    const std::string content("victim\0and more", 15);
    Place("tmp-file", content);
    EXPECT_EQ(Failure({"r//x.tgz", "--tmp-file", "tmp-file"}),
              "--tmp-file 'tmp-file' contains a NUL byte instead of a path; nothing was removed or "
              "fetched. "
              "Name another file");
    EXPECT_EQ(Local("victim"), "kept");
    EXPECT_EQ(Local("tmp-file"), content);
    EXPECT_EQ(store_->log(), (Lines{}));
}

TEST_F(GetCommand, ATmpFileThatIsADirectoryIsAnErrorBeforeTheDownload) {
    store_->SetFile("x.tgz", "bytes");
    Place("dir/file", "kept");
    EXPECT_EQ(Failure({"r//x.tgz", "--tmp-file", "dir"}),
              "--tmp-file 'dir' is a directory: name a file");
    EXPECT_EQ(Local("dir/file"), "kept");
    EXPECT_EQ(store_->log(), (Lines{}));
}

// --- Retries ---

TEST_F(GetCommand, AListedFileIsTriedThreeTimesAMinuteApart) {
    store_->SetFile("x.tgz", "bytes");
    FailDownloads(Kind::kUnavailable);
    EXPECT_EQ(Failure<kro_err::Error>({"r//x.tgz"}), "the line broke");
    EXPECT_EQ(Log(), (Lines{"5: Get 'r/x.tgz'", "7: Download r/x.tgz",
                            "4: Failed download : x.tgz. What: the line broke. Attempt: 1 of 3",
                            "6: Wait 60 seconds before next attempt",
                            "4: Failed download : x.tgz. What: the line broke. Attempt: 2 of 3",
                            "6: Wait 60 seconds before next attempt",
                            "4: Failed download : x.tgz. What: the line broke. Attempt: 3 of 3"}));
    EXPECT_EQ(fake_clock::Sleeps(), (std::vector<int>{60000, 60000}));
    EXPECT_EQ(store_->log(),
              (Lines{"Get x.tgz", "List", "Get x.tgz", "List", "Get x.tgz", "List"}));
    EXPECT_EQ(Below("r"), (Lines{"x.tgz.attempts"}));
    EXPECT_EQ(Local("r/x.tgz.attempts"), "2026-11-20 12:02:00 the line broke\n");
}

TEST_F(GetCommand, ALaterTryThatSucceedsLeavesNoAttemptsFile) {
    for (const std::size_t failures : {1U, 2U}) {
        fake_clock::Reset();
        store_->SetFile("x.tgz", "bytes");
        FailDownloads(Kind::kUnavailable);
        fake_clock::OnSleep([&](int) {
            if (fake_clock::Sleeps().size() == failures) store_->SetHook(nullptr);
        });
        CallGet({"r//x.tgz"});
        EXPECT_EQ(fake_clock::Sleeps(), std::vector<int>(failures, 60000));
        EXPECT_EQ(Below("r"), (Lines{"x.tgz"}));
        std::filesystem::remove("r/x.tgz");
    }
}

TEST_F(GetCommand, RefusedCredentialsAreNotTriedAgain) {
    store_->SetFile("x.tgz", "bytes");
    FailDownloads(Kind::kUnauthorized, "wrong password");
    EXPECT_EQ(Failure<kro_err::Error>({"r//x.tgz"}), "wrong password");
    EXPECT_EQ(store_->log(), (Lines{"Get x.tgz"}));
    EXPECT_EQ(Log(6), (Lines{"5: Get 'r/x.tgz'"}));
    EXPECT_EQ(Below("r"), (Lines{}));
}

TEST_F(GetCommand, CredentialsRefusedLaterEndTheTriesWithoutAnAttemptsFile) {
    store_->SetFile("x.tgz", "bytes");
    FailDownloads(Kind::kUnavailable);
    fake_clock::OnSleep([&](int) { FailDownloads(Kind::kUnauthorized, "wrong password"); });
    EXPECT_EQ(Failure<kro_err::Error>({"r//x.tgz"}), "wrong password");
    EXPECT_EQ(fake_clock::Sleeps(), (std::vector<int>{60000}));
    EXPECT_EQ(Below("r"), (Lines{}));
}

TEST_F(GetCommand, AFileNotListedAtTheRootIsNotTriedAgain) {
    store_->SetFile("x.tgz.part1", "bytes");
    store_->SetFile("web1/2026-11-20/y.tgz", "bytes");
    FailDownloads(Kind::kUnavailable);
    for (const char* const name : {"x.tgz", "web1/2026-11-20/y.tgz"}) {
        store_->ClearLog();
        EXPECT_EQ(Failure<kro_err::Error>({std::string("r//") + name}), "the line broke");
        EXPECT_EQ(store_->log(), (Lines{std::string("Get ") + name, "List"}));
        EXPECT_EQ(Local(std::string("r/") + name + ".attempts"),
                  "2026-11-20 12:00:00 the line broke\n");
    }
    EXPECT_EQ(Log(4), (Lines{}));
    EXPECT_EQ(fake_clock::Sleeps(), std::vector<int>());
}

TEST_F(GetCommand, EveryGiveUpAddsALineToTheAttemptsFile) {
    FailDownloads(Kind::kUnavailable, "two\nlines");
    Failure({"r//x.tgz"});
    fake_clock::Set(fake_clock::kStart + 5);
    Failure({"r//x.tgz"});
    EXPECT_EQ(Local("r/x.tgz.attempts"),
              "2026-11-20 12:00:00 two\\nlines\n2026-11-20 12:00:05 two\\nlines\n");
}

TEST_F(GetCommand, ADownloadGivenUpIsToldEvenWhenItCannotBeMarked) {
    std::filesystem::create_directories("r/x.tgz.attempts");
    EXPECT_EQ(Failure<kro_err::Error>({"r//x.tgz"}), "no file 'x.tgz' on the storage");
}

TEST_F(GetCommand, AnErrorOfTheListingTakesThePlaceOfTheDownloads) {
    store_->SetFile("x.tgz", "bytes");
    store_->SetHook([](const std::string& operation, const std::string&) {
        throw kro_err::Error(Kind::kUnavailable, operation + " failed");
    });
    EXPECT_EQ(Failure<kro_err::Error>({"r//x.tgz"}), "List failed");
    EXPECT_EQ(Below("r"), (Lines{}));
    EXPECT_EQ(fake_clock::Sleeps(), std::vector<int>());
}

TEST_F(GetCommand, AnErrorOfAnotherTypePassesOutAtOnce) {
    store_->SetFile("x.tgz", "bytes");
    store_->SetHook(
        [](const std::string&, const std::string&) { throw std::logic_error("no storage error"); });
    EXPECT_EQ(TextOf<std::logic_error>([] { CallGet({"r//x.tgz"}); }), "no storage error");
    EXPECT_EQ(store_->log(), (Lines{"Get x.tgz"}));
    EXPECT_EQ(Below("r"), (Lines{}));
}

}  // namespace
