// Uploads and downloads with servers that have fewer features than OpenSSH's, or that interrupt the
// connection.
#include <gmock/gmock.h>

#include "backends/sftp/download.h"
#include "backends/sftp/status.h"
#include "backends/sftp/tree.h"
#include "backends/sftp/upload.h"
#include "backends/sftp/upload_lock.h"
#include "sftp_fake_server.h"
#include "storage_site.h"

namespace {

using fake_sftp::Disk;
using fake_sftp::Server;
using kro_err::Kind;
using quarn2::sftp::Place;
using quarn2::sftp::Session;
using testing::ElementsAre;
using testing::Optional;
using testing::Pair;

const char* const kPath = "/root/file";
const char* const kAside = "/root/..file.part~.part~";

struct TextSink final : quarn2::ByteSink {
    void Expect(std::int64_t size) override { EXPECT_GE(size, 0); }
    void Write(std::span<const std::byte> bytes) override { text += fake_sftp::Text(bytes); }
    std::string text;
};

class SftpTransfer : public testing::Test {
  protected:
    std::unique_ptr<Session> Connect() {
        return std::make_unique<Session>(std::make_unique<Server>(disk_));
    }
    bool Put(const std::string& name, const std::string& content) {
        TextSource source(content);
        quarn2::sftp::UploadState state;
        return quarn2::sftp::Upload(*Connect(), place_, name, source, state);
    }
    std::string Get(const std::string& name) {
        TextSink sink;
        bool started = false;
        quarn2::sftp::Download(*Connect(), place_, name, sink, started);
        return sink.text;
    }
    std::vector<std::string> Files() const {
        std::vector<std::string> names;
        for (const auto& [name, content] : disk_.files) names.push_back(name);
        return names;
    }

    Disk disk_;
    Place place_{"/root"};
};

TEST_F(SftpTransfer, ReplacesAFileWithoutTheExtension) {
    EXPECT_TRUE(Put("file", "old"));
    EXPECT_TRUE(Put("file", "new"));
    EXPECT_THAT(disk_.files, ElementsAre(Pair(kPath, "new")));
}

// Uploads on one connection to a server whose handles are predictable. Before each test, two
// uploads into the directory "dir" have got the same handle.
class SftpEarlyData : public SftpTransfer {
  protected:
    SftpEarlyData() { Begin(); }

    void Begin() {
        disk_ = Disk();
        disk_.first_handle = 0;
        disk_.extensions = {"fsync@openssh.com", "posix-rename@openssh.com", "statvfs@openssh.com"};
        session_ = Connect();
        EXPECT_TRUE(PutNext("dir/first", "1"));
        EXPECT_TRUE(PutNext("dir/second", "2"));
        disk_.files.clear();
        disk_.requests.clear();
    }
    bool PutNext(const std::string& name, const std::string& content) {
        TextSource source(content);
        quarn2::sftp::UploadState state;
        return quarn2::sftp::Upload(*session_, place_, name, source, state);
    }

