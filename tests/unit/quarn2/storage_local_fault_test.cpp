// The local storage when system calls fail. The linker replaces the calls.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <map>

#include "kro/kro_file.h"
#include "quarn2_backend/registry.h"
#include "storage_site.h"

using kro_err::Kind;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;

namespace {

// Functions that run at the start of the replaced calls, by the name of the call. A result other
// than 0 makes the call fail with this errno.
std::map<std::string, std::function<int()>>& Faults() {
    static std::map<std::string, std::function<int()>> faults;
    return faults;
}

bool Fails(const char* function) {
    const auto fault = Faults().find(function);
    if (fault == Faults().end()) return false;
    const int error = fault->second();
    if (error != 0) errno = error;
    return error != 0;
}

std::function<int()> Always(int error) {
    return [error] { return error; };
}

// Succeeds `count` times, then fails.
std::function<int()> After(int count, int error) {
    return [count, error]() mutable { return count-- > 0 ? 0 : error; };
}

}  // namespace

extern "C" {
int __real_fsync(int fd);
int __real_rename(const char* from, const char* to);
int __real_mkdir(const char* path, mode_t mode);
ssize_t __real_pwrite(int fd, const void* data, size_t size, off_t offset);
ssize_t __real_write(int fd, const void* data, size_t size);

int __wrap_fsync(int fd) { return Fails("fsync") ? -1 : __real_fsync(fd); }
int __wrap_rename(const char* from, const char* to) {
    return Fails("rename") ? -1 : __real_rename(from, to);
}
int __wrap_mkdir(const char* path, mode_t mode) {
    return Fails("mkdir") ? -1 : __real_mkdir(path, mode);
}
// Always fails, because the storage would not make the tested calls if the file system cloned the
// file.
int __wrap_ioctl(int, unsigned long, ...) {
    errno = EOPNOTSUPP;
    return -1;
}
ssize_t __wrap_pwrite(int fd, const void* data, size_t size, off_t offset) {
    return Fails("pwrite") ? -1 : __real_pwrite(fd, data, size, offset);
}
ssize_t __wrap_write(int fd, const void* data, size_t size) {
    return Fails("write") ? -1 : __real_write(fd, data, size);
}
}

