// The events file: its writer and its reader.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include "fake_clock.h"
#include "kro/kro_err.h"
#include "kro/kro_log.h"
#include "local_files.h"
#include "quarn2_cp2_event_log.h"
#include "temp_dir.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using Texts = std::vector<std::string>;

constexpr uid_t kNobody = 65534;
constexpr const char* kRotated = "var/quarn2_cp.events.1";

Event EventOf(const std::string& user) {
    Event event;
    event.kind = EventKind::kCompleted;
    event.user = user;
    return event;
}

// Limits the size of files that this process writes, like a full disk: a write that crosses the
// limit is truncated, and a write that starts at the limit fails.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t size) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
        ::getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit limit = {size, before_.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &before_);
        std::signal(SIGXFSZ, handler_);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

  private:
    rlimit before_{};
    void (*handler_)(int);
};

class EventFile : public testing::Test {
  protected:
    EventFile() {
        std::filesystem::current_path(dir_.path());
        std::filesystem::create_directory("var");
        fake_clock::Reset();
        kro_log::Init("prog", 4);
    }
    ~EventFile() override {
        kro_log::Close();
        std::filesystem::current_path(home_);
    }

    // The users of the selected events.
    Texts Users(const EventFilter& filter = {}) {
        broken_.clear();
        Texts users;
        ReadEvents(
            kEventsPath, filter, [&](const Event& event) { users.push_back(event.user); },
            [&](const BrokenLine& line) {
                broken_.push_back(line.path + ":" + std::to_string(line.number) + ": " +
                                  line.reason);
            });
        return users;
    }

    static std::string Load(const std::string& path = kEventsPath) {
        return local_files::Load(path);
    }
    static std::string LineOf(const std::string& user) { return FormatEvent(EventOf(user)); }
    static int LogLines() {
        const std::string log = Load("var/prog.log");
        return static_cast<int>(std::count(log.begin(), log.end(), '\n'));
    }
    std::string ReadError() {
        try {
            Users();
        } catch (const kro_err::Error& error) {
            return error.what();
        }
        return "(no error)";
    }

    // The descriptions of broken lines that the last call of Users has found.
    Texts broken_;
    EventLog log_;

  private:
    std::filesystem::path home_ = std::filesystem::current_path();
    TempDir dir_;
};

TEST_F(EventFile, HasOneLineForEachEventWithTheCurrentTime) {
    Event event = EventOf("web1");
    event.time = 1;
    log_.Append(event);
    fake_clock::Pass(1000);
    log_.Append(EventOf("web2"));
    EXPECT_EQ(Load(), R"({"time":"2026-11-20T12:00:00.000Z","event":"completed","user":"web1"})"
                      "\n"
                      R"({"time":"2026-11-20T12:00:01.000Z","event":"completed","user":"web2"})"
                      "\n");
    EXPECT_THAT(Users(), ElementsAre("web1", "web2"));
    EXPECT_THAT(broken_, IsEmpty());
    EXPECT_EQ(LogLines(), 0);
}

