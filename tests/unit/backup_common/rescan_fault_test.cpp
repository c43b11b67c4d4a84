// The rescan: failing storages, hostile listings, interrupted runs, and the lock that the rescan
// hands over.
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <set>

#include "kro/kro_err.h"
#include "kro/kro_proc.h"
#include "odd_storage.h"
#include "quarn2_cp2_server.h"
#include "quarn2_cp2_server_start.h"
#include "rescan_site.h"

namespace {

int syncs_to_fail = 0;
std::function<void()> at_sync;

}  // namespace

extern "C" {

int __real_syncfs(int fd);
int __wrap_syncfs(int fd);
int __wrap_syncfs(int fd) {
    if (at_sync) at_sync();
    if (syncs_to_fail == 0) return __real_syncfs(fd);
    --syncs_to_fail;
    errno = EIO;
    return -1;
}

}  // extern "C"

namespace {

using kro_err::Kind;

constexpr const char* kLock = "var/quarn2_cp.lock";

class RescanFault : public RescanSite {
  protected:
    RescanFault() {
        syncs_to_fail = 0;
        at_sync = nullptr;
    }
    ~RescanFault() override { at_sync = nullptr; }

    // Makes the operation fail for these names.
    void Fail(const std::string& operation, const Lines& names, Kind kind = Kind::kUnavailable) {
        store_->SetHook([=](const std::string& what, const std::string& name) {
            if (what == operation && std::find(names.begin(), names.end(), name) != names.end()) {
                throw kro_err::Error(kind, "no " + name + " today");
            }
        });
    }
    // The warning of a rescan that could not read `count` files and directories.
    static std::string Missing(int count) {
        return "4: the storage could not be read completely: " + std::to_string(count) +
               " files or directories could not be read, so their backups are not counted. See the "
               "log and run --server --rescan again";
    }
    static std::string Failure(const std::vector<std::string>& words = {}) {
        return TextOf<std::exception>([&] { Run(words); });
    }
};

// --- Storages that fail ---

TEST_F(RescanFault, ARootThatCannotBeListedRemovesNothing) {
    Place(InfoRoot("2026-11-20.web1.info"), "kept");
    for (const Kind kind :
         {Kind::kUnavailable, Kind::kUnauthorized, Kind::kNotFound, Kind::kFailed}) {
        Fail("List", {""}, kind);
        EXPECT_EQ(Failure(), "no  today");
        EXPECT_EQ(InfoRoot(), (Lines{"2026-11-20.web1.info"}));
    }
    EXPECT_EQ(fake_clock::Sleeps(), std::vector<int>());
}

TEST_F(RescanFault, AnUnmountedStorageRemovesNothing) {
    Place(InfoRoot("2026-11-20.web1.info"), "kept");
    setenv("BACKUP_TOKEN", ("local://" + (root_ / "disk")).c_str(), 1);
    EXPECT_EQ(Failure(), "storage directory '" + (root_ / "disk") +
                             "' does not exist; create it or mount its disk");
    EXPECT_EQ(InfoRoot(), (Lines{"2026-11-20.web1.info"}));
    EXPECT_FALSE(local_files::Has(kLock));
}

TEST_F(RescanFault, OneOfFiveDownloadsThatFailsCostsItselfOnly) {
    for (const char date : {'1', '2', '3', '4', '5'}) {
        store_->SetFile("2026-11-2" + std::string(1, date) + ".web1.info", "last-slice=x.1.dar");
        store_->SetFile("2026-11-2" + std::string(1, date) + ".web1.1.dar", "slice");
    }
    Fail("Get", {"2026-11-22.web1.info"});
    Run();
    EXPECT_EQ(InfoRoot(),
              (Lines{"2026-11-21.web1.1.dar", "2026-11-21.web1.info", "2026-11-23.web1.1.dar",
                     "2026-11-23.web1.info", "2026-11-24.web1.1.dar", "2026-11-24.web1.info",
                     "2026-11-25.web1.1.dar", "2026-11-25.web1.info"}));
    const std::string line = "4: Cant download file: 'no 2026-11-22.web1.info today'";
    EXPECT_EQ(Log(4), (Lines{line, line, line, line, Missing(1)}));
}

TEST_F(RescanFault, WhatFailsOnceIsReadAgain) {
    StoreFlat("2026-11-20.web1");
    StoreDated("web2", "2026-11-20");
    StoreDated("web3", "2026-11-20");
    std::set<std::string> to_fail = {"Get 2026-11-20.web1.info", "List web2",
                                     "List web3/2026-11-20",
                                     "Get web2/2026-11-20/2026-11-20.web2.tgz"};
    store_->SetHook([&to_fail](const std::string& what, const std::string& name) {
        if (to_fail.erase(what + " " + name) != 0) throw kro_err::Error(Kind::kUnavailable, "no");
    });
    Run();
    EXPECT_EQ(to_fail, std::set<std::string>());
    EXPECT_EQ(InfoRoot(),
              (Lines{"2026-11-20.web1.info", "2026-11-20.web1.tgz", "web2", "web2/2026-11-20",
                     "web2/2026-11-20/2026-11-20.web2.info", "web2/2026-11-20/2026-11-20.web2.tgz",
                     "web3", "web3/2026-11-20", "web3/2026-11-20/2026-11-20.web3.info",
                     "web3/2026-11-20/2026-11-20.web3.tgz"}));
}

TEST_F(RescanFault, AStorageThatGoesDownIsNotAskedForEverythingTwice) {
    for (int day = 10; day < 30; ++day) StoreFlat("2026-11-" + std::to_string(day) + ".web1");
    int calls = 0;
    store_->SetHook([&calls](const std::string& what, const std::string&) {
        if (what != "Get") return;
        ++calls;
        throw kro_err::Error(Kind::kUnavailable, "down");
    });
    Run();
    EXPECT_EQ(calls, 3 + 3 * 3) << "three failures in a row in each of four attempts";
    EXPECT_EQ(Log(4).back(), Missing(20));
}

TEST_F(RescanFault, AFileThatIsRefusedIsNotAskedForAgain) {
    StoreFlat("2026-11-20.web1");
    Fail("Get", {"2026-11-20.web1.info"}, Kind::kUnauthorized);
    Run();
    EXPECT_EQ(Log(4), (Lines{"4: Cant download file: 'no 2026-11-20.web1.info today'"}));
}

TEST_F(RescanFault, AFailedDownloadKeepsTheLocalFile) {
    StoreFlat("2026-11-20.web1");
    Place(InfoRoot("2026-11-20.web1.info"), "good");
    Place(InfoRoot("2026-11-20.web1.tgz"), "good");
    Fail("Get", {"2026-11-20.web1.info", "2026-11-20.web1.tgz"});
    Run();
    EXPECT_EQ(InfoRoot(), (Lines{"2026-11-20.web1.info", "2026-11-20.web1.tgz"}));
    EXPECT_EQ(Local("2026-11-20.web1.info"), "good");
    EXPECT_EQ(Local("2026-11-20.web1.tgz"), "good");
}

TEST_F(RescanFault, AnEntryThatCannotBeListedIsTriedAsAnInfoFile) {
    StoreFlat("2026-11-20.web1");
    StoreDated("web2", "2026-11-20");
    Place(InfoRoot("web2/2026-11-20/2026-11-20.web2.info"), "kept");
    Fail("List", {"2026-11-20.web1.info", "web2"});
    Run();
    EXPECT_EQ(InfoRoot(), (Lines{"2026-11-20.web1.info", "2026-11-20.web1.tgz", "web2",
                                 "web2/2026-11-20", "web2/2026-11-20/2026-11-20.web2.info"}));
    const Lines tries = {
        "4: Cant list storage directory. What: 'no 2026-11-20.web1.info today'. Try download file",
        "4: Cant list storage directory. What: 'no web2 today'. Try download file",
        "6: Download 2026-11-20.web1.info"};
    Lines expected = {"5: Rescan storage and place indexes to 'var/backup/tovarn'"};
    for (int i = 0; i < 4; ++i) expected.insert(expected.end(), tries.begin(), tries.end());
    expected.push_back(Missing(2));
    EXPECT_EQ(Log(6), expected);
}

TEST_F(RescanFault, ADateThatCannotBeListedIsLeftAsItIs) {
    StoreDated("web1", "2026-11-20");
    StoreDated("web1", "2026-11-21");
    Place(InfoRoot("web1/2026-11-20/2026-11-20.web1.info"), "kept");
    Fail("List", {"web1/2026-11-20"});
    Run();
    EXPECT_EQ(Local("web1/2026-11-20/2026-11-20.web1.info"), "kept");
    EXPECT_EQ(Local("web1/2026-11-21/2026-11-21.web1.tgz"), "index of 2026-11-21.web1");
    const std::string line = "4: Cant list date directory. What: 'no web1/2026-11-20 today'";
    EXPECT_EQ(Log(4), (Lines{line, line, line, line, Missing(1)}));
}

TEST_F(RescanFault, SeveralRequestsAtTheSameTimeReadTheSame) {
    for (int i = 100; i < 400; ++i) StoreFlat("2026-11-20.flat" + std::to_string(i));
    for (int i = 100; i < 140; ++i) StoreDated("user" + std::to_string(i), "2026-11-20");
    Place(InfoRoot("user100/2026-11-19/gone.info"), "gone");
    Run();
    const Lines expected = InfoRoot();
    EXPECT_EQ(expected.size(), 300U * 2 + 40U * 4);
    std::filesystem::remove_all(kRoot);
    std::filesystem::create_directories(kRoot);
    setenv("BACKUP_TOKEN", "memory:site?parallel=8", 1);
    Run();
    EXPECT_EQ(InfoRoot(), expected);
    EXPECT_EQ(Local("user139/2026-11-20/2026-11-20.user139.tgz"), "index of 2026-11-20.user139");
    EXPECT_EQ(Log(4), Lines());
}

// --- Hostile listings ---

TEST_F(RescanFault, HostileNamesTouchNothingOutsideTheInfoRoot) {
    OddStore::Register();
    OddStore& store = OddStore::The();
    setenv("BACKUP_TOKEN", "odd:x", 1);
    const std::string victim = root_ / "victim/x.info";
    const Lines hostile = {"../../x.info",
                           victim,
                           "bad\nname.info",
                           "",
                           ".",
                           "..",
                           "a/b.info",
                           std::string(300, 'n') + ".info"};
    Lines sorted = hostile;
    std::sort(sorted.begin(), sorted.end());
    // The hostile names are in the root, in a user's directory and in the directory of a date.
    for (const char* const directory : {"", "web1", "web1/2026-11-20"}) {
        store.lists[directory] = hostile;
    }
    store.lists[""].push_back("web1");
    store.lists["web1"].push_back("2026-11-20");
    store.lists["web1/2026-11-20"].push_back("good.info");
    for (const std::string& name : hostile) {
        store.files[name] = store.files["web1/2026-11-20/" + name] = "type=hostile\n";
    }
    store.files["web1/2026-11-20/good.info"] = "last-slice=x.1.dar\n";
    Place(victim, "kept");
    Place("x.info", "kept");
    Place("var/x.info", "kept");
    Run();

    EXPECT_EQ(Below("."), (Lines{"tmp", "var", "var/backup", "var/backup/tovarn",
                                 "var/backup/tovarn/web1", "var/backup/tovarn/web1/2026-11-20",
                                 "var/backup/tovarn/web1/2026-11-20/good.info",
                                 "var/quarn2_cp.events", "var/quarn2_cp.lock", "var/quarn2_cp.log",
                                 "var/x.info", "victim", "victim/x.info", "x.info"}));
    for (const std::string& path : {victim, std::string("x.info"), std::string("var/x.info")}) {
        EXPECT_EQ(local_files::Load(path), "kept");
    }
    EXPECT_EQ(store.gets, (Lines{"1 web1/2026-11-20/good.info", "1 web1/2026-11-20/good.1.dar"}));
    Lines expected;
    for (int level = 0; level < 3; ++level) {
        for (const std::string& name : sorted) {
            const std::string shown = name == "bad\nname.info" ? "bad\\nname.info" : name;
            expected.push_back("4: Skip bad name '" + shown + "' on the storage");
        }
    }
    expected.push_back("4: Cant download file: 'nothing at 'web1/2026-11-20/good.1.dar''");
    EXPECT_EQ(Log(4), expected);
}

TEST_F(RescanFault, DirectoriesOnTheStorageDoNotTakeThePlaceOfTheServersOwnFiles) {
    Place(InfoRoot(".cleanup"), "kept");
    for (const char* const name : {".cleanup", ".rescan", ".rescan#web1"}) {
        store_->SetFile(std::string(name) + "/2026-11-20/x.info", "");
    }
    Run();
    EXPECT_EQ(Local(".cleanup"), "kept");
    EXPECT_EQ(InfoRoot(), (Lines{".cleanup"}));
    EXPECT_EQ(Log(4), (Lines{"4: Skip bad name '.cleanup' on the storage",
                             "4: Skip bad name '.rescan' on the storage",
                             "4: Skip bad name '.rescan#web1' on the storage"}));
}

// --- Interrupted runs ---

class BrokenRescan : public RescanFault {
  protected:
    BrokenRescan() {
        StoreDated("web1", "2026-11-20");
        StoreDated("web1", "2026-11-21");
    }
    // Interrupts the rescan before this operation on a name, with an exception that the rescan does
    // not catch.
    void BreakOff(const std::string& operation, const std::string& name) {
        store_->SetHook([=](const std::string& what, const std::string& at) {
            if (what == operation && at == name) throw 42;
        });
        EXPECT_THROW(Run(), int);
        store_->SetHook(nullptr);
        Fetched();
    }
    static std::string Check(const std::string& storage = "") {
        return TextOf<std::runtime_error>([&] { CheckNoBrokenRescan(kRoot, storage); });
    }
    static constexpr const char* kBroken =
        "the last rescan into 'var/backup/tovarn' was interrupted (var/backup/tovarn/.rescan "
        "exists), so not every backup is known: run --server --rescan again";
    const Lines all_ = {
        "web1/2026-11-20/2026-11-20.web1.info", "web1/2026-11-20/2026-11-20.web1.tgz",
        "web1/2026-11-21/2026-11-21.web1.info", "web1/2026-11-21/2026-11-21.web1.tgz"};
};

TEST_F(BrokenRescan, LeavesAMarkThatKeepsTheServerFromStarting) {
    BreakOff("Get", "web1/2026-11-21/2026-11-21.web1.info");
    EXPECT_EQ(Local(".rescan"), "A rescan is in progress or was interrupted.\n");
    EXPECT_EQ(Check(), kBroken);
    EXPECT_EQ(TextOf<std::runtime_error>([] { CommandServer(0, nullptr, Arguments({})); }),
              kBroken);
    EXPECT_FALSE(local_files::Has("var/quarn2_cp.pid"));
}

TEST_F(BrokenRescan, IsMadeUpForByTheNextOneWhichTrustsNothingLocal) {
    for (const char* const name :
         {"web1/2026-11-20/2026-11-20.web1.info", "web1/2026-11-20/2026-11-20.web1.tgz",
          "web1/2026-11-21/2026-11-21.web1.tgz"}) {
        std::filesystem::remove_all(InfoRoot("web1"));
        BreakOff("Get", name);
        // A file that was not synced is empty after a power failure.
        Place(InfoRoot("web1/2026-11-20/2026-11-20.web1.info"), "");
        Run();
        EXPECT_EQ(Fetched(), all_) << name;
        EXPECT_EQ(Local("web1/2026-11-20/2026-11-20.web1.info"),
                  "last-slice=web1/2026-11-20/F2026-11-20.web1.tgz\n");
        EXPECT_EQ(InfoRoot().size(), 7U) << "a user, two dates, four files and no mark";
        EXPECT_EQ(Check(), "(no exception)");
        Run();
        EXPECT_EQ(Fetched(), (Lines{}));
    }
}

TEST_F(BrokenRescan, TheNextOneRemovesWhatTheStorageNoLongerHas) {
    BreakOff("List", "web1");
    Place(InfoRoot("web1/2026-11-20/gone.info"), "gone");
    Run();
    EXPECT_EQ(InfoRoot().size(), 7U);
    EXPECT_FALSE(local_files::Has(InfoRoot("web1/2026-11-20/gone.info")));
}

TEST_F(BrokenRescan, AgainLeavesTheMark) {
    BreakOff("List", "web1");
    BreakOff("List", "web1/2026-11-20");
    EXPECT_EQ(Check(), kBroken);
    Fail("List", {""});
    EXPECT_EQ(Failure(), "no  today");
    EXPECT_EQ(Check(), kBroken);
}

TEST_F(BrokenRescan, TheMarkStandsBeforeTheFirstChangeAndAfterTheLast) {
    Place(InfoRoot("gone.info"), "gone");
    store_->SetHook([](const std::string& operation, const std::string& name) {
        EXPECT_EQ(local_files::Has(kMarker), operation + name != "List");
        if (!name.empty()) return;
        EXPECT_TRUE(local_files::Has(InfoRoot("gone.info")));
    });
    bool synced = false;
    at_sync = [&] {
        synced = true;
        EXPECT_TRUE(local_files::Has(kMarker));
        EXPECT_TRUE(local_files::Has(InfoRoot("web1/2026-11-21/2026-11-21.web1.tgz")));
    };
    Run();
    EXPECT_TRUE(synced);
    EXPECT_FALSE(local_files::Has(kMarker));
}

TEST_F(BrokenRescan, FilesThatCannotBeSyncedLeaveTheMark) {
    syncs_to_fail = 1;
    EXPECT_EQ(Failure(),
              "Failed to sync the file system of 'var/backup/tovarn': Input/output error");
    EXPECT_EQ(Check(), kBroken);
    Run();
    EXPECT_EQ(Check(), "(no exception)");
}

TEST_F(BrokenRescan, OfOneUsersStorageConcernsThatOneOnly) {
    store_->SetHook([](const std::string&, const std::string& name) {
        if (name == "web1") throw 42;
    });
    EXPECT_THROW(Run({"--storage", "web1"}), int);
    EXPECT_EQ(InfoRoot(), (Lines{".rescan#web1"}));
    EXPECT_EQ(Check(), "(no exception)");
    EXPECT_EQ(Check("web1"),
              "the last rescan into 'var/backup/tovarn' was interrupted "
              "(var/backup/tovarn/.rescan#web1 exists), so not every backup is known: run --server "
              "--rescan again");
    store_->SetHook(nullptr);
    Run();
    EXPECT_NE(Check("web1"), "(no exception)") << "a rescan of all does not answer for it";
    Run({"--storage", "web1"});
    EXPECT_EQ(Check("web1"), "(no exception)");
}

// --- The lock ---

bool CanLock(int kind) {
    const ResHandle file(open(kLock, O_RDWR | O_CLOEXEC));
    return flock(file, kind | LOCK_NB) == 0;
}

// Simulates a ready server in another process.
class Server {
  public:
    Server() {
        auto [in, out] = kro_proc::Pipe();
        process_ = fork();
        if (process_ == 0) {
            const int fd = open("var/quarn2_cp.pid", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
            struct flock lock {};
            lock.l_type = F_WRLCK;
            if (fcntl(fd, F_SETLK, &lock) != 0 || write(out, "!", 1) != 1) _exit(1);
            pause();
            _exit(0);
        }
        char byte = '\0';
        EXPECT_EQ(read(in, &byte, 1), 1);
        local_files::Save("var/quarn2_cp.pid", std::to_string(process_) + "\n\nkey\n0\n0\n");
        held_.TryLock("var/quarn2_cp.pid", false);
    }
    ~Server() {
        kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

  private:
    pid_t process_ = -1;
    kro_file::Lock held_;
};

class RescanLock : public RescanFault {
  protected:
    RescanLock() { output_ = ResHandle(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)); }
    ~RescanLock() override { dup2(output_, STDOUT_FILENO); }

    ResHandle output_;
};

TEST_F(RescanLock, IsExclusiveFromBeforeTheListingOn) {
    store_->SetHook([](const std::string&, const std::string&) { EXPECT_FALSE(CanLock(LOCK_SH)); });
    const ResHandle handle = Rescan(*Arguments({}));
    EXPECT_TRUE(static_cast<bool>(handle));
    EXPECT_FALSE(CanLock(LOCK_SH));
    EXPECT_EQ(store_->log(), (Lines{"List"}));
}

TEST_F(RescanLock, IsLetGoByAFailedRescan) {
    Fail("List", {""});
    EXPECT_EQ(Failure(), "no  today");
    EXPECT_TRUE(CanLock(LOCK_EX));
}

TEST_F(RescanLock, IsSharedOnceTheServerIsJoined) {
    ResHandle handle = Rescan(*Arguments({}));
    const Server server;
    const int number = handle;
    handle = SizeControlServerStart(Arguments({}), std::move(handle));
    EXPECT_EQ(static_cast<int>(handle), number);
    EXPECT_TRUE(CanLock(LOCK_SH)) << "other callers can join";
    EXPECT_FALSE(CanLock(LOCK_EX)) << "the server lives on";
    const ResHandle other = SizeControlServerStart(Arguments({}), ResHandle());
    EXPECT_TRUE(static_cast<bool>(other));
    EXPECT_EQ(fake_clock::Sleeps(), std::vector<int>());
}

TEST_F(RescanLock, OfAFileReplacedMeanwhileIsTakenAnew) {
    ResHandle handle = Rescan(*Arguments({}));
    const Server server;
    std::filesystem::rename(kLock, "var/old");
    handle = SizeControlServerStart(Arguments({}), std::move(handle));
    EXPECT_TRUE(CanLock(LOCK_SH));
    EXPECT_FALSE(CanLock(LOCK_EX));
}

}  // namespace
