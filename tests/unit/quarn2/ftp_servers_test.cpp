// Listings, removals and refusals on FTP servers that lack commands or send unusual replies.
#include <gmock/gmock.h>

#include <map>

#include "scripted_ftp.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

std::string Line(const std::string& name, char type = '-') {
    return type + std::string("rw-r--r--    1 33       33              3 Nov 20 19:40 ") + name +
           "\r\n";
}

using FtpServers = ScriptedFtp;

// --- Servers without machine listings ---

// A server without MLSD that lists the current directory of the session, as vsftpd does. A login
// starts in "/".
class FtpWithoutMlsd : public ScriptedFtp {
  protected:
    FtpWithoutMlsd() {
        Serve({{"MLSD", Saying("500 Unknown command.")},
               {"MLST", Saying("500 Unknown command.")},
               {"PASS",
                [this](FtpSession& session, const std::string&) {
                    current_ = "/";
                    session.Say("230 In");
                }},
               {"CWD",
                [this](FtpSession& session, const std::string& path) { Enter(session, path); }},
               {"LIST",
                [this](FtpSession& session, const std::string& arguments) {
                    ++lists_;
                    session.Send(arguments == "-a" ? hidden_ + directories_[current_]
                                                   : directories_[current_]);
                }},
               {"DELE", [this](FtpSession& session, const std::string& path) {
                    removed_.push_back(path);
                    session.Say("250 Gone");
                }}});
    }
    ~FtpWithoutMlsd() override { server_.reset(); }

    void Enter(FtpSession& session, std::string path) {
        while (path.size() > 1 && path.ends_with('/')) path.pop_back();
        const bool known = directories_.count(path) != 0;
        if (known) current_ = path;
        session.Say(known ? "250 Fine" : refusal_);
    }
    std::vector<std::string> List(quarn2::Storage& storage, const std::string& name) {
        std::vector<std::string> names;
        storage.List(names, name);
        return names;
    }

    std::map<std::string, std::string> directories_ = {
        {"/", Line("dir", 'd') + Line("private")},
        {"/dir", Line("user", 'd') + Line("F2026-11-20.web1.tgz")},
        {"/dir/user", Line("2026-11-20", 'd')},
        {"/dir/user/2026-11-20", ""}};
    std::string hidden_ = Line(".", 'd');
    std::string refusal_ = "550 Failed to change directory.";
    std::string current_ = "/";
    int lists_ = 0;
    std::vector<std::string> removed_;
};

TEST_F(FtpWithoutMlsd, ListsTheDirectoryThatIsAskedForAndNoOther) {
    const auto storage = Open();
    for (int round = 0; round < 2; ++round) {
        EXPECT_THAT(List(*storage, ""), ElementsAre("F2026-11-20.web1.tgz", "user"));
        EXPECT_THAT(List(*storage, ""), ElementsAre("F2026-11-20.web1.tgz", "user"));
        storage->MkDir("user/2026-11-20");
        EXPECT_THAT(List(*storage, ""), ElementsAre("F2026-11-20.web1.tgz", "user"));
        EXPECT_THAT(List(*storage, "user"), ElementsAre("2026-11-20"));
        EXPECT_THAT(List(*storage, "user/2026-11-20"), IsEmpty());
    }
    EXPECT_EQ(lists_, 10) << "one listing each";
}

TEST_F(FtpWithoutMlsd, ListsItOnANewConnectionToo) {
    EXPECT_THAT(List(*Open(), "user"), ElementsAre("2026-11-20"));
    EXPECT_THAT(List(*Open(), ""), ElementsAre("F2026-11-20.web1.tgz", "user"));
}

TEST_F(FtpWithoutMlsd, ClearRemovesTheFilesOfTheStorageAlone) {
    directories_["/dir"] = Line("a") + Line(".b");
    Open()->Clear();
    EXPECT_THAT(removed_, ElementsAre("/dir/a", "/dir/.b"));
}

// A server without options interprets "-a" as the name of a file, which may exist.
TEST_F(FtpWithoutMlsd, OptionThatIsTakenForAFileHidesNothing) {
    hidden_ = Line("-a");
    EXPECT_THAT(List(*Open(), "user"), ElementsAre("2026-11-20"));
}

TEST_F(FtpWithoutMlsd, DirectoryThatCannotBeEnteredIsNotMissing) {
    directories_.erase("/dir/user");
    EXPECT_EQ(TypeOf([&] { List(*Open(), "user"); }), "failed") << "/dir shows it";
    EXPECT_EQ(TypeOf([&] { List(*Open(), "other"); }), "not_found");
    refusal_ = "550 other: Permission denied";
    EXPECT_EQ(TypeOf([&] { List(*Open(), "other"); }), "failed");
}

