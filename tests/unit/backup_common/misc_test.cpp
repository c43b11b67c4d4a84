// Helpers that several roles use: the storage from the environment, the command side of the control
// socket, two workers for event loops.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "control_server.h"
#include "faults.h"
#include "kro/kro_err.h"
#include "kro/kro_hint.h"
#include "program_site.h"
#include "quarn2_cp2_get.h"
#include "quarn2_cp2_misc.h"
#include "quarn2_cp2_misc_control.h"
#include "quarn2_cp2_misc_refusal.h"
#include "quarn2_cp2_misc_storage.h"
#include "quarn2_cp2_put.h"

namespace {

using quarn2::Expect;

constexpr const char* kSocket = "tmp/quarn2_cp.sock";

class Misc : public ProgramSite {
  protected:
    ~Misc() override { faults::ThePlan() = {}; }
};

// --- GetStorageByEnv ---

TEST_F(Misc, StorageByEnvIsTheOneOfTheToken) {
    store_->SetFile("a", "1");
    Lines names;
    GetStorageByEnv()->List(names, "");
    EXPECT_EQ(names, (Lines{"a"}));
}

TEST_F(Misc, StorageByEnvWithoutATokenThrows) {
    unsetenv("BACKUP_TOKEN");
    EXPECT_EQ(TextOf<kro_err::Error>([] { GetStorageByEnv(); }),
              "the storage token is empty: set BACKUP_TOKEN, for instance to local:///srv/backups");
    setenv("BACKUP_TOKEN", "", 1);
    EXPECT_EQ(TextOf<kro_err::Error>([] { GetStorageByEnv(); }),
              "the storage token is empty: set BACKUP_TOKEN, for instance to local:///srv/backups");
}

TEST_F(Misc, StorageByEnvWithAnUnknownSchemeThrows) {
    setenv("BACKUP_TOKEN", "gopher://host/path", 1);
    EXPECT_EQ(
        TextOf<kro_err::Error>([] { GetStorageByEnv(); }).find("unknown storage scheme 'gopher'"),
        0U);
}

// --- Read ---

TEST_F(Misc, ReadTakesEverythingToTheEnd) {
    auto [in, out] = kro_proc::Pipe();
    const std::string text = local_files::Noise(5000);
    ASSERT_EQ(write(out, text.data(), text.size()), 5000);
    out.Close();
    EXPECT_EQ(Read(in), text);
    EXPECT_EQ(Read(in), "");
}

TEST_F(Misc, ReadOfADescriptorThatCannotBeReadThrows) {
    const auto pipe = kro_proc::Pipe();
    EXPECT_EQ(TextOf<std::runtime_error>([&] { Read(pipe.second); }), "Failed to read");
}

// --- The control socket, command side ---

TEST_F(Misc, SocketPathCarriesTheNameOfTheStorage) {
    EXPECT_EQ(ControlSocketPath(""), "tmp/quarn2_cp.sock");
    EXPECT_EQ(ControlSocketPath("web1"), "tmp/quarn2_cp.sock#web1");
}

TEST_F(Misc, SendCommandGivesTheAnswerWithoutOk) {
    const ControlServer server(kSocket, [](const std::string&) { return "OK name 5 hash"; });
    EXPECT_EQ(SendCommand("PUT dir with blank/a.tgz DELETE"), "name 5 hash");
    EXPECT_EQ(server.commands(), (Lines{"PUT dir with blank/a.tgz DELETE"}));
    EXPECT_EQ(Log(), (Lines{"8: SendCommand command = PUT dir with blank/a.tgz DELETE, storage = "
                            "'tmp/quarn2_cp.sock'"}));
}

TEST_F(Misc, SendCommandOfABareOkIsEmpty) {
    const ControlServer server(kSocket, [](const std::string&) { return "OK"; });
    EXPECT_EQ(SendCommand("DELETE a.info"), "");
}

TEST_F(Misc, SendCommandReadsLongAnswersWhole) {
    const std::string rest(5000, 'x');
    const ControlServer server(kSocket, [&](const std::string&) { return "OK " + rest; });
    EXPECT_EQ(SendCommand("PUT a"), rest);
}

TEST_F(Misc, SendCommandGoesToTheStorageOfTheEnvironment) {
    setenv("BACKUP_STORAGE", "web1", 1);
    const ControlServer server("tmp/quarn2_cp.sock#web1",
                               [](const std::string&) { return "OK 1"; });
    EXPECT_EQ(SendCommand("X"), "1");
    EXPECT_EQ(Log(), (Lines{"8: SendCommand command = X, storage = 'tmp/quarn2_cp.sock#web1'"}));
}

// Returns the text and the hint of the error if no node client runs.
std::pair<std::string, std::string> NotConnected() {
    try {
        SendCommand("PUT a");
    } catch (const kro_err::HintedError& error) {
        return {error.what(), error.hint()};
    }
    return {};
}

std::string HowToStart(const std::string& option) {
    return "No size control server runs here for this storage. Start one and keep its standard "
           "input open: mkfifo /run/hold; quarn2_cp --server " +
           option + "--size-limit BYTES --count-limit FULL:DAILY </run/hold & exec 3>/run/hold";
}

TEST_F(Misc, SendCommandWithoutANodeClientSaysHowToStartAServer) {
    const std::string text = "Failed to connect to size control server socket";
    EXPECT_EQ(NotConnected(), std::pair(text, HowToStart("")));
    ControlServer::Listen(kSocket).Close();
    EXPECT_EQ(NotConnected(), std::pair(text, HowToStart(""))) << "a stale socket";
    setenv("BACKUP_STORAGE", "web1", 1);
    EXPECT_EQ(NotConnected(), std::pair(text, HowToStart("--storage 'web1' ")));
}

TEST_F(Misc, ASocketThatCannotBeReachedForAnotherReasonGivesIt) {
    std::filesystem::remove_all("tmp");
    Place("tmp", "a file");
    EXPECT_EQ(NotConnected().second, "'tmp/quarn2_cp.sock': Not a directory");
}

TEST_F(Misc, RefusedCommandThrowsAnEmptyText) {
    const ControlServer server(kSocket, [](const std::string&) { return ""; });
    EXPECT_EQ(TextOf<std::runtime_error>([] { SendCommand("PUT a"); }), "");
}

// ControlServer runs in this process. The lines that this function logs are therefore the log lines
// of the node client.
void LogRefusal(const std::string& reason, pid_t process) {
    constexpr kro_log::Module kLog("main");
    kLog.Text(3, reason);
    kLog.Text(5, RefusalLine(process) + "PUT a");
}

std::string TextOfRefusal(ControlServer::Answer refuse) {
    const ControlServer server(kSocket, std::move(refuse));
    return TextOf<std::runtime_error>([] { SendCommand("PUT a"); });
}

TEST_F(Misc, RefusedCommandThrowsTheReasonOfTheNodeClientsLog) {
    LogRefusal("of an earlier command", getpid());
    EXPECT_EQ(TextOfRefusal([](const std::string&) {
                  LogRefusal("No disk space left on storage. Size limit: 5", getpid());
                  LogRefusal("of another process", 1);
                  return "";
              }),
              "the node client refused the command: No disk space left on storage. Size limit: 5");
}

TEST_F(Misc, WithoutALogOfThisCommandTheRefusalHasNoText) {
    LogRefusal("of an earlier command", getpid());
    const std::vector<ControlServer::Answer> cases = {
        [](const std::string&) { return ""; },
        [](const std::string&) {
            LogRefusal("of another process", 1);
            return "";
        },
        [](const std::string&) {
            LogRefusal("rotated", getpid());
            std::filesystem::rename("var/quarn2_cp.log", "var/quarn2_cp.log.1");
            return "";
        },
        [](const std::string&) {
            LogRefusal("removed", getpid());
            std::filesystem::remove_all("var");
            return "";
        }};
    for (const ControlServer::Answer& refuse : cases) EXPECT_EQ(TextOfRefusal(refuse), "");
}

TEST_F(Misc, AnswerThatIsNotOkThrowsItsFirstWord) {
    const ControlServer server(kSocket, [](const std::string&) { return "SORRY no room"; });
    EXPECT_EQ(TextOf<std::runtime_error>([] { SendCommand("PUT a"); }), "SORRY");
}

TEST_F(Misc, SendCommandWithoutASocketThrows) {
    faults::ThePlan() = {.socket = 1, .error = EMFILE};
    EXPECT_EQ(TextOf<std::runtime_error>([] { SendCommand("PUT a"); }), "Failed to open socket");
}

TEST_F(Misc, CommandThatIsNotSentWholeThrows) {
    const ControlServer server(kSocket, [](const std::string&) { return ""; });
    faults::ThePlan() = {.send_short = 1};
    EXPECT_EQ(TextOf<std::runtime_error>([] { SendCommand("PUT a"); }), "Failed to send command");
}

TEST_F(Misc, AnswerThatBreaksOffThrows) {
    const ResHandle listening = ControlServer::Listen(kSocket);
    // If the connection closes with unread data, the other side's read fails.
    std::thread server([&] {
        ResHandle connection(accept(listening, nullptr, nullptr));
        char byte = '\0';
        EXPECT_EQ(recv(connection, &byte, 1, MSG_PEEK), 1);
        pollfd end{connection, POLLRDHUP, 0};
        EXPECT_EQ(poll(&end, 1, 10000), 1);
        connection.Close();
    });
    EXPECT_EQ(TextOf<std::runtime_error>([] { SendCommand("PUT a"); }), "Failed to read");
    server.join();
}

TEST_F(Misc, PathOfTheSocketIsCutAtWhatAnAddressHolds) {
    setenv("BACKUP_STORAGE", std::string(200, 's').c_str(), 1);
    const std::string whole = ControlSocketPath(std::string(200, 's'));
    const ControlServer server(whole.substr(0, 108), [](const std::string&) { return "OK cut"; });
    EXPECT_EQ(SendCommand("PUT a"), "cut");
}

// --- Workers ---

TEST_F(Misc, FinishOnCloseGoesOnWhileThereIsNothingToRead) {
    kro_thread::SafeLock lock;
    auto [in, out] = kro_proc::Pipe();
    FinishOnClose worker(lock);
    EXPECT_EQ(worker(in), Expect::erOk);
    ASSERT_EQ(write(out, "x", 1), 1);
    EXPECT_EQ(worker(in), Expect::erFinish);
}

TEST_F(Misc, FinishOnCloseEndsTheLoopAtTheEndOfInput) {
    kro_thread::SafeLock lock;
    auto [in, out] = kro_proc::Pipe();
    out.Close();
    FinishOnClose worker(lock);
    EXPECT_EQ(worker(in), Expect::erFinish);
}

TEST_F(Misc, FinishOnCloseDoesNotTakeAnExchangesAnswerForData) {
    kro_thread::SafeLock lock;
    auto [in, out] = kro_proc::Pipe();
    ASSERT_EQ(write(out, "x", 1), 1);
    lock.lock();
    Expect::Result* result = nullptr;
    std::thread loop([&, handle = in] { result = FinishOnClose(lock)(handle); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    char byte = '\0';
    ASSERT_EQ(read(in, &byte, 1), 1);
    lock.unlock();
    loop.join();
    EXPECT_EQ(result, Expect::erOk);
}

TEST_F(Misc, FinishOnSignalEndsTheLoopAndRemembersIt) {
    const ResHandle signals = kro_proc::WatchTermination();
    FinishOnSignal worker;
    EXPECT_EQ(worker(signals), Expect::erOk);
    EXPECT_FALSE(worker.arrived());
    ASSERT_EQ(kill(getpid(), SIGTERM), 0);
    EXPECT_EQ(worker(signals), Expect::erFinish);
    EXPECT_TRUE(worker.arrived());
    EXPECT_EQ(worker(signals), Expect::erFinish);
    EXPECT_EQ(Log(), (Lines{"5: Signal 15 received. Finish"}));
}

TEST_F(Misc, StandardInputIsADescriptorOfItsOwn) {
    ResHandle copy = StandardInput();
    EXPECT_GT(static_cast<int>(copy), 2);
    EXPECT_NE(fcntl(copy, F_GETFD) & FD_CLOEXEC, 0);
    copy.Close();
    EXPECT_GE(fcntl(STDIN_FILENO, F_GETFD), 0);
}

}  // namespace
