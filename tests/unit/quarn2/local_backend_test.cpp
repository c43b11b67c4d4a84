// Features of the local storage only: its root, links and modes.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <map>

#include "backends/local/errnos.h"
#include "storage_site.h"

using kro_err::Kind;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Optional;

namespace {

std::shared_ptr<quarn2::Storage> Open(const std::string& root) {
    return quarn2::GetStorage(quarn2::BackupToken("local://" + root));
}

std::string FailureOf(const std::string& root) {
    try {
        Open(root);
    } catch (const kro_err::Error& error) {
        return error.what();
    }
    return {};
}

mode_t ModeOf(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_mode & 0777U;
}

class LocalBackend : public testing::Test {
  protected:
    LocalBackend() { local_files::Save(local_ / "source", "bytes"); }

    TempDir root_;
    TempDir local_;
    std::shared_ptr<quarn2::Storage> storage_ = Open(root_.path());
    std::string source_ = local_ / "source";
};

TEST_F(LocalBackend, MissingRootIsNotMade) {
    const std::string root = local_ / "disk";
    EXPECT_EQ(FailureOf(root),
              "storage directory '" + root + "' does not exist; create it or mount its disk");
    EXPECT_THAT(KindOf([&] { Open(root); }), Optional(Kind::kNotFound));
    EXPECT_FALSE(local_files::Has(root));
}

TEST_F(LocalBackend, FileIsNoRoot) {
    EXPECT_EQ(FailureOf(source_), "storage directory '" + source_ + "' is not a directory");
}

TEST_F(LocalBackend, RootThatWentAwayIsNotFoundAndNotMadeAgain) {
    std::filesystem::remove_all(root_.path());
    std::vector<std::string> names;
    EXPECT_THAT(KindOf([&] { storage_->List(names, ""); }), Optional(Kind::kNotFound));
    EXPECT_THAT(KindOf([&] { storage_->MkDir("a"); }), Optional(Kind::kNotFound));
    EXPECT_THAT(KindOf([&] { storage_->RemoveFile("a"); }), Optional(Kind::kNotFound));
    EXPECT_THAT(KindOf([&] { storage_->RemoveDir("a"); }), Optional(Kind::kNotFound));
    EXPECT_THAT(KindOf([&] { storage_->Clear(); }), Optional(Kind::kNotFound));
    EXPECT_THAT(KindOf([&] { storage_->Download("a", local_ / "t"); }), Optional(Kind::kNotFound));
    EXPECT_FALSE(local_files::Has(root_.path()));
}

TEST_F(LocalBackend, UploadWaitsForARootThatComesBack) {
    const std::string elsewhere = local_ / "unmounted";
    std::filesystem::rename(root_.path(), elsewhere);
    try {
        storage_->Upload("a/b", source_);
        FAIL() << "no failure";
    } catch (const kro_err::Error& error) {
        EXPECT_EQ(error.kind(), Kind::kUnavailable);
        EXPECT_EQ(std::string(error.what()), "storage directory '" + root_.path() +
                                                 "' does not exist; create it or mount its disk");
    }
    EXPECT_FALSE(local_files::Has(root_.path()));
    std::filesystem::rename(elsewhere, root_.path());
    EXPECT_TRUE(storage_->Upload("a/b", source_));
}

// Each line matters: the caller drops an upload at once for "unauthorized", and deletes old backups
// for "no room".
TEST(LocalErrno, HasOneMeaning) {
    using enum quarn2::Failure;
    const std::map<int, quarn2::Failure> failures = {{ENOSPC, kNoRoom},
                                                     {EDQUOT, kNoRoom},
                                                     {ENOENT, kNotFound},
                                                     {ENOTDIR, kNotFound},
                                                     {EIO, kUnavailable},
                                                     {EREMOTEIO, kUnavailable},
                                                     {EROFS, kUnavailable},
                                                     {EUCLEAN, kUnavailable},
                                                     {ENODEV, kUnavailable},
                                                     {ENXIO, kUnavailable},
                                                     {ENOMEDIUM, kUnavailable},
                                                     {ESTALE, kUnavailable},
                                                     {ENOTCONN, kUnavailable},
                                                     {ETIMEDOUT, kUnavailable},
                                                     {EHOSTDOWN, kUnavailable},
                                                     {EHOSTUNREACH, kUnavailable},
                                                     {ENETDOWN, kUnavailable},
                                                     {ENETUNREACH, kUnavailable},
                                                     {ECONNABORTED, kUnavailable},
                                                     {ECONNREFUSED, kUnavailable},
                                                     {ECONNRESET, kUnavailable},
                                                     {ENOLCK, kUnavailable},
                                                     {EAGAIN, kUnavailable},
                                                     {EINTR, kUnavailable},
                                                     {EMFILE, kUnavailable},
                                                     {ENFILE, kUnavailable},
                                                     {ENOMEM, kUnavailable},
                                                     {EACCES, kFailed},
                                                     {EPERM, kFailed},
                                                     {EISDIR, kFailed},
                                                     {ENOTEMPTY, kFailed},
                                                     {ENAMETOOLONG, kFailed},
                                                     {ELOOP, kFailed},
                                                     {EINVAL, kFailed},
                                                     {EFBIG, kFailed},
                                                     {EBUSY, kFailed}};
    for (const auto& [error, failure] : failures) {
        EXPECT_EQ(quarn2::local::FailureOf(error), failure) << error;
    }
}

TEST_F(LocalBackend, RelativeRootLiesBelowTheCurrentDirectory) {
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(local_.path());
    std::filesystem::create_directories("var/backup/storage");
    const auto storage = quarn2::GetStorage(quarn2::BackupToken("local:var/backup/storage"));
    EXPECT_TRUE(storage->Upload("user/2026-11-20/file", source_));
    EXPECT_EQ(local_files::Load("var/backup/storage/user/2026-11-20/file"), "bytes");
    std::filesystem::current_path(before);
}

TEST_F(LocalBackend, ModesKeepOthersOut) {
    const mode_t before = umask(0);
    EXPECT_TRUE(storage_->Upload("dir/file", source_));
    storage_->Download("dir/file", local_ / "target");
    umask(before);
    EXPECT_EQ(ModeOf(root_ / "dir"), 0750U);
    EXPECT_EQ(ModeOf(root_ / "dir/file"), 0640U);
    EXPECT_EQ(ModeOf(local_ / "target"), 0640U);
}

TEST_F(LocalBackend, LinkInAFilesPlaceIsNotReadThrough) {
    std::filesystem::create_symlink(source_, root_ / "link");
    EXPECT_THAT(KindOf([&] { storage_->Download("link", local_ / "t"); }), Optional(Kind::kFailed));
}

TEST_F(LocalBackend, LinkInAFilesPlaceIsReplacedNotWrittenThrough) {
    local_files::Save(local_ / "other", "other");
    std::filesystem::create_symlink(local_ / "other", root_ / "link");
    EXPECT_TRUE(storage_->Upload("link", source_));
    EXPECT_EQ(local_files::Load(local_ / "other"), "other");
    EXPECT_EQ(local_files::Load(root_ / "link"), "bytes");
    EXPECT_FALSE(std::filesystem::is_symlink(root_ / "link"));
}

TEST_F(LocalBackend, LinkInATemporaryNamesPlaceIsNotWrittenThrough) {
    local_files::Save(local_ / "other", "other");
    std::filesystem::create_symlink(local_ / "other", root_ / ".file.part~");
    EXPECT_TRUE(storage_->Upload("file", source_));
    EXPECT_EQ(local_files::Load(local_ / "other"), "other");
    EXPECT_EQ(local_files::Load(root_ / "file"), "bytes");
}

class LocalBackendOfOthers : public LocalBackend {
  protected:
    void SetUp() override {
        ASSERT_EQ(geteuid(), 0U) << "links of other users are made by root alone";
        local_files::Save(outside_ / "precious", "x");
        std::filesystem::create_directory(root_ / "user");
        Link("user/there");
        Link("there");
    }
    // Creates a link as another user with write access to the storage's directory could.
    void Link(const std::string& name) const {
        std::filesystem::create_directory_symlink(outside_.path(), root_ / name);
        ASSERT_EQ(lchown((root_ / name).c_str(), 65534, 65534), 0);
    }

