// Uploads to and downloads from servers that are less able than OpenSSH's, or break off.
#include <gmock/gmock.h>

#include "backends/sftp/download.h"
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

// Every moment at which the connection can break is tried.
TEST_F(SftpTransfer, NeverLosesTheOldFileWithoutTheExtension) {
    int breaks = 0;
    for (int requests = 0;; ++requests) {
        disk_.files = {{kPath, "old"}};
        disk_.requests_left = requests + 1;  // and the greeting
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
    ASSERT_TRUE(another.TryTake(place_.server() + kTemporary));
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

TEST(SftpUploadLock, IsHeldOnceAndGoesWithItsOwner) {
    quarn2::sftp::UploadLock second;
    {
        quarn2::sftp::UploadLock first;
        EXPECT_TRUE(first.TryTake("a file of this test"));
        EXPECT_FALSE(second.TryTake("a file of this test"));
        EXPECT_TRUE(second.TryTake("another file of this test"));
    }
    EXPECT_TRUE(second.TryTake("a file of this test"));
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

TEST_F(SftpTransfer, PutsShortAndDisorderedAnswersTogether) {
    disk_.files[kPath] = local_files::Noise(1000 * 1000);
    disk_.longest_read = 7001;
    EXPECT_TRUE(Get("file") == disk_.files[kPath]);
    disk_.backwards = true;
    EXPECT_TRUE(Get("file") == disk_.files[kPath]);
    disk_.longest_read = 0;
    EXPECT_TRUE(Get("file") == disk_.files[kPath]);
}

// Whoever watches the download would be told that less than nothing is to come.
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
