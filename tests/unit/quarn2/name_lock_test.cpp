// The locks of temporary names: a lock has one holder at a time, is released when the holder dies,
// and is not accessible to other users.
#include "base/name_lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstring>
#include <functional>

#include "kro/kro_proc.h"
#include "kro/str.h"

namespace {

using quarn2::NameLock;
using quarn2::TryLockName;

constexpr uid_t kNobody = 65534;

// A separate name for each run, so that parallel runs do not collide.
std::string Name() { return "quarn2-test-" + str::Str(getpid()); }

// Calls the function in a child process that runs as another user. Returns the exit status of the
// child.
int AsNobody(const std::function<int()>& operation) {
    const pid_t child = fork();
    if (child == 0) {
        if (setgid(kNobody) != 0 || setuid(kNobody) != 0) _exit(100);
        _exit(operation());
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Binds the name as an abstract socket, which has no file.
bool BindAbstract(const std::string& name) {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    return bind(fd, reinterpret_cast<const sockaddr*>(&address), size) == 0;
}

TEST(NameLock, IsHeldOnceAndLeavesNothing) {
    const std::string path = quarn2::NameLockDirectory() + "/" + Name();
    std::unique_ptr<NameLock> first = TryLockName(Name());
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(TryLockName(Name()), nullptr);
    EXPECT_NE(TryLockName(Name() + "-another"), nullptr);
    EXPECT_TRUE(kro_file::Exists(path));
    first.reset();
    EXPECT_FALSE(kro_file::Exists(path));
    EXPECT_NE(TryLockName(Name()), nullptr);
}

TEST(NameLock, OfAKilledProcessIsFree) {
    const std::string name = Name();
    auto [ready, tell] = kro_proc::Pipe();
    const pid_t child = fork();
    if (child == 0) {
        const std::unique_ptr<NameLock> held = TryLockName(name);
        if (held == nullptr || write(tell, "x", 1) != 1) _exit(1);
        pause();
    }
    char byte = 0;
    ASSERT_EQ(read(ready, &byte, 1), 1);
    EXPECT_EQ(TryLockName(name), nullptr);
    kill(child, SIGKILL);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_NE(TryLockName(name), nullptr);
}

TEST(NameLock, CannotBeTakenByAnotherUser) {
    ASSERT_EQ(geteuid(), 0U) << "other users are played by root alone";
    const std::string path = quarn2::NameLockDirectory() + "/" + Name();
    const std::unique_ptr<NameLock> held = TryLockName(Name());
    ASSERT_NE(held, nullptr);
    struct stat status = {};
    ASSERT_EQ(stat(quarn2::NameLockDirectory().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFDIR | 0700U);
    EXPECT_EQ(AsNobody([&path] {
                  return open(path.c_str(), O_RDONLY | O_CLOEXEC) < 0 && errno == EACCES ? 0 : 1;
              }),
              0);
    EXPECT_EQ(AsNobody([&path] {
                  const std::string other = path + "-other";
                  return open(other.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600) < 0 ? 0 : 1;
              }),
              0);
}

// Any user can bind abstract names and see the bound ones.
TEST(NameLock, IsNoAbstractSocket) {
    ASSERT_EQ(geteuid(), 0U) << "other users are played by root alone";
    auto [ready, tell] = kro_proc::Pipe();
    const std::string name = Name();
    const pid_t child = fork();
    if (child == 0) {
        const bool bound = setuid(kNobody) == 0 && BindAbstract(name);
        if (!bound || write(tell, "x", 1) != 1) _exit(1);
        pause();
    }
    char byte = 0;
    ASSERT_EQ(read(ready, &byte, 1), 1);
    EXPECT_NE(TryLockName(name), nullptr);
    kill(child, SIGKILL);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
}

}  // namespace
