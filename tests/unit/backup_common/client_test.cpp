// The complete node client, with its link on standard input.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>

#include "control_server.h"
#include "faults.h"
#include "gate.h"
#include "master_server.h"
#include "program_site.h"
#include "quarn2_cp2_put.h"

namespace {

constexpr const char* kSocket = "tmp/quarn2_cp.sock#web1";

// A pipe replaces standard input. The test holds the server's end.
class Client : public ProgramSite {
  protected:
    Client() {
        keep_ = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
        auto [in, out] = kro_proc::Pipe();
        dup2(in, STDIN_FILENO);
        server_ = out;
    }
    ~Client() override {
        faults::ThePlan() = {};
        if (keep_ >= 0) dup2(keep_, STDIN_FILENO);
        if (keep_ >= 0) close(keep_);
    }

    void Send(const std::string& bytes) const {
        ASSERT_EQ(write(server_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    static bool WaitFor(const std::string& path) {
        for (int i = 0; i < 10000 && !local_files::Has(path); ++i) usleep(1000);
        return local_files::Has(path);
    }

    int keep_ = -1;
    ResHandle server_;
};

TEST_F(Client, EndsWhenTheServerClosesItsInput) {
    Send(Frame("web1") + Frame("memory:site"));
    server_.Close();
    CommandClient();
    struct stat status {};
    ASSERT_EQ(stat(kSocket, &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    EXPECT_EQ(Log(7), (Lines{"5: Open control socket 'tmp/quarn2_cp.sock#web1'",
                             "5: Client. Backup token = 'memory:site'"}));
}

TEST_F(Client, WithoutAStorageNameTheSocketHasThePlainName) {
    Send(Frame("") + Frame("memory:site"));
    server_.Close();
    CommandClient();
    EXPECT_TRUE(local_files::Has("tmp/quarn2_cp.sock"));
}

TEST_F(Client, ReplacesAStaleSocketAndServes) {
    ControlServer::Listen(kSocket).Close();
    Send(Frame("web1") + Frame("memory:site"));
    auto job = std::async(std::launch::async, [this] {
        std::string answer = "none";
        for (int i = 0; i < 10000 && answer == "none"; ++i) {
            try {
                answer = ControlServer::Ask(kSocket, "STAT");
            } catch (const std::exception&) {
                usleep(1000);
            }
        }
        server_.Close();
        return answer;
    });
    CommandClient();
    EXPECT_EQ(job.get(), "OK");
}

TEST_F(Client, ReplacesAFileOfAnyKindAtThePath) {
    Place(kSocket, "a file");
    Send(Frame("web1") + Frame("memory:site"));
    server_.Close();
    CommandClient();
    struct stat status {};
    ASSERT_EQ(stat(kSocket, &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
}

TEST_F(Client, DataOutsideAnExchangeEndsIt) {
    Send(Frame("web1") + Frame("memory:site") + "x");
    CommandClient();
    EXPECT_TRUE(local_files::Has(kSocket));
}

TEST_F(Client, APathThatAnAddressCannotHoldStopsItAtItsStart) {
    const std::string name(108 - std::string("tmp/quarn2_cp.sock#").size(), 's');
    Send(Frame(name));
    EXPECT_EQ(TextOf<std::runtime_error>([] { CommandClient(); }),
              "The control socket's path 'tmp/quarn2_cp.sock#" + name +
                  "' is too long: 108 bytes, at most 107 are possible");
    const std::string longest = name.substr(1);
    Send(Frame(longest) + Frame("memory:site"));
    server_.Close();
    CommandClient();
    EXPECT_TRUE(local_files::Has("tmp/quarn2_cp.sock#" + longest));
}

TEST_F(Client, ASocketThatCannotBeBoundStopsItAtItsStart) {
    std::filesystem::remove_all("tmp");
    Send(Frame("web1"));
    EXPECT_EQ(TextOf<std::runtime_error>([] { CommandClient(); }),
              "Failed to bind to 'tmp/quarn2_cp.sock#web1' error 2");
}

TEST_F(Client, ASocketThatTheSystemRefusesStopsItAtItsStart) {
    Send(Frame("web1") + Frame("web1"));
    faults::ThePlan() = {.socket = 1, .error = EMFILE};
    EXPECT_EQ(TextOf<std::runtime_error>([] { CommandClient(); }), "Failed to open socket");
    faults::ThePlan() = {.listen = 1, .error = EADDRINUSE};
    EXPECT_EQ(TextOf<std::runtime_error>([] { CommandClient(); }), "Failed to listen");
}

TEST_F(Client, BadOpeningFramesStopItAtItsStart) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", "Failed to get answer size from server"},
        {Frame("web1").substr(0, 6), "Failed to get answer from server"},
        {Frame("web1"), "Failed to get answer size from server"},
        {Frame("web1") + Frame("memory:site").substr(0, 9), "Failed to get answer from server"},
        {Frame("web1") + Frame(""),
         "the storage token is empty: set BACKUP_TOKEN, for instance to local:///srv/backups"}};
    for (const auto& [bytes, text] : cases) {
        auto [in, out] = kro_proc::Pipe();
        dup2(in, STDIN_FILENO);
        server_ = out;
        Send(bytes);
        server_.Close();
        EXPECT_EQ(TextOf<std::runtime_error>([] { CommandClient(); }), text);
    }
}

}  // namespace