TEST_F(FtpWithoutMlsd, TroubleThatMayPassIsNotAMissingDirectory) {
    refusal_ = "450 Try again later";
    EXPECT_EQ(TypeOf([&] { List(*Open(), "other"); }), "unavailable");
}

// --- Machine listings ---

// The server supports MLSD. The client must not use LIST, which may not show hidden files.
TEST_F(FtpServers, RefusalToListAFileDoesNotEndMachineListings) {
    Serve({{"MLSD",
            [](FtpSession& session, const std::string& path) {
                if (path.find("file") != std::string::npos) {
                    session.Say("501 No such directory.");
                } else {
                    session.Send("type=cdir; .\r\ntype=file; file\r\n");
                }
            }},
           {"MLST", Saying("250-\r\n type=file; file\r\n250 End")}});
    const auto storage = Open();
    for (int round = 0; round < 2; ++round) {
        storage->List(names_, "file");
        EXPECT_THAT(names_, ElementsAre("file"));
        storage->List(names_, "");
        EXPECT_THAT(names_, ElementsAre("file"));
    }
    EXPECT_THAT(server_->Seen(), Not(Contains("LIST")));
}

// --- Replies that do not belong to the command ---

// The first EPSV gets an additional reply. The first download therefore fails with unread replies
// to EPSV and PASV, which the second download must not read.
TEST_F(FtpServers, UnreadRepliesAreNotTakenForThoseOfTheNextOperation) {
    int ports = 0;
    Serve({{"EPSV",
            [&ports](FtpSession& session, const std::string&) {
                if (ports++ == 0) session.Say("200 Late");
                session.OpenDataPort();
                session.Say("229 Ready (|||" + std::to_string(session.data_port()) + "|)");
            }},
           {"RETR", Sending("content", "")},
           {"SIZE", Saying("213 7")}});
    const auto storage = Open();
    EXPECT_EQ(TypeOf([&] { storage->Download("file", target_); }), "unavailable");
    storage->Download("file", target_);
    EXPECT_EQ(local_files::Load(target_), "content");
}

// --- Servers with TLS requirements ---

using FtpsServers = EncryptedFtp<ScriptedFtp>;

TEST_F(FtpsServers, OneWithoutTls12IsServedByTls13) {
    Serve({{"AUTH", Encrypting("234 Go on\r\n", TLS1_3_VERSION)},
           {"PROT", EncryptingData(TLS1_3_VERSION)},
           {"MLSD", Sending("type=cdir; .\r\ntype=file; F2026-11-20.web1.tgz\r\n", "")}});
    EXPECT_EQ(TlsError(), "(no error)");
    EXPECT_THAT(names_, ElementsAre("F2026-11-20.web1.tgz"));
}

// A server that allows one transfer per connection, as if the TLS session then expired.
class FtpWithShortSessions : public ScriptedFtp {
  protected:
    FtpWithShortSessions() {
        Serve({{"PASS",
                [this](FtpSession& session, const std::string&) {
                    transfers_ = 0;
                    ++connections_;
                    session.Say("230 In");
                }},
               {"MLSD", OnlyFirst(Sending("type=cdir; .\r\ntype=file; file\r\n", ""))},
               {"RETR", OnlyFirst(Sending("content", ""))},
               {"STOR",
                OnlyFirst([](FtpSession& session, const std::string&) { session.Receive(); })},
               {"SIZE", Saying("213 7")},
               {"RNFR", Saying("350 Go on")},
               {"RNTO", Saying("250 Fine")}});
    }
    ~FtpWithShortSessions() override { server_.reset(); }

    ScriptedFtpServer::Answer OnlyFirst(const ScriptedFtpServer::Answer& answer) {
        return [this, answer](FtpSession& session, const std::string& argument) {
            const bool reused = transfers_++ == 0 && !refuses_all_;
            if (reused) return answer(session, argument);
            session.Say("522 SSL connection failed: session reuse required");
        };
    }

    bool refuses_all_ = false;
    int transfers_ = 0;
    int connections_ = 0;
};

TEST_F(FtpWithShortSessions, RefusedDataConnectionIsTriedOnANewConnection) {
    const auto storage = Open();
    for (int round = 0; round < 2; ++round) {
        EXPECT_TRUE(storage->Upload("file", source_));
        storage->Download("file", target_);
        EXPECT_EQ(local_files::Load(target_), "content");
        storage->List(names_, "");
        EXPECT_THAT(names_, ElementsAre("file"));
    }
    EXPECT_EQ(connections_, 6) << "one for each transfer";
}

TEST_F(FtpWithShortSessions, ServerThatRefusesEachIsAskedTwice) {
    refuses_all_ = true;
    const auto storage = Open();
    EXPECT_THAT(ErrorOf([&] { storage->Upload("file", source_); }),
                HasSubstr("522 SSL connection failed: session reuse required"));
    EXPECT_LE(connections_, 2);
    EXPECT_EQ(transfers_, 1);
}

