#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "child.h"
#include "kro/kro_file.h"
#include "kro/kro_new_file.h"
#include "temp_dir.h"

namespace {

void Put(const kro_file::NewFile& file, const std::string& text) {
    ASSERT_EQ(::pwrite(file.fd(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
}

TEST(NewFile, AppearsWithItsCommit) {
    const TempDir dir;
    {
        kro_file::NewFile file(dir / "a", 0640);
        Put(file, "text");
        EXPECT_FALSE(kro_file::Exists(dir / "a"));
        EXPECT_TRUE(kro_file::Exists(dir / ".a.part~"));
        file.Commit();
        EXPECT_FALSE(kro_file::Exists(dir / ".a.part~"));
    }
    EXPECT_EQ(kro_file::Read(dir / "a"), "text");
}

TEST(NewFile, AppearsWholeWhenItIsToBeSyncedLater) {
    const TempDir dir;
    kro_file::Write(dir / "a", "a longer old text");
    {
        kro_file::NewFile file(dir / "a", 0640);
        Put(file, "text");
        EXPECT_EQ(kro_file::Read(dir / "a"), "a longer old text");
        file.Commit(kro_file::NewFile::Durability::kLater);
        EXPECT_EQ(kro_file::Read(dir / "a"), "text");
    }
    EXPECT_EQ(kro_file::Read(dir / "a"), "text");
    EXPECT_FALSE(kro_file::Exists(dir / ".a.part~"));
}

TEST(NewFile, LeavesNothingWithoutCommit) {
    const TempDir dir;
    kro_file::Write(dir / "a", "old");
    { Put(kro_file::NewFile(dir / "a"), "new"); }
    EXPECT_EQ(kro_file::Read(dir / "a"), "old");
    EXPECT_FALSE(kro_file::Exists(dir / ".a.part~"));
}

TEST(NewFile, WorksInTheCurrentDirectory) {
    const TempDir dir;
    Child child([&] {
        if (::chdir(dir.path().c_str()) != 0) throw std::runtime_error("chdir");
        kro_file::NewFile("a").Commit();
    });
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_TRUE(kro_file::Exists(dir / "a"));
}

TEST(NewFile, TakesOverWhatACrashLeft) {
    const TempDir dir;
    Child crashed([&] {
        const kro_file::NewFile file(dir / "a", 0600);
        if (::write(file.fd(), "a long leftover", 15) != 15) throw std::runtime_error("write");
        ::_exit(3);
    });
    ASSERT_EQ(crashed.Wait(), 3);
    ASSERT_EQ(kro_file::Read(dir / ".a.part~"), "a long leftover");
    const mode_t old = ::umask(0);
    kro_file::NewFile file(dir / "a", 0664);
    ::umask(old);
    Put(file, "new");
    file.Commit();
    EXPECT_EQ(kro_file::Read(dir / "a"), "new");
    struct stat status {};
    ASSERT_EQ(::stat((dir / "a").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0664U);
}

TEST(NewFile, WaitsForAnotherWriterOfTheTarget) {
    const TempDir dir;
    const Gate open;
    const Gate go;
    Child first([&] {
        kro_file::NewFile file(dir / "a");
        open.Open();
        go.Wait();
        if (::write(file.fd(), "first", 5) != 5) throw std::runtime_error("write");
        file.Commit();
        if (kro_file::Read(dir / "a") != "first") throw std::runtime_error("not first");
    });
    open.Wait();
    Child second([&] {
        kro_file::NewFile file(dir / "a");
        if (kro_file::Read(dir / "a") != "first") throw std::runtime_error("did not wait");
        if (::write(file.fd(), "2nd", 3) != 3) throw std::runtime_error("write");
        file.Commit();
    });
    EXPECT_TRUE(second.StillRuns());
    go.Open();
    EXPECT_EQ(first.Wait(), 0);
    EXPECT_EQ(second.Wait(), 0);
    EXPECT_EQ(kro_file::Read(dir / "a"), "2nd");
}

// Three processes write the same file at the same time. They commit some of their files and abandon
// others.
TEST(NewFile, NeverMixesWriters) {
    const TempDir dir;
    const auto write = [&](char letter) {
        for (int i = 0; i < 40; ++i) {
            kro_file::NewFile file(dir / "a");
            const std::string text(5000, letter);
            if (::write(file.fd(), text.data(), 2500) != 2500) throw std::runtime_error("write");
            if (i % 3 == 0) continue;
            if (::write(file.fd(), text.data(), 2500) != 2500) throw std::runtime_error("write");
            file.Commit();
            const std::string seen = kro_file::Read(dir / "a");
            if (seen != std::string(5000, seen.at(0))) throw std::runtime_error("mixed");
        }
    };
    Child a([&] { write('a'); });
    Child b([&] { write('b'); });
    Child c([&] { write('c'); });
    EXPECT_EQ(a.Wait(), 0);
    EXPECT_EQ(b.Wait(), 0);
    EXPECT_EQ(c.Wait(), 0);
    EXPECT_FALSE(kro_file::Exists(dir / ".a.part~"));
}

TEST(NewFile, TellsAMissingDirectory) {
    const TempDir dir;
    try {
        const kro_file::NewFile file(dir / "no/a");
        FAIL();
    } catch (const kro_err::Error& error) {
        EXPECT_EQ(error.type(), "not_found");
    }
}

TEST(TemporaryName, IsDerivedFromTheTarget) {
    EXPECT_EQ(kro_file::TemporaryName("a.tgz"), ".a.tgz.part~");
    EXPECT_TRUE(kro_file::IsTemporaryName(".a.tgz.part~"));
    EXPECT_FALSE(kro_file::IsTemporaryName(".part~"));
    EXPECT_FALSE(kro_file::IsTemporaryName("a.tgz.part~"));
    EXPECT_FALSE(kro_file::IsTemporaryName(".a.tgz.part1"));
}

TEST(RemoveTemporary, RemovesALeftoverOnly) {
    const TempDir dir;
    kro_file::RemoveTemporary(dir / "a");
    kro_file::RemoveTemporary(dir / "no/a");
    kro_file::Write(dir / ".a.part~", "leftover");
    kro_file::RemoveTemporary(dir / "a");
    EXPECT_FALSE(kro_file::Exists(dir / ".a.part~"));
    kro_file::NewFile held(dir / "a");
    kro_file::RemoveTemporary(dir / "a");
    held.Commit();
    EXPECT_TRUE(kro_file::Exists(dir / "a"));
}

}  // namespace
