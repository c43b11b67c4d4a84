#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>

#include "kro/kro_file.h"
#include "temp_dir.h"

namespace {

std::string ErrorType(const std::function<void()>& call) {
    try {
        call();
    } catch (const kro_err::Error& error) {
        return std::string(error.type());
    }
    return "";
}

struct stat StatusOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status;
}

mode_t ModeOf(const std::string& path) { return StatusOf(path).st_mode & 07777; }

std::vector<std::string> Names(const std::string& directory, int flags = 2) {
    std::vector<std::string> names;
    kro_file::Dir dir(directory, flags);
    while (dir.Read()) names.push_back(dir.name());
    std::sort(names.begin(), names.end());
    return names;
}

TEST(FileRead, GivesTheWholeContent) {
    const TempDir dir;
    std::string text(100000, 'x');
    text[70000] = '\0';
    kro_file::Write(dir / "a", text);
    EXPECT_EQ(kro_file::Read(dir / "a"), text);
    EXPECT_EQ(kro_file::ReadE(dir / "a"), text);
    EXPECT_EQ(kro_file::Size(dir / "a"), 100000);
    EXPECT_TRUE(kro_file::Exists(dir / "a"));
}

TEST(FileWrite, DoesNotPutAFileInADevicesPlace) {
    const TempDir dir;
    ASSERT_EQ(::mkfifo((dir / "pipe").c_str(), 0600), 0);
    EXPECT_EQ(ErrorType([&] { kro_file::Write(dir / "pipe", "x"); }), "failed");
    EXPECT_EQ(ErrorType([&] { kro_file::Write(dir.path(), "x"); }), "failed");
    EXPECT_TRUE(std::filesystem::is_fifo(dir / "pipe"));
}

TEST(FileRead, TellsAMissingFile) {
    const TempDir dir;
    try {
        kro_file::Read(dir / "none");
        FAIL();
    } catch (const kro_err::Error& error) {
        EXPECT_EQ(error.what(),
                  "Failed to open '" + (dir / "none") + "': No such file or directory");
        EXPECT_EQ(error.type(), "not_found");
    }
    EXPECT_EQ(ErrorType([&] { kro_file::Size(dir / "none"); }), "not_found");
    EXPECT_EQ(ErrorType([&] { kro_file::Size(dir.path()); }), "failed");
    EXPECT_EQ(ErrorType([&] { kro_file::Read(dir.path()); }), "failed");
    EXPECT_EQ(kro_file::ReadE(dir / "none"), "");
    EXPECT_EQ(kro_file::ReadE(dir.path()), "");
    EXPECT_FALSE(kro_file::Exists(dir / "none"));
}

TEST(FileWrite, MakesANewFileWithTheModeLessTheUmask) {
    const TempDir dir;
    const mode_t old = ::umask(027);
    kro_file::Write(dir / "a", "one", 0666);
    ::umask(old);
    EXPECT_EQ(ModeOf(dir / "a"), 0640U);
    EXPECT_EQ(Names(dir.path()), std::vector<std::string>{"a"});
}

TEST(FileWrite, KeepsModeAndOwnerOfAnExistingFile) {
    const TempDir dir;
    kro_file::Write(dir / "a", "first and longer", 0644);
    kro_file::Attrs(dir / "a", 0604);
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown((dir / "a").c_str(), 1234, 4321), 0);
    }
    const struct stat before = StatusOf(dir / "a");
    kro_file::Write(dir / "a", "second", 0777);
    const struct stat after = StatusOf(dir / "a");
    EXPECT_EQ(kro_file::Read(dir / "a"), "second");
    EXPECT_EQ(after.st_mode & 07777, 0604U);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(after.st_gid, before.st_gid);
    EXPECT_NE(after.st_ino, before.st_ino);
}

TEST(FileWrite, FailsWithoutTheDirectory) {
    const TempDir dir;
    EXPECT_EQ(ErrorType([&] { kro_file::Write(dir / "no/a", "x"); }), "not_found");
}

TEST(FileRemove, TakesAMissingFileAsRemoved) {
    const TempDir dir;
    kro_file::Write(dir / "a", "x");
    kro_file::RemoveFile(dir / "a");
    EXPECT_FALSE(kro_file::Exists(dir / "a"));
    kro_file::RemoveFile(dir / "a");
    kro_file::RemoveFile(dir / "no/such/a");
    kro_file::Remove(dir / "a");
    kro_file::Remove(dir / "no/such/a");
    EXPECT_EQ(ErrorType([&] { kro_file::RemoveFile(dir.path()); }), "failed");
}

