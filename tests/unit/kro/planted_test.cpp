// Another user may create links, hard links, named pipes and sockets in place of files, in a
// directory that both users may write to. The program never writes to them, waits for them or
// trusts them.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/kro_new_file.h"
#include "temp_dir.h"

namespace {

constexpr uid_t kNobody = 65534;
constexpr kro_log::Module kMain("main");

class Planted : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(::geteuid(), 0U) << "files of other users are made by root alone";
        kro_file::Write(victim_, "kept");
    }
    void TearDown() override {
        EXPECT_EQ(kro_file::Read(victim_), "kept");
        EXPECT_FALSE(kro_file::Exists(nothing_));
    }

    static void Link(const std::string& target, const std::string& path) {
        ASSERT_EQ(::symlink(target.c_str(), path.c_str()), 0);
        ASSERT_EQ(::lchown(path.c_str(), kNobody, kNobody), 0);
    }
    static void Pipe(const std::string& path) { ASSERT_EQ(::mkfifo(path.c_str(), 0666), 0); }
    static void Socket(const std::string& path) {
        const ResHandle handle(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        ASSERT_LT(path.size(), sizeof address.sun_path);
        std::memcpy(address.sun_path, path.data(), path.size());
        ASSERT_EQ(::bind(handle, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }

    // Creates objects of several kinds at the path, one after another, and calls the test's
    // function for each.
    template <class Operation>
    void WithEach(const std::string& path, const Operation& operation) {
        const std::vector<std::pair<const char*, std::function<void()>>> things = {
            {"link", [&] { Link(victim_, path); }},
            {"dangling link", [&] { Link(nothing_, path); }},
            {"second name", [&] { std::filesystem::create_hard_link(victim_, path); }},
            {"named pipe", [&] { Pipe(path); }},
            {"socket", [&] { Socket(path); }}};
        for (const auto& [what, lay] : things) {
            SCOPED_TRACE(what);
            ::unlink(path.c_str());
            lay();
            operation(std::string(what));
            EXPECT_EQ(kro_file::Read(victim_), "kept");
            EXPECT_FALSE(kro_file::Exists(nothing_));
        }
        ::unlink(path.c_str());
    }

    template <class Operation>
    static std::string ErrorOf(const Operation& operation) {
        try {
            operation();
        } catch (const kro_err::Error& error) {
            return error.what();
        }
        return "(no error)";
    }

    TempDir dir_;
    std::string victim_ = dir_ / "victim";
    std::string nothing_ = dir_ / "nothing";
    std::string path_ = dir_ / "file";
};

TEST_F(Planted, TemporaryNameIsTakenBack) {
    WithEach(dir_ / ".file.part~", [this](const std::string&) {
        kro_file::NewFile file(path_, 0640);
        ASSERT_EQ(::write(file.fd(), "text", 4), 4);
        file.Commit();
        EXPECT_EQ(kro_file::Read(path_), "text");
        struct stat status {};
        ASSERT_EQ(::lstat(path_.c_str(), &status), 0);
        EXPECT_TRUE(S_ISREG(status.st_mode));
        EXPECT_EQ(status.st_nlink, 1U);
        EXPECT_EQ(status.st_uid, 0U);
    });
}

TEST_F(Planted, TemporaryNameIsClearedAway) {
    WithEach(dir_ / ".file.part~", [this](const std::string&) {
        kro_file::RemoveTemporary(path_);
        EXPECT_FALSE(
            std::filesystem::exists(std::filesystem::symlink_status(dir_ / ".file.part~")));
    });
}

TEST_F(Planted, FinalNameOfANewFileIsReplaced) {
    WithEach(path_, [this](const std::string&) {
        kro_file::NewFile file(path_, 0640);
        file.Commit();
        EXPECT_EQ(kro_file::Size(path_), 0);
    });
}

TEST_F(Planted, TextIsNotWrittenThroughALink) {
    ASSERT_EQ(::chmod(victim_.c_str(), 0666), 0);
    ASSERT_EQ(::chown(victim_.c_str(), kNobody, kNobody), 0);
    Link(victim_, path_);
    kro_file::Write(path_, "text", 0640);
    EXPECT_EQ(kro_file::Read(path_), "text");
    struct stat status {};
    ASSERT_EQ(::lstat(path_.c_str(), &status), 0);
    // The new file does not inherit the mode and the owner of the link's target.
    EXPECT_EQ(status.st_mode, S_IFREG | 0640U);
    EXPECT_EQ(status.st_uid, 0U);
}

TEST_F(Planted, TextIsWrittenIntoNoPipe) {
    Pipe(path_);
    EXPECT_EQ(ErrorOf([&] { kro_file::Write(path_, "text"); }),
              "'" + path_ + "' is not a plain file");
}

TEST_F(Planted, LockIsTakenOnPlainFilesOnly) {
    WithEach(path_, [this](const std::string& what) {
        kro_file::Lock lock;
        const std::string head = "Failed to lock '" + path_ + "': it ";
        if (what == "second name") {
            lock.DoLock(path_, true);
            EXPECT_EQ(ErrorOf([&] { lock.Write("text"); }),
                      head +
                          "has a second hard link, so a write would change that file too; remove "
                          "one of the two");
            return;
        }
        for (const bool create : {true, false}) {
            const std::string error = ErrorOf([&] { lock.DoLock(path_, create); });
            EXPECT_EQ(ErrorOf([&] { lock.TryLock(path_, create); }), error);
            if (what.ends_with("link")) {
                EXPECT_EQ(error, head + "is a symbolic link");
            } else if (what == "named pipe") {
                EXPECT_EQ(error, head + "is not a plain file");
            } else {
                EXPECT_EQ(error.find("Failed to open '" + path_ + "'"), 0U) << error;
            }
        }
    });
}

TEST_F(Planted, LogIsWrittenToNothingOfOthers) {
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(dir_.path());
    kro_file::MkDir("var");
    WithEach(dir_ / "var/prog.log", [](const std::string&) {
        kro_log::Init("prog", 5);
        KRO_LOG(kMain, 5, "a line");
        kro_log::Close();
    });
    std::filesystem::current_path(before);
}

TEST_F(Planted, LogMayLieWhereTheAdministratorsLinkLeads) {
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(dir_.path());
    kro_file::MkDir("var");
    ASSERT_EQ(::symlink("../elsewhere", "var/prog.log"), 0);
    kro_log::Init("prog", 5);
    KRO_LOG(kMain, 5, "a line");
    kro_log::Close();
    EXPECT_TRUE(kro_file::Read("elsewhere").ends_with("prog main 5: a line\n"));
    std::filesystem::current_path(before);
}

TEST_F(Planted, ListsAreReadFromOurOwnPlainFilesAlone) {
    WithEach(path_, [this](const std::string& what) {
        if (what == "second name") return;
        EXPECT_NE(ErrorOf([&] { kro_file::ReadOurs(path_); }), "(no error)");
    });
    kro_file::Write(path_, "a list");
    EXPECT_EQ(kro_file::ReadOurs(path_), "a list");
    const std::string refusal = "'" + path_ + "' could have been written by another user";
    for (const mode_t mode : {0646U, 0664U, 0620U}) {
        ASSERT_EQ(::chmod(path_.c_str(), mode), 0);
        EXPECT_EQ(ErrorOf([&] { kro_file::ReadOurs(path_); }), refusal) << std::oct << mode;
    }
    ASSERT_EQ(::chmod(path_.c_str(), 0600), 0);
    ASSERT_EQ(::chown(path_.c_str(), kNobody, kNobody), 0);
    EXPECT_EQ(ErrorOf([&] { kro_file::ReadOurs(path_); }), refusal);
}

TEST_F(Planted, LinksAreForeignByTheirOwnerNotByTheirTarget) {
    EXPECT_FALSE(kro_file::IsForeignLink(path_));
    EXPECT_FALSE(kro_file::IsForeignLink(victim_));
    Link(victim_, path_);
    EXPECT_TRUE(kro_file::IsForeignLink(path_));
    ASSERT_EQ(::lchown(path_.c_str(), 0, 0), 0);
    EXPECT_FALSE(kro_file::IsForeignLink(path_));
}

TEST_F(Planted, DirectoryIsOursWhenNobodyElseCanWriteToIt) {
    const std::string directory = dir_ / "dir";
    const std::string refusal = "'" + directory +
                                "' must be a directory that only root or this user can write to; "
                                "remove it";
    kro_file::MkDir(directory, 0700);
    EXPECT_NO_THROW(kro_file::CheckOurDirectory(directory));
    ASSERT_EQ(::chmod(directory.c_str(), 0770), 0);
    EXPECT_EQ(ErrorOf([&] { kro_file::CheckOurDirectory(directory); }), refusal);
    ASSERT_EQ(::chmod(directory.c_str(), 0700), 0);
    ASSERT_EQ(::chown(directory.c_str(), kNobody, kNobody), 0);
    EXPECT_EQ(ErrorOf([&] { kro_file::CheckOurDirectory(directory); }), refusal);
    kro_file::Remove(directory);
    Link(dir_.path(), directory);
    EXPECT_EQ(ErrorOf([&] { kro_file::CheckOurDirectory(directory); }), refusal);
}

}  // namespace