namespace {

class LocalFaults : public testing::Test {
  protected:
    LocalFaults() { local_files::Save(source_, local_files::Noise(100'000)); }
    ~LocalFaults() override { Faults().clear(); }

    std::vector<std::string> Everything() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(root_.path())) {
            if (!entry.is_directory()) {
                names.push_back(entry.path().lexically_relative(root_.path()).string());
            }
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    // Uploads in a child process. A fault ends it with a signal.
    void UploadAndBeKilled(const std::string& remote) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            storage_->Upload(remote, source_);
            _exit(0);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    }

    TempDir root_;
    TempDir local_;
    std::string source_ = local_ / "source";
    std::shared_ptr<quarn2::Storage> storage_ =
        quarn2::GetStorage(quarn2::BackupToken("local://" + root_.path()));
};

// --- A full disk ---

struct Fault {
    std::string name;
    std::string function;
    int error;

    friend std::ostream& operator<<(std::ostream& out, const Fault& fault) {
        return out << fault.name;
    }
};

class LocalFull : public LocalFaults, public testing::WithParamInterface<Fault> {};

TEST_P(LocalFull, IsFalseAndLeavesTheOldFile) {
    local_files::Save(root_ / "file", "old");
    Faults()[GetParam().function] = Always(GetParam().error);
    EXPECT_FALSE(storage_->Upload("file", source_));
    EXPECT_FALSE(storage_->Upload("dir/file", source_));
    EXPECT_EQ(local_files::Load(root_ / "file"), "old");
    EXPECT_THAT(Everything(), ElementsAre("file"));

    Faults().clear();
    EXPECT_TRUE(storage_->Upload("dir/file", source_));
    EXPECT_TRUE(local_files::Load(root_ / "dir/file") == local_files::Load(source_));
}

INSTANTIATE_TEST_SUITE_P(Local, LocalFull,
                         testing::Values(Fault{"fsync", "fsync", ENOSPC},
                                         Fault{"fsync_quota", "fsync", EDQUOT},
                                         Fault{"rename", "rename", ENOSPC},
                                         Fault{"write", "pwrite", ENOSPC},
                                         Fault{"write_quota", "pwrite", EDQUOT}),
                         [](const auto& test) { return test.param.name; });

TEST_F(LocalFaults, NoRoomForADirectoryIsFalse) {
    Faults()["mkdir"] = Always(ENOSPC);
    EXPECT_FALSE(storage_->Upload("dir/file", source_));
    EXPECT_TRUE(storage_->Upload("file", source_));
}

TEST_F(LocalFaults, NoRoomWhileBytesAreCopiedIsFalse) {
    const quarn2::BackupToken token("local://" + root_.path());
    const auto backend = quarn2::FindScheme("local")->open(token);
    TextSource source(local_files::Noise(1'000'000));
    Faults()["write"] = After(2, ENOSPC);
    EXPECT_FALSE(backend->Put("file", source));
    EXPECT_THAT(Everything(), IsEmpty());
}

// --- Other failures ---

struct Broken {
    Fault fault;
    Kind kind;

    friend std::ostream& operator<<(std::ostream& out, const Broken& broken) {
        return out << broken.fault;
    }
};

class LocalBroken : public LocalFaults, public testing::WithParamInterface<Broken> {};

TEST_P(LocalBroken, ThrowsAndLeavesTheOldFile) {
    local_files::Save(root_ / "file", "old");
    Faults()[GetParam().fault.function] = Always(GetParam().fault.error);
    EXPECT_THAT(KindOf([&] { storage_->Upload("file", source_); }), Optional(GetParam().kind));
    EXPECT_EQ(local_files::Load(root_ / "file"), "old");
    EXPECT_THAT(Everything(), ElementsAre("file"));
}

INSTANTIATE_TEST_SUITE_P(Local, LocalBroken,
                         testing::Values(Broken{{"fsync", "fsync", EIO}, Kind::kUnavailable},
                                         Broken{{"rename", "rename", EROFS}, Kind::kUnavailable},
                                         Broken{{"rename_denied", "rename", EACCES}, Kind::kFailed},
                                         Broken{{"write", "pwrite", ESTALE}, Kind::kUnavailable}),
                         [](const auto& test) { return test.param.fault.name; });

// Simulates that the disk is unmounted between two system calls.
TEST_F(LocalFaults, RootThatGoesDuringTheUploadIsWorthAnotherTry) {
    const std::string elsewhere = local_ / "unmounted";
    for (const char* const function : {"pwrite", "fsync", "rename", "mkdir"}) {
        Faults()[function] = [&] {
            std::filesystem::rename(root_.path(), elsewhere);
            Faults().clear();
            return 0;
        };
        EXPECT_THAT(KindOf([&] { storage_->Upload("dir/file", source_); }),
                    Optional(Kind::kUnavailable))
            << function;
        EXPECT_FALSE(local_files::Has(root_.path())) << function;
        std::filesystem::rename(elsewhere, root_.path());
        std::filesystem::remove_all(root_ / "dir");
    }
    EXPECT_TRUE(storage_->Upload("dir/file", source_));
    EXPECT_THAT(Everything(), ElementsAre("dir/file"));
}

TEST_F(LocalFaults, EachErrorOfARemovalHasItsKind) {
    ASSERT_TRUE(storage_->Upload("dir/file", source_));
    Faults()["fsync"] = Always(EIO);
    EXPECT_THAT(KindOf([&] { storage_->SyncRemovals("dir"); }), Optional(Kind::kUnavailable));
    EXPECT_THAT(KindOf([&] { storage_->RemoveDir("dir"); }), Optional(Kind::kUnavailable));
    Faults()["mkdir"] = Always(EACCES);
    EXPECT_THAT(KindOf([&] { storage_->MkDir("new"); }), Optional(Kind::kFailed));
    Faults()["mkdir"] = Always(EROFS);
    EXPECT_THAT(KindOf([&] { storage_->MkDir("new"); }), Optional(Kind::kUnavailable));
}

// The new file already has its final name, so "no room, nothing stored" would be false.
TEST_F(LocalFaults, FullDiskAfterTheRenameIsAFailure) {
    Faults()["fsync"] = After(1, ENOSPC);
    EXPECT_THAT(KindOf([&] { storage_->Upload("file", source_); }), Optional(Kind::kFailed));
    EXPECT_THAT(Everything(), ElementsAre("file"));
}

TEST_F(LocalFaults, NewDirectoriesAreSyncedFromAbove) {
    int synced = 0;
    Faults()["fsync"] = [&synced] {
        ++synced;
        return 0;
    };
    EXPECT_TRUE(storage_->Upload("user/2026-11-20/file", source_));
    EXPECT_EQ(synced, 4) << "the root, user, the file, 2026-11-20";
    EXPECT_TRUE(storage_->Upload("user/2026-11-20/other", source_));
    EXPECT_EQ(synced, 6) << "the file, 2026-11-20";
}

TEST_F(LocalFaults, DownloadThatCannotBeSyncedKeepsTheOldFile) {
    local_files::Save(root_ / "file", "new");
    local_files::Save(local_ / "target", "old");
    Faults()["fsync"] = Always(EIO);
    EXPECT_THAT(KindOf([&] { storage_->Download("file", local_ / "target"); }),
                Optional(Kind::kFailed));
    EXPECT_EQ(local_files::Load(local_ / "target"), "old");
    EXPECT_FALSE(local_files::Has(local_ / ".target.part~"));
}

TEST_F(LocalFaults, FullLocalDiskIsADownloadFailure) {
    local_files::Save(root_ / "file", "new");
    Faults()["fsync"] = Always(ENOSPC);
    EXPECT_THAT(KindOf([&] { storage_->Download("file", local_ / "target"); }),
                Optional(Kind::kFailed));
    EXPECT_FALSE(local_files::Has(local_ / "target"));
}

// --- A source that changes ---

TEST_F(LocalFaults, SourceThatShrinksIsAFailure) {
    local_files::Save(root_ / "file", "old");
    Faults()["pwrite"] = [this] {
        EXPECT_EQ(truncate(source_.c_str(), 10), 0);
        return 0;
    };
    EXPECT_THAT(KindOf([&] { storage_->Upload("file", source_); }), Optional(Kind::kFailed));
    EXPECT_EQ(local_files::Load(root_ / "file"), "old");
    EXPECT_THAT(Everything(), ElementsAre("file"));
}

TEST_F(LocalFaults, SourceThatGrowsIsAFailure) {
    local_files::Save(root_ / "file", "old");
    Faults()["pwrite"] = [this] {
        EXPECT_EQ(truncate(source_.c_str(), 200'000), 0);
        return 0;
    };
    EXPECT_THAT(KindOf([&] { storage_->Upload("file", source_); }), Optional(Kind::kFailed));
    EXPECT_EQ(local_files::Load(root_ / "file"), "old");
    EXPECT_THAT(Everything(), ElementsAre("file"));
}

// --- A killed upload ---

class LocalKilled : public LocalFaults, public testing::WithParamInterface<std::string> {};

TEST_P(LocalKilled, UploadLeavesTheOldFileAndNothingThatStays) {
    ASSERT_TRUE(storage_->Upload("dir/file", source_));
    const std::string old = local_files::Load(source_);
    local_files::Save(source_, local_files::Noise(200'000, 2));
    Faults()[GetParam()] = [] { return kill(getpid(), SIGKILL); };
    UploadAndBeKilled("dir/file");
    Faults().clear();

    EXPECT_TRUE(local_files::Load(root_ / "dir/file") == old);
    EXPECT_EQ(Everything().size(), 2U) << "the test needs a leftover";
    std::vector<std::string> names;
    storage_->List(names, "dir");
    EXPECT_THAT(names, ElementsAre("file"));
    EXPECT_TRUE(storage_->Upload("dir/file", source_));
    EXPECT_TRUE(local_files::Load(root_ / "dir/file") == local_files::Load(source_));
    EXPECT_THAT(Everything(), ElementsAre("dir/file"));
}

TEST_P(LocalKilled, RemovalTakesTheLeftover) {
    Faults()[GetParam()] = [] { return kill(getpid(), SIGKILL); };
    UploadAndBeKilled("file");
    Faults().clear();
    EXPECT_EQ(Everything().size(), 1U) << "the test needs a leftover";
    storage_->RemoveFile("file");
    EXPECT_THAT(Everything(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Local, LocalKilled, testing::Values("pwrite", "fsync", "rename"),
                         [](const auto& test) { return test.param; });

TEST_F(LocalFaults, TextOfAFailureNamesTheReason) {
    Faults()["fsync"] = Always(EIO);
    try {
        storage_->Upload("file", source_);
        FAIL() << "no failure";
    } catch (const kro_err::Error& error) {
        EXPECT_THAT(error.what(), HasSubstr("Input/output error"));
    }
}

}  // namespace