TEST(FileRemove, RemovesATreeAndFollowsNoLink) {
    const TempDir dir;
    kro_file::MkDir(dir / "kept");
    kro_file::Write(dir / "kept/file", "x");
    kro_file::MkDir(dir / "tree/a/b/c");
    kro_file::Write(dir / "tree/a/b/file", "x");
    ASSERT_EQ(::symlink((dir / "kept").c_str(), (dir / "tree/a/link").c_str()), 0);
    ASSERT_EQ(::symlink((dir / "kept").c_str(), (dir / "link").c_str()), 0);
    kro_file::Remove(dir / "tree/");
    kro_file::Remove(dir / "link/");
    EXPECT_EQ(Names(dir.path()), std::vector<std::string>{"kept"});
    EXPECT_EQ(Names(dir / "kept"), std::vector<std::string>{"file"});
    kro_file::Remove(dir / "kept/file");
    EXPECT_TRUE(Names(dir / "kept").empty());
}

TEST(FileRemove, RefusesTheRootAndTheCurrentDirectory) {
    for (const char* path : {"/", ".", "./", "a/..", "//", "/.."}) {
        EXPECT_EQ(ErrorType([&] { kro_file::Remove(path); }), "failed") << path;
    }
    kro_file::Remove("");
}

TEST(FileTypes, FollowOrDoNotFollowLinks) {
    using kro_file::FileType;
    const TempDir dir;
    kro_file::Write(dir / "file", "x");
    kro_file::MkDir(dir / "directory");
    std::filesystem::create_symlink("directory", dir / "link");
    std::filesystem::create_symlink("nowhere", dir / "broken");
    std::filesystem::create_symlink("loop", dir / "loop");
    ASSERT_EQ(::mkfifo((dir / "pipe").c_str(), 0600), 0);
    struct Case {
        const char* name;
        FileType type;
        bool is_directory;
    };
    for (const Case& c :
         {Case{"file", FileType::kPlain, false}, Case{"directory", FileType::kDirectory, true},
          Case{"link", FileType::kLink, true}, Case{"broken", FileType::kLink, false},
          Case{"pipe", FileType::kSpecial, false}, Case{"missing", FileType::kNone, false},
          Case{"file/below", FileType::kNone, false},
          Case{"loop/below", FileType::kUnknown, false}}) {
        EXPECT_EQ(kro_file::TypeOf(dir / c.name), c.type) << c.name;
        EXPECT_EQ(kro_file::IsDirectory(dir / c.name), c.is_directory) << c.name;
    }
}