    std::unique_ptr<Session> session_;
};

const char* const kEarlyPath = "/root/dir/file";
const char* const kEarlyTemporary = "/root/dir/.file.part~";

TEST_F(SftpEarlyData, AreStored) {
    const std::string content = local_files::Noise(200 * 1000);
    EXPECT_TRUE(PutNext("dir/file", content));
    EXPECT_THAT(disk_.files, ElementsAre(Pair(kEarlyPath, content)));
    EXPECT_TRUE(PutNext("dir/file", ""));
    EXPECT_THAT(disk_.files, ElementsAre(Pair(kEarlyPath, "")));
    disk_.requests.clear();
    EXPECT_TRUE(PutNext("dir/file", "x"));
    using enum quarn2::sftp::Type;
    EXPECT_THAT(disk_.requests, ElementsAre(kStat, kOpen, kWrite, kExtended, kFstat, kClose, kLstat,
                                            kOpen, kExtended, kExtended, kClose))
        << "nothing is sent twice";
}

TEST_F(SftpEarlyData, OfAFullDiskAreNoRoomAndNotShown) {
    disk_.refuse_writes = true;
    EXPECT_THAT(KindOf([this] { PutNext("dir/file", "x"); }), Optional(Kind::kFailed));
    EXPECT_THAT(Files(), ElementsAre());
    Begin();
    disk_.refuse_writes = true;
    disk_.free_blocks = 3;
    EXPECT_FALSE(PutNext("dir/file", "x"));
    EXPECT_THAT(Files(), ElementsAre());
}

TEST_F(SftpEarlyData, AreSentAgainIfTheHandleIsAnotherOne) {
    disk_.first_handle = 7;
    EXPECT_TRUE(PutNext("dir/file", "content"));
    EXPECT_TRUE(PutNext("dir/file", "another"));
    EXPECT_THAT(disk_.files, ElementsAre(Pair(kEarlyPath, "another")));
}

TEST_F(SftpEarlyData, AreSentAgainIfTheServerWasNotReady) {
    disk_.opens_late = true;
    EXPECT_TRUE(PutNext("dir/file", "content"));
    EXPECT_TRUE(PutNext("dir/file", "another"));
    EXPECT_THAT(disk_.files, ElementsAre(Pair(kEarlyPath, "another")));
}

TEST_F(SftpEarlyData, AreSentAgainIfTheDirectoryIsGone) {
    disk_.directories.erase("/root/dir");
    EXPECT_TRUE(PutNext("dir/file", "content"));
    EXPECT_THAT(disk_.files, ElementsAre(Pair(kEarlyPath, "content")));
}

TEST_F(SftpEarlyData, DoNotMakeAMissingRoot) {
    disk_.directories.clear();
    EXPECT_THAT(KindOf([this] { PutNext("dir/file", "x"); }), Optional(Kind::kNotFound));
    EXPECT_THAT(disk_.directories, ElementsAre());
    EXPECT_THAT(Files(), ElementsAre());
}

TEST_F(SftpEarlyData, AreNotWrittenIntoTheFileOfAnotherMachine) {
    disk_.files = {{kEarlyTemporary, "another's"}};
    disk_.growing = kEarlyTemporary;
    EXPECT_TRUE(PutNext("dir/file", "mine"));
    EXPECT_THAT(Files(), ElementsAre(kEarlyTemporary, kEarlyPath));
    EXPECT_THAT(disk_.files[kEarlyTemporary], testing::StartsWith("another's"));
    EXPECT_EQ(disk_.files[kEarlyPath], "mine");
}

TEST_F(SftpEarlyData, ReplaceTheFileOfAnInterruptedUpload) {
    disk_.files = {{kEarlyTemporary, "a longer leftover"}};
    EXPECT_TRUE(PutNext("dir/file", "mine"));
    EXPECT_THAT(disk_.files, ElementsAre(Pair(kEarlyPath, "mine")));
}

TEST_F(SftpEarlyData, NeverRenameAFileThatAnotherMachineHasBegun) {
    disk_.replaced = {{kEarlyTemporary, "cont"}};
    EXPECT_THAT(KindOf([this] { PutNext("dir/file", "content"); }), Optional(Kind::kUnavailable));
    EXPECT_THAT(disk_.files, ElementsAre(Pair(kEarlyTemporary, "cont")));
}

TEST_F(SftpEarlyData, ThatAreStoredInPartAreNotShown) {
    disk_.writes_back = true;
    disk_.replaced = {{kEarlyTemporary, "cont"}};
    EXPECT_THAT(KindOf([this] { PutNext("dir/file", "content"); }), Optional(Kind::kFailed));
    EXPECT_THAT(Files(), ElementsAre());
}

TEST_F(SftpEarlyData, DoNotReplaceADirectory) {
    disk_.directories.insert(kEarlyPath);
    EXPECT_THAT(KindOf([this] { PutNext("dir/file", "content"); }), Optional(Kind::kFailed));
    EXPECT_THAT(Files(), ElementsAre());
}

TEST_F(SftpEarlyData, OfAChangedSourceAreNotShown) {
    TextSource source("content");
    source.changed = true;
    quarn2::sftp::UploadState state;
    EXPECT_THAT(KindOf([&] { quarn2::sftp::Upload(*session_, place_, "dir/file", source, state); }),
                Optional(Kind::kFailed));
    EXPECT_THAT(Files(), ElementsAre());
}

// Breaks the connection after each possible number of requests.
TEST_F(SftpEarlyData, NeverShowAPart) {
    for (int requests = 0;; ++requests) {
        Begin();
        disk_.files = {{kEarlyPath, "old"}};
        disk_.requests_left = requests;
        const auto kind = KindOf([this] { PutNext("dir/file", "new"); });
        disk_.requests_left = -1;
        EXPECT_TRUE(disk_.files[kEarlyPath] == "old" || disk_.files[kEarlyPath] == "new")
            << "after " << requests << " requests: " << disk_.files[kEarlyPath];
        if (!kind) break;
        EXPECT_EQ(*kind, Kind::kUnavailable);
        EXPECT_TRUE(Put("dir/file", "third")) << "after " << requests << " requests";
        EXPECT_THAT(disk_.files, ElementsAre(Pair(kEarlyPath, "third")));
    }
}

// Breaks the connection after each possible number of requests.
TEST_F(SftpTransfer, NeverLosesTheOldFileWithoutTheExtension) {
    int breaks = 0;
    for (int requests = 0;; ++requests) {
        disk_.files = {{kPath, "old"}};
        disk_.requests_left = requests + 1;  // the greeting is one more request
        const auto kind = KindOf([this] { Put("file", "new"); });
        disk_.requests_left = -1;
        const std::string got = Get("file");
        EXPECT_TRUE(got == "old" || got == "new") << "after " << requests << " requests: " << got;
        TextSource source("third");
        EXPECT_TRUE(Put("file", "third")) << "after " << requests << " requests";
        EXPECT_EQ(Get("file"), "third");
        EXPECT_FALSE(disk_.files.contains(kAside)) << "after " << requests << " requests";
        if (!kind) break;
        EXPECT_EQ(*kind, Kind::kUnavailable);
        ++breaks;
    }
    EXPECT_GT(breaks, 8) << "each request of an upload was broken off once";
}

TEST_F(SftpTransfer, FindsTheDisplacedFileWithoutTheExtension) {
    disk_.files = {{kAside, "old"}};
    EXPECT_EQ(Get("file"), "old");
    EXPECT_THAT(Files(), ElementsAre(kPath));
    disk_.files = {{kAside, "old"}};
    quarn2::sftp::Remove(*Connect(), place_, "file");
    EXPECT_THAT(Files(), ElementsAre());
}

const char* const kTemporary = "/root/.file.part~";

TEST_F(SftpTransfer, TakesTheNextNameWhereAnotherOfThisMachineWrites) {
    quarn2::sftp::UploadLock another;
    ASSERT_TRUE(another.TryLock(place_.server() + kTemporary));
    disk_.files = {{kTemporary, "another's"}};
    EXPECT_TRUE(Put("file", "mine"));
    EXPECT_THAT(Files(), ElementsAre(kTemporary, kPath));
    EXPECT_EQ(Get("file"), "mine");
}

TEST_F(SftpTransfer, TakesTheNextNameWhereTheFileGrows) {
    disk_.files = {{kTemporary, "another's"}};
    disk_.growing = kTemporary;
    EXPECT_TRUE(Put("file", "mine"));
    EXPECT_THAT(Files(), ElementsAre(kTemporary, kPath));
}

TEST_F(SftpTransfer, RemovesWhatDoesNotGrow) {
    disk_.files = {{kTemporary, "left"}};
    EXPECT_TRUE(Put("file", "mine"));
    EXPECT_THAT(disk_.files, ElementsAre(Pair(kPath, "mine")));
}

// The server still writes what it has received from a broken connection.
TEST_F(SftpTransfer, RemovesWhatStopsToGrow) {
    disk_.files = {{kTemporary, "left"}};
    disk_.growing = kTemporary;
    disk_.growths_left = 2;
    EXPECT_TRUE(Put("file", "mine"));
    EXPECT_THAT(disk_.files, ElementsAre(Pair(kPath, "mine")));
}

TEST_F(SftpTransfer, StoresWhereDataAndTimeAppearAtTheClose) {
    disk_.late_time = true;
    EXPECT_TRUE(Put("file", "old"));
    disk_.writes_back = true;
    EXPECT_TRUE(Put("file", "content"));
    EXPECT_THAT(disk_.files, ElementsAre(Pair(kPath, "content")));
}

// The other machine's file stays, because that machine still writes it.
TEST_F(SftpTransfer, NeverRenamesAFileThatAnotherMachineHasBegun) {
    disk_.replaced = {{kTemporary, "cont"}};
    EXPECT_THAT(KindOf([this] { Put("file", "content"); }), Optional(Kind::kUnavailable));
    EXPECT_THAT(disk_.files, ElementsAre(Pair(kTemporary, "cont")));
}

TEST_F(SftpTransfer, RemovesItsFileThatTheServerStoredInPart) {
    disk_.writes_back = true;
    disk_.replaced = {{kTemporary, "cont"}};
    EXPECT_THAT(KindOf([this] { Put("file", "content"); }), Optional(Kind::kFailed));
    EXPECT_THAT(Files(), ElementsAre());
}

TEST_F(SftpTransfer, TruncatesWhereFilesCannotBeMadeOtherwise) {
    disk_.needs_truncate = true;
    EXPECT_TRUE(Put("dir/file", "content"));
    EXPECT_THAT(disk_.files, ElementsAre(Pair("/root/dir/file", "content")));
}

TEST_F(SftpTransfer, NeverTruncatesAnotherMachinesFile) {
    disk_.needs_truncate = true;
    disk_.files = {{kTemporary, "another's"}};
    disk_.growing = kTemporary;
    EXPECT_TRUE(Put("file", "mine"));
    EXPECT_THAT(Files(), ElementsAre(kTemporary, kPath));
    EXPECT_THAT(disk_.files[kTemporary], testing::StartsWith("another's"));
    EXPECT_EQ(Get("file"), "mine");
}

TEST(SftpUploadLock, IsHeldOnceAndGoesWithItsOwner) {
    quarn2::sftp::UploadLock second;
    {
        quarn2::sftp::UploadLock first;
        EXPECT_TRUE(first.TryLock("a file of this test"));
        EXPECT_FALSE(second.TryLock("a file of this test"));
        EXPECT_TRUE(second.TryLock("another file of this test"));
    }
    EXPECT_TRUE(second.TryLock("a file of this test"));
}

TEST_F(SftpTransfer, RefusedWriteIsNoRoomOnlyWhenThereIsNone) {
    disk_.refuse_writes = true;
    disk_.extensions = {"statvfs@openssh.com"};
    EXPECT_THAT(KindOf([this] { Put("file", "x"); }), Optional(Kind::kFailed));
    EXPECT_THAT(Files(), ElementsAre());
    disk_.free_blocks = 3;
    EXPECT_FALSE(Put("file", "x"));
    EXPECT_THAT(Files(), ElementsAre());
}

TEST_F(SftpTransfer, QuotaInTheNameOfAFileIsNoQuota) {
    disk_.refuse_writes = true;
    disk_.write_text = "write of /root/quota/file failed";
    EXPECT_THAT(KindOf([this] { Put("quota/file", "x"); }), Optional(Kind::kFailed));
    disk_.write_text = "/root/quota/file: Disk quota exceeded";
    EXPECT_FALSE(Put("quota/file", "x"));
}

TEST_F(SftpTransfer, UploadWhoseFileVanishedIsWorthAnotherTry) {
    disk_.refuse_writes = true;
    disk_.write_code = quarn2::sftp::Code::kNoSuchFile;
    EXPECT_THAT(KindOf([this] { Put("file", "x"); }), Optional(Kind::kUnavailable));
}

// Each line matters: the caller drops an upload at once for "unauthorized", and deletes old backups
// for "no room".
TEST(SftpStatus, HasOneMeaningForEachCode) {
    using enum quarn2::Failure;
    using enum quarn2::sftp::Code;
    const struct {
        quarn2::sftp::Code code;
        const char* text;
        quarn2::Failure failure;
    } cases[] = {
        {kEof, "", kFailed},
        {kNoSuchFile, "", kNotFound},
        {kPermissionDenied, "", kFailed},
        {kPermissionDenied, "Permission denied", kFailed},
        {kPermissionDenied, "Disk quota exceeded", kNoRoom},
        {kFailure, "", kFailed},
        {kFailure, "Failure", kFailed},
        {kFailure, "/srv/quota/file: Failure", kFailed},
        {kFailure, "No space left on device", kNoRoom},
        {kFailure, "There is not enough space on the disk.", kNoRoom},
        {kFailure, "write: disk is full", kNoRoom},
        {kFailure, "disk full", kNoRoom},
        {kFailure, "/srv/quota/file: quota exceeded", kNoRoom},
        {kBadMessage, "no space", kFailed},
        {kNoConnection, "", kUnavailable},
        {kConnectionLost, "quota", kUnavailable},
        {kUnsupported, "", kFailed},
        {kInvalidHandle, "", kUnavailable},
        {kNoSuchPath, "", kNotFound},
        {kFileAlreadyExists, "no space", kFailed},
        {kWriteProtected, "", kUnavailable},
        {kNoMedia, "", kUnavailable},
        {kNoSpace, "", kNoRoom},
        {kQuotaExceeded, "", kNoRoom},
        {kLockConflict, "", kUnavailable},
        {static_cast<quarn2::sftp::Code>(16), "quota", kFailed},
        {static_cast<quarn2::sftp::Code>(4711), "", kFailed},
    };
    for (const auto& [code, text, failure] : cases) {
        const quarn2::sftp::Status status{code, text};
        EXPECT_EQ(quarn2::sftp::FailureOf(status, "/srv/quota/file"), failure)
            << static_cast<int>(code) << " " << text;
        EXPECT_THAT(
            KindOf([&status] { quarn2::sftp::ThrowRefused("look at", "/srv/quota/file", status); }),
            Optional(quarn2::KindOf(failure)));
    }
}

TEST_F(SftpTransfer, PutsShortAndDisorderedAnswersTogether) {
    disk_.files[kPath] = local_files::Noise(1000 * 1000);
    disk_.longest_read = 7001;
    EXPECT_TRUE(Get("file") == disk_.files[kPath]);
    disk_.backwards = true;
    EXPECT_TRUE(Get("file") == disk_.files[kPath]);
    disk_.longest_read = 0;
    EXPECT_TRUE(Get("file") == disk_.files[kPath]);
}

// Otherwise the observer of the download would get a negative size.
TEST_F(SftpTransfer, RefusesASizeThatNoFileHas) {
    EXPECT_TRUE(Put("file", "content"));
    disk_.told_size = std::uint64_t{1} << 63U;
    EXPECT_THAT(KindOf([this] { Get("file"); }), Optional(Kind::kFailed));
    disk_.told_size = 0;
    EXPECT_EQ(Get("file"), "content");
}

TEST_F(SftpTransfer, StoresManyPieces) {
    const std::string content = local_files::Noise(3 * 1024 * 1024 + 17);
    EXPECT_TRUE(Put("a/b/file", content));
    EXPECT_TRUE(disk_.files["/root/a/b/file"] == content);
}

TEST_F(SftpTransfer, MissingRootIsNeverMade) {
    disk_.directories.clear();
    EXPECT_THAT(KindOf([this] { Put("a/file", "x"); }), Optional(Kind::kNotFound));
    EXPECT_THAT(KindOf([this] { Get("file"); }), Optional(Kind::kNotFound));
    EXPECT_TRUE(disk_.directories.empty());
}

TEST(SftpPlace, TemporaryNamesBelongToOneTargetAlone) {
    const auto paths = quarn2::sftp::TemporaryPaths("/root/a");
    EXPECT_EQ(paths.front(), "/root/.a.part~");
    EXPECT_EQ(paths.size(), 8U);
    for (const std::string& path : paths) EXPECT_NE(path, quarn2::sftp::DisplacedPath("/root/a"));
    EXPECT_EQ(quarn2::sftp::DisplacedTarget("..a.part~.part~"), "a");
    for (const char* const name : {"a", ".a.part~", "...a.part~.part~.part~", "..part~.part~"}) {
        EXPECT_EQ(quarn2::sftp::DisplacedTarget(name), std::nullopt) << name;
    }
}

TEST(SftpPlace, LongNamesHaveFewerTemporaryOnes) {
    const std::string name(248, 'x');
    EXPECT_THAT(quarn2::sftp::TemporaryPaths(name), ElementsAre("." + name + ".part~"));
}

}  // namespace
