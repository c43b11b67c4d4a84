#include "base/directory.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "local_files.h"
#include "temp_dir.h"

using namespace quarn2;
using testing::UnorderedElementsAre;

namespace {

TEST(Directory, GivesEachEntryWithoutTheDots) {
    const TempDir folder;
    local_files::Save(folder / "a", "");
    local_files::Save(folder / ".hidden", "");
    local_files::Save(folder / "...", "");
    const Directory directory = OpenDirectory(folder.path());
    ASSERT_TRUE(directory != nullptr);
    std::vector<std::string> names;
    while (const dirent* const entry = NextEntry(directory.get())) {
        names.emplace_back(static_cast<const char*>(entry->d_name));
        errno = EIO;  // NextEntry must ignore this earlier error
    }
    EXPECT_EQ(errno, 0);
    EXPECT_THAT(names, UnorderedElementsAre("a", ".hidden", "..."));
}

TEST(Directory, KeepsTheErrorOfTheSystem) {
    const TempDir folder;
    EXPECT_TRUE(OpenDirectory(folder / "missing") == nullptr);
    EXPECT_EQ(errno, ENOENT);
    // Another file replaces the descriptor of the open directory.
    const Directory directory = OpenDirectory(folder.path());
    ASSERT_TRUE(directory != nullptr);
    const int other = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(dup2(other, dirfd(directory.get())), dirfd(directory.get()));
    close(other);
    EXPECT_TRUE(NextEntry(directory.get()) == nullptr);
    EXPECT_EQ(errno, ENOTDIR);
}

}  // namespace