TEST(FileIsSameFile, ComparesInodeAndDevice) {
    const TempDir dir;
    kro_file::Write(dir / "a", "x");
    const ResHandle open(::open((dir / "a").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(kro_file::IsSameFile(open, dir / "a"));
    std::filesystem::create_hard_link(dir / "a", dir / "b");
    EXPECT_TRUE(kro_file::IsSameFile(open, dir / "b"));
    std::filesystem::create_symlink("a", dir / "link");
    EXPECT_FALSE(kro_file::IsSameFile(open, dir / "link"));
    EXPECT_FALSE(kro_file::IsSameFile(open, dir / "missing"));
    kro_file::Write(dir / "a", "new");
    EXPECT_FALSE(kro_file::IsSameFile(open, dir / "a"));
}

TEST(FileIsSameFile, InodesOfTwoDevicesMayHaveTheSameNumber) {
    const ResHandle processes(::open("/proc", O_RDONLY | O_CLOEXEC));
    if (StatusOf("/proc").st_ino != StatusOf("/sys").st_ino) GTEST_SKIP() << "/sys is not mounted";
    EXPECT_TRUE(kro_file::IsSameFile(processes, "/proc"));
    EXPECT_FALSE(kro_file::IsSameFile(processes, "/sys"));
}

TEST(FileNamesIn, AreSortedAndWithoutDots) {
    const TempDir dir;
    for (const char* const name : {"b", "a", ".hidden"}) kro_file::Write(dir / name, "");
    kro_file::MkDir(dir / "c");
    EXPECT_EQ(kro_file::NamesIn(dir.path()), (std::vector<std::string>{".hidden", "a", "b", "c"}));
    EXPECT_EQ(kro_file::NamesIn(dir / "c"), std::vector<std::string>());
    EXPECT_EQ(kro_file::NamesIn(dir / "missing"), std::vector<std::string>());
    EXPECT_EQ(ErrorType([&] { kro_file::NamesIn(dir / "a"); }), "not_found");
}

TEST(FileMkDir, MakesMissingDirectoriesAbove) {
    const TempDir dir;
    const mode_t old = ::umask(0);
    kro_file::MkDir(dir / "a/b//c/", 0710);
    ::umask(old);
    EXPECT_EQ(ModeOf(dir / "a"), 0710U);
    EXPECT_EQ(ModeOf(dir / "a/b/c"), 0710U);
}

TEST(FileMkDir, LeavesExistingOnesAsTheyAre) {
    const TempDir dir;
    kro_file::MkDir(dir / "a", 0700);
    kro_file::MkDir(dir / "a", 0755);
    EXPECT_EQ(ModeOf(dir / "a"), 0700U);
    kro_file::Write(dir / "file", "x");
    EXPECT_EQ(ErrorType([&] { kro_file::MkDir(dir / "file"); }), "failed");
    EXPECT_EQ(ErrorType([&] { kro_file::MkDir(dir / "file/x"); }), "not_found");
    kro_file::MkDir("");
    kro_file::MkDir("/");
}

TEST(FileMkDir, IsTheSameWhenSynced) {
    const TempDir dir;
    const mode_t old = ::umask(0);
    kro_file::MkDirSynced(dir / "a/b//c/", 0710);
    kro_file::MkDirSynced(dir / "a/b/c", 0700);
    ::umask(old);
    EXPECT_EQ(ModeOf(dir / "a"), 0710U);
    EXPECT_EQ(ModeOf(dir / "a/b/c"), 0710U);
    kro_file::Write(dir / "file", "x");
    EXPECT_EQ(ErrorType([&] { kro_file::MkDirSynced(dir / "file/x"); }), "not_found");
    kro_file::MkDirSynced("");
    kro_file::MkDirSynced("/");
}

TEST(FileAttrs, SetsTheMode) {
    const TempDir dir;
    kro_file::Write(dir / "a", "x");
    kro_file::Attrs(dir / "a", 0400);
    EXPECT_EQ(ModeOf(dir / "a"), 0400U);
    EXPECT_EQ(ErrorType([&] { kro_file::Attrs(dir / "none", 0400); }), "not_found");
}

TEST(FileSyncDir, TakesTheCurrentDirectoryAndTellsAMissingOne) {
    const TempDir dir;
    kro_file::SyncDir(dir.path());
    kro_file::SyncDir("");
    EXPECT_EQ(ErrorType([&] { kro_file::SyncDir(dir / "none"); }), "not_found");
}

TEST(Dir, ReadsEveryEntryButTheDots) {
    const TempDir dir;
    kro_file::Write(dir / ".cleanup", "x");
    kro_file::MkDir(dir / "sub");
    ASSERT_EQ(::symlink("sub", (dir / "link").c_str()), 0);
    EXPECT_EQ(Names(dir.path()), (std::vector<std::string>{".cleanup", "link", "sub"}));
    EXPECT_EQ(Names(dir.path(), 0),
              (std::vector<std::string>{".", "..", ".cleanup", "link", "sub"}));
}

TEST(Dir, TellsDirectoriesFromLinksToThem) {
    const TempDir dir;
    kro_file::MkDir(dir / "sub");
    ASSERT_EQ(::symlink("sub", (dir / "link").c_str()), 0);
    kro_file::Dir reader(dir.path(), 2);
    while (reader.Read()) {
        EXPECT_EQ(reader.IsDir(), reader.name() == "sub");
        EXPECT_EQ(reader.FullName(), dir / reader.name());
    }
}

TEST(Dir, HasNoEntriesWhenMissing) {
    const TempDir dir;
    kro_file::Dir missing(dir / "none", 2);
    EXPECT_FALSE(missing.Read());
    kro_file::Write(dir / "file", "x");
    EXPECT_THROW(kro_file::Dir(dir / "file", 2), kro_err::Error);
}

}  // namespace