    TempDir outside_;
};

TEST_F(LocalBackendOfOthers, LinksToDirectoriesAreNotFollowed) {
    std::vector<std::string> names;
    for (const std::string link : {"there", "user/there"}) {
        const std::vector<std::function<void()>> operations = {
            [&] { storage_->Upload(link + "/file", source_); },
            [&] { storage_->Upload(link + "/deep/file", source_); },
            [&] { storage_->Download(link + "/precious", local_ / "stolen"); },
            [&] { storage_->RemoveFile(link + "/precious"); },
            [&] { storage_->MkDir(link + "/below"); },
            [&] { storage_->RemoveDir(link + "/below"); },
            [&] { storage_->List(names, link); }};
        for (const std::function<void()>& operation : operations) {
            try {
                operation();
                ADD_FAILURE() << "went through " << link;
            } catch (const kro_err::Error& error) {
                EXPECT_EQ(error.kind(), Kind::kFailed);
                EXPECT_EQ(std::string(error.what()),
                          "'" + (root_ / link) +
                              "' on the storage is a symbolic link that belongs to another user; "
                              "remove it");
            }
        }
    }
    EXPECT_EQ(local_files::Load(outside_ / "precious"), "x");
    EXPECT_FALSE(local_files::Has(outside_ / "file"));
    EXPECT_FALSE(local_files::Has(outside_ / "deep"));
}

TEST_F(LocalBackendOfOthers, AdministratorsLinksAreFollowed) {
    ASSERT_EQ(lchown((root_ / "there").c_str(), 0, 0), 0);
    EXPECT_TRUE(storage_->Upload("there/file", source_));
    EXPECT_EQ(local_files::Load(outside_ / "file"), "bytes");
}

TEST_F(LocalBackend, RemovalsDoNotFollowLinks) {
    TempDir outside;
    local_files::Save(outside / "precious", "x");
    std::filesystem::create_directory(root_ / "user");
    std::filesystem::create_directory_symlink(outside.path(), root_ / "user/link");
    std::filesystem::create_directory_symlink(outside.path(), root_ / "link");
    storage_->RemoveDir("link");
    EXPECT_FALSE(local_files::Has(root_ / "link"));
    storage_->RemoveDir("user");
    std::filesystem::create_directory_symlink(outside.path(), root_ / "again");
    storage_->Clear();
    EXPECT_TRUE(std::filesystem::is_empty(root_.path()));
    EXPECT_EQ(local_files::Load(outside / "precious"), "x");
}

TEST_F(LocalBackend, UploadBelowAFileFails) {
    EXPECT_TRUE(storage_->Upload("file", source_));
    for (const char* const name : {"file/below", "file/far/below"}) {
        EXPECT_THAT(KindOf([&] { storage_->Upload(name, source_); }), Optional(Kind::kFailed));
        EXPECT_THAT(KindOf([&] { storage_->MkDir(name); }), Optional(Kind::kFailed));
    }
    EXPECT_THAT(KindOf([&] { storage_->MkDir("file"); }), Optional(Kind::kFailed));
}

TEST_F(LocalBackend, UploadInADirectorysPlaceFails) {
    storage_->MkDir("dir");
    EXPECT_THAT(KindOf([&] { storage_->Upload("dir", source_); }), Optional(Kind::kFailed));
    std::vector<std::string> names;
    storage_->List(names, "");
    EXPECT_THAT(names, ElementsAre("dir"));
    EXPECT_FALSE(local_files::Has(root_ / ".dir.part~"));
}

TEST_F(LocalBackend, PipeAsSourceIsRefusedWithoutWaiting) {
    ASSERT_EQ(mkfifo((local_ / "pipe").c_str(), 0600), 0);
    EXPECT_THAT(KindOf([&] { storage_->Upload("file", local_ / "pipe"); }),
                Optional(Kind::kFailed));
}

}  // namespace