TEST_F(EventFile, IsPrivate) {
    log_.Append(EventOf("web1"));
    struct stat status {};
    ASSERT_EQ(::stat(kEventsPath, &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
}

TEST_F(EventFile, IsMadeAgainAfterARotation) {
    log_.Append(EventOf("web1"));
    std::filesystem::rename(kEventsPath, kRotated);
    log_.Append(EventOf("web2"));
    EXPECT_THAT(Load(kRotated), HasSubstr("web1"));
    EXPECT_THAT(Load(), HasSubstr("web2"));
    EXPECT_THAT(Load(kRotated), Not(HasSubstr("web2")));
    EXPECT_THAT(Users(), ElementsAre("web1", "web2"));
    std::filesystem::remove(kEventsPath);
    log_.Append(EventOf("web3"));
    EXPECT_THAT(Users(), ElementsAre("web1", "web3"));
}

TEST_F(EventFile, OfManyProcessesAndThreadsHasNoTornLine) {
    const auto append = [this] {
        for (int i = 0; i < 300; ++i) log_.Append(EventOf(std::string(900, 'x')));
    };
    std::vector<pid_t> children;
    for (int i = 0; i < 2; ++i) {
        const pid_t child = ::fork();
        if (child == 0) {
            append();
            ::_exit(0);
        }
        children.push_back(child);
    }
    std::thread other(append);
    append();
    other.join();
    for (const pid_t child : children) {
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    EXPECT_THAT(Users(), SizeIs(1200));
    EXPECT_THAT(broken_, IsEmpty());
}

TEST_F(EventFile, ThatADiskCutWithinALineLosesNoFurtherEvent) {
    log_.Append(EventOf("web1"));
    const std::size_t size = std::filesystem::file_size(kEventsPath);
    {
        const FileSizeLimit limit(size + 20);
        log_.Append(EventOf("web2"));
        log_.Append(EventOf("web3"));
    }
    ASSERT_EQ(std::filesystem::file_size(kEventsPath), size + 20);
    // The reader skips a last line without a line end, because another process may still be writing
    // it.
    EXPECT_THAT(Users(), ElementsAre("web1"));
    EXPECT_THAT(broken_, IsEmpty());
    log_.Append(EventOf("web4"));
    EventLog().Append(EventOf("web5"));
    EXPECT_THAT(Users(), ElementsAre("web1", "web4", "web5"));
    EXPECT_THAT(broken_, ElementsAre("var/quarn2_cp.events:2: this is not valid JSON"));
}

TEST_F(EventFile, ThatWasCutBeforeThisProcessBeganLosesNoEvent) {
    local_files::Save(kEventsPath, LineOf("web1"));
    log_.Append(EventOf("web2"));
    EXPECT_THAT(Users(), ElementsAre("web1", "web2"));
    EXPECT_THAT(broken_, IsEmpty());
}

TEST_F(EventFile, AnEventBehindTheRestOfAnotherIsRead) {
    local_files::Save(kEventsPath,
                      LineOf("web1").substr(0, 50) + LineOf("web2") + "\n" + LineOf("web3") + "\n");
    EXPECT_THAT(Users(), ElementsAre("web2", "web3"));
    EXPECT_THAT(broken_, ElementsAre("var/quarn2_cp.events:1: this is not valid JSON"));
}

TEST_F(EventFile, ThatCannotBeWrittenIsReportedOnce) {
    std::filesystem::remove("var/prog.log");
    std::filesystem::create_directory(kEventsPath);
    errno = EAGAIN;
    log_.Append(EventOf("web1"));
    EXPECT_EQ(errno, EAGAIN);
    log_.Append(EventOf("web2"));
    EXPECT_EQ(LogLines(), 1);
    EXPECT_THAT(Load("var/prog.log"),
                HasSubstr("main 4: Cant write 'var/quarn2_cp.events', so this event and possibly "
                          "later ones are lost. What: Failed to open 'var/quarn2_cp.events': Is a "
                          "directory"));
    std::filesystem::remove(kEventsPath);
    log_.Append(EventOf("web3"));
    EXPECT_THAT(Users(), ElementsAre("web3"));
    EXPECT_EQ(LogLines(), 1);
}

TEST_F(EventFile, IsNothingThatAnotherUserPlaced) {
    ASSERT_EQ(::geteuid(), 0U) << "files of other users are made by root alone";
    local_files::Save("victim", "kept");
    const std::vector<std::pair<std::string, std::function<void()>>> planted = {
        {"' is a symbolic link; remove it", [] { ::symlink("../victim", kEventsPath); }},
        {"' is a symbolic link; remove it", [] { ::symlink("../nothing", kEventsPath); }},
        {"' has another hard link; remove one of the two", [] { ::link("victim", kEventsPath); }},
        {"' is not a plain file; remove it", [] { ::mkfifo(kEventsPath, 0600); }},
        {"' could have been written by another user; remove it",
         [] {
             local_files::Save(kEventsPath, "");
             ASSERT_EQ(::chown(kEventsPath, kNobody, kNobody), 0);
         }},
        {"' could have been written by another user; remove it", [] {
             local_files::Save(kEventsPath, "");
             ASSERT_EQ(::chmod(kEventsPath, 0666), 0);
         }}};
    for (const auto& [error, plant] : planted) {
        plant();
        EventLog().Append(EventOf("web1"));
        EXPECT_THAT(Load("var/prog.log"), testing::EndsWith(error + "\n"));
        EXPECT_EQ(ReadError(), std::string("'") + kEventsPath + error);
        std::filesystem::remove(kEventsPath);
        EXPECT_EQ(Load("victim"), "kept");
        EXPECT_FALSE(local_files::Has("nothing"));
    }
    EXPECT_EQ(LogLines(), 6);
}

// --- The reader ---

TEST_F(EventFile, ThatIsMissingHasNoEvents) { EXPECT_THAT(Users(), IsEmpty()); }

TEST_F(EventFile, BrokenLinesAreReportedWithTheirNumbers) {
    local_files::Save(kRotated, "x\n" + LineOf("web1") + "\n" + LineOf("web2").substr(0, 50));
    local_files::Save(kEventsPath, "\n" + LineOf("web3") + "\n{}\n" + std::string(200'000, 'x') +
                                       "\n" + LineOf("web4") + "\n" + std::string(200'000, '\0'));
    EXPECT_THAT(Users(), ElementsAre("web1", "web3", "web4"));
    EXPECT_THAT(broken_, ElementsAre("var/quarn2_cp.events.1:1: this is not valid JSON",
                                     "var/quarn2_cp.events.1:3: this is not valid JSON",
                                     "var/quarn2_cp.events:3: the time is not of the form "
                                     "YYYY-MM-DDTHH:MM:SS.mmmZ",
                                     "var/quarn2_cp.events:4: the line is too long",
                                     "var/quarn2_cp.events:6: the line is too long"));
}

TEST_F(EventFile, ARotatedFileThatCannotBeReadHidesNoOtherEvent) {
    ::symlink("../victim", kRotated);
    local_files::Save(kEventsPath, LineOf("web1") + "\n");
    EXPECT_THAT(Users(), ElementsAre("web1"));
    EXPECT_THAT(broken_, ElementsAre("var/quarn2_cp.events.1:0: 'var/quarn2_cp.events.1' is a "
                                     "symbolic link; remove it"));
}

TEST_F(EventFile, LinesOfEverySizeAreReadWhole) {
    std::string text;
    Texts users;
    for (std::size_t size = 1; size < 1000; ++size) {
        users.emplace_back(size, 'u');
        text += LineOf(users.back()) + "\n";
    }
    local_files::Save(kEventsPath, text);
    EXPECT_EQ(Users(), users);
    EXPECT_THAT(broken_, IsEmpty());
}

TEST_F(EventFile, EventsAreSelectedByDayAndUser) {
    for (const char* user : {"web1", "web2", "web1", "web11"}) {
        log_.Append(EventOf(user));
        fake_clock::Pass(24 * 60 * 60 * 1000);
    }
    EXPECT_THAT(Users({"", "web1"}), ElementsAre("web1", "web1"));
    EXPECT_THAT(Users({"2026-11-21", ""}), ElementsAre("web2", "web1", "web11"));
    EXPECT_THAT(Users({"2026-11-21", "web1"}), ElementsAre("web1"));
    EXPECT_THAT(Users({"2026-11-24", ""}), IsEmpty());
    EXPECT_THROW(Users({"yesterday", ""}), kro_err::Error);
}

TEST_F(EventFile, EventsAreSelectedByStorage) {
    for (const char* storage : {"", "site", "site2"}) {
        Event event = EventOf(std::string("web") + storage);
        event.storage = storage;
        log_.Append(event);
    }
    EXPECT_THAT(Users({"", "", "site"}), ElementsAre("website"));
    EXPECT_THAT(Users({"", "", ""}), ElementsAre("web"));
    EXPECT_THAT(Users(), ElementsAre("web", "website", "website2"));
}

TEST_F(EventFile, AClosedFileIsOpenedAgain) {
    log_.Append(EventOf("web1"));
    log_.Close();
    log_.Append(EventOf("web2"));
    EXPECT_THAT(Users(), ElementsAre("web1", "web2"));
}

TEST_F(EventFile, AnErrorOfTheReceiverEndsTheReading) {
    log_.Append(EventOf("web1"));
    const auto refuse = [](const Event&) -> void {
        throw kro_err::Error(kro_err::Kind::kFailed, "stop");
    };
    EXPECT_THROW(ReadEvents(kEventsPath, {}, refuse, [](const BrokenLine&) { FAIL(); }),
                 kro_err::Error);
}

}  // namespace