// --- Uploads that fail ---

// A server with limited space that does not report that it is full.
class FtpWithLittleRoom : public ScriptedFtp {
  protected:
    void ServeWith(std::map<std::string, ScriptedFtpServer::Answer> more = {}) {
        std::map<std::string, ScriptedFtpServer::Answer> answers = {
            {"MLST", Saying("250-\r\n type=dir; /dir\r\n250 End")},
            {"STOR",
             [this](FtpSession& session, const std::string& path) { Store(session, path); }},
            {"SIZE",
             [this](FtpSession& session, const std::string& path) {
                 const bool known = files_.count(path) != 0;
                 session.Say(known ? "213 " + std::to_string(files_[path]) : "550 Not here");
             }},
            {"DELE", [this](FtpSession& session, const std::string& path) {
                 session.Say(files_.erase(path) > 0 ? "250 Gone" : "550 Not here");
             }}};
        more.merge(answers);
        Serve(std::move(more));
    }
    ~FtpWithLittleRoom() override { server_.reset(); }

    void Store(FtpSession& session, const std::string& path) {
        const std::size_t received = session.ReceiveBytes();
        std::size_t used = 0;
        for (const auto& [name, size] : files_) used += size;
        files_[path] = std::min(received, room_ - used);
        const bool fits = files_[path] == received && !is_broken_;
        session.Say(fits ? "226 Done" : "451 Failure writing to local file.");
    }

    std::map<std::string, std::size_t> files_;
    std::size_t room_ = 5;
    bool is_broken_ = false;
};

TEST_F(FtpWithLittleRoom, IsFullWhenTheRemovalOfThePartMakesRoom) {
    ServeWith();
    EXPECT_FALSE(Open()->Upload("file", source_));
    EXPECT_THAT(files_, IsEmpty());
}

// Evictions free no space on a broken disk.
TEST_F(FtpWithLittleRoom, IsNotFullWhenWritesKeepFailing) {
    room_ = 1U << 20U;
    is_broken_ = true;
    ServeWith();
    EXPECT_EQ(TypeOf([&] { Open()->Upload("file", source_); }), "unavailable");
    EXPECT_THAT(files_, IsEmpty());
}

TEST_F(FtpWithLittleRoom, IsNotFullWithoutAnySign) {
    room_ = 0;
    ServeWith();
    EXPECT_EQ(TypeOf([&] { Open()->Upload("file", source_); }), "unavailable");
}

TEST_F(FtpWithLittleRoom, IsFullWhenItSaysSoOfASmallFile) {
    room_ = 0;
    ServeWith({{"STOR", [this](FtpSession& session, const std::string& path) {
                    if (path.find("-probe") == std::string::npos) return Store(session, path);
                    session.Say("452 Sorry");
                }}});
    EXPECT_FALSE(Open()->Upload("file", source_));
}

TEST_F(FtpWithLittleRoom, IsAskedForTheFreeSpace) {
    ServeWith({{"AVBL", Saying("213 1")}});
    EXPECT_FALSE(Open()->Upload("file", source_)) << "5 bytes are there, 1 more fits";
    ServeWith({{"AVBL", Saying("213 2")}});
    EXPECT_EQ(TypeOf([&] { Open()->Upload("file", source_); }), "unavailable");
}

TEST_F(FtpWithLittleRoom, NameOfAFileIsNoReason) {
    ServeWith({{"STOR", [](FtpSession& session, const std::string& path) {
                    session.Say("550 " + path + ": Not now");
                }}});
    for (const char* const name :
         {"over-quota/F.tgz", "F2026-11-20.disk full.tgz", "quota exceeded"}) {
        EXPECT_EQ(TypeOf([&] { Open()->Upload(name, source_); }), "failed") << name;
    }
}

// --- Logins that are refused ---

// Callers abandon an upload when the credentials are refused, so no other error may look like
// refused credentials.
TEST_F(FtpServers, OnlyARefusedPasswordIsUnauthorized) {
    const std::pair<std::string, std::string> cases[] = {
        {"530 Login incorrect.", "unauthorized"},
        {"530 Sorry, the maximum number of allowed clients (10) already connected", "unavailable"},
        {"500 OOPS: cannot change directory", "failed"},
        {"550 SSL/TLS required on the control channel", "failed"},
        {"430 Not now", "unavailable"},
    };
    for (const auto& [line, type] : cases) {
        Serve({{"PASS", Saying(line)}});
        EXPECT_EQ(TypeOf([&] { Open()->List(names_, ""); }), type) << line;
    }
}

}  // namespace
