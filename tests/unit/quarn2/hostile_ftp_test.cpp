// Hostile FTP servers: endless replies and listings, false sizes, other addresses, weaker
// encryption than requested.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "scripted_ftp.h"

namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::Not;

class HostileFtp : public ScriptedFtp {
  protected:
    void TearDown() override {
        EXPECT_EQ(local_files::Load(source_), "content");
        EXPECT_FALSE(local_files::Has(target_));
        EXPECT_FALSE(local_files::Has(folder_ / ".target.part~"));
    }
};

TEST_F(HostileFtp, OrdinaryAnswersAreTaken) {
    Serve({});
    EXPECT_EQ(ListError(), "(no error)");
    EXPECT_THAT(names_, testing::IsEmpty());
}

// --- Endless data ---

TEST_F(HostileFtp, TalkWithoutEnd) {
    for (const std::string verb : {"", "USER", "PASS", "EPSV", "MLSD"}) {
        for (const std::string line : {"200-still talking", "200 again", "still talking"}) {
            SCOPED_TRACE(verb + ": " + line);
            Serve({{verb, SayingWithoutEnd(line)}});
            EXPECT_NE(ListError(), "(no error)");
        }
    }
}

TEST_F(HostileFtp, OneLineWithoutEnd) {
    Serve({{"PASS", [](FtpSession& session, const std::string&) {
                while (session.Write(std::string(4096, 'x'))) continue;
            }}});
    EXPECT_NE(ListError(), "(no error)");
}

TEST_F(HostileFtp, ListingsWithoutEnd) {
    Serve({{"MLSD", Sending("", "type=file; " + std::string(200, 'n') + "\r\n")}});
    EXPECT_THAT(ListError(), HasSubstr("the listing is too long: more than 64 MiB"));
    Serve({{"MLSD", Sending("", "type=file; n\r\n")}});
    EXPECT_THAT(ListError(), HasSubstr("listing"));
    Serve({{"MLSD", Sending("type=file; ", "n")}});
    EXPECT_THAT(ListError(), HasSubstr("the listing is too long: more than 64 MiB"));
}

TEST_F(HostileFtp, NamesWithoutEnd) {
    std::string listing;
    for (int i = 0; i < 1'000'001; ++i) listing += "type=file; n\r\n";
    Serve({{"MLSD", Sending(listing, "")}});
    EXPECT_THAT(ListError(),
                HasSubstr("the server's directory listing is too long: more than 1000000 entries"));
}

TEST_F(HostileFtp, DirectoriesWithoutEnd) {
    Serve({{"MLSD", Sending("type=dir; deeper\r\n", "")}});
    EXPECT_THAT(ErrorOf([&] { Open()->Clear(); }),
                HasSubstr("more than 200 levels of directories"));
}

// The client reads only as many bytes as the server reported.
TEST_F(HostileFtp, FileWithoutEnd) {
    Serve({{"SIZE", Saying("213 5")}, {"RETR", Sending("", "bytes")}});
    const std::string file = folder_ / "file";
    EXPECT_EQ(ErrorOf([&] { Open()->Download("file", file); }), "(no error)");
    EXPECT_EQ(local_files::Load(file), "bytes");
}

// --- False information ---

TEST_F(HostileFtp, FileShorterThanItsSize) {
    Serve({{"SIZE", Saying("213 100")}, {"RETR", Sending("short", "")}});
    EXPECT_NE(ErrorOf([&] { Open()->Download("file", target_); }), "(no error)");
}

TEST_F(HostileFtp, UploadOfWhichTheServerHasLess) {
    Serve({{"SIZE", Saying("213 3")}, {"MLST", Saying("250-\r\n type=dir; /dir\r\n250 End")}});
    EXPECT_THAT(ErrorOf([&] { Open()->Upload("file", source_); }),
                HasSubstr("reports a size of 3 bytes after an upload of 7 bytes"));
    EXPECT_THAT(server_->Seen(), Not(Contains("RNTO")));
}

// --- Other addresses ---

TEST_F(HostileFtp, DataConnectionGoesToTheServerAlone) {
    const LoopbackListener other("127.0.0.2");
    const std::string port =
        std::to_string(other.port() / 256) + "," + std::to_string(other.port() % 256);
    Serve(
        {{"EPSV", Saying("502 Unknown")}, {"PASV", Saying("227 Go to (127,0,0,2," + port + ")")}});
    EXPECT_NE(ListError(), "(no error)");
    EXPECT_THAT(server_->Seen(), Contains("PASV"));
    EXPECT_FALSE(other.HasCaller());
}

TEST_F(HostileFtp, ExtendedReplyNamesNoOtherAddress) {
    const LoopbackListener other("127.0.0.2");
    Serve({{"EPSV", Saying("229 Go to (|1|127.0.0.2|" + std::to_string(other.port()) + "|)")},
           {"PASV", Saying("502 Unknown")}});
    EXPECT_NE(ListError(), "(no error)");
    EXPECT_FALSE(other.HasCaller());
}

// --- Less encryption ---

class HostileFtps : public EncryptedFtp<HostileFtp> {
  protected:
    void ExpectNoLogin() const {
        EXPECT_THAT(server_->Seen(), Not(Contains("USER")));
        EXPECT_THAT(server_->Seen(), Not(Contains("PASS")));
    }
};

TEST_F(HostileFtps, RefusedEncryptionEndsItBeforeTheLogin) {
    for (const std::string refusal : {"502 Unknown", "534 No", "431 Later", "220 What?"}) {
        SCOPED_TRACE(refusal);
        Serve({{"AUTH", Saying(refusal)}});
        EXPECT_THAT(TlsError(), HasSubstr("does not offer TLS, which ftps:// requires"));
        EXPECT_THAT(server_->Seen(), Contains("AUTH"));
        ExpectNoLogin();
    }
}

TEST_F(HostileFtps, LoginThatIsGrantedBeforeIsNotTaken) {
    Serve({{"", Saying("230 You are in already")}, {"AUTH", Saying("502 Unknown")}});
    EXPECT_NE(TlsError(), "(no error)");
    ExpectNoLogin();
    EXPECT_THAT(server_->Seen(), Not(Contains("MLSD")));
}

TEST_F(HostileFtps, WordsThatComeBeforeTheEncryptionAreNotTakenForLaterOnes) {
    Serve({{"AUTH", Encrypting("234 Go on\r\n331 Password\r\n230 In\r\n")}});
    EXPECT_NE(TlsError(), "(no error)");
    ExpectNoLogin();
}

TEST_F(HostileFtps, CertificateThatNobodyTrustsEndsItBeforeTheLogin) {
    Serve({{"AUTH", Encrypting("234 Go on\r\n")}});
    EXPECT_THAT(ListError("ftps"), HasSubstr("certificate"));
    ExpectNoLogin();
}

TEST_F(HostileFtps, UnprotectedDataChannelIsNotUsed) {
    for (const std::string verb : {"PROT", "PBSZ"}) {
        SCOPED_TRACE(verb);
        Serve({{"AUTH", Encrypting("234 Go on\r\n")}, {verb, Saying("534 No")}});
        const std::string error = TlsError();
        if (verb == "PROT") {
            EXPECT_THAT(error, HasSubstr("does not offer TLS, which ftps:// requires"));
            EXPECT_THAT(server_->Seen(), Not(Contains("MLSD")));
            EXPECT_THAT(server_->Seen(), Contains("PROT"));
        } else {
            EXPECT_NE(error, "(no error)");
        }
    }
}

TEST_F(HostileFtps, EncryptedFileWithoutEnd) {
    Serve({{"AUTH", Encrypting("234 Go on\r\n")},
           {"PROT", EncryptingData()},
           {"SIZE", Saying("213 5")},
           {"RETR", Sending("", "bytes")}});
    EXPECT_THAT(
        ErrorOf([&] { Open("ftps", "&ca=" + (folder_ / "ca.pem"))->Download("file", target_); }),
        HasSubstr("sent more bytes than the file contains"));
}

// The server accepts the protection of the data channel, but sends plain data. The client must
// notice.
TEST_F(HostileFtps, DataInTheClearIsNotTaken) {
    Serve({{"AUTH", Encrypting("234 Go on\r\n")},
           {"MLSD", Sending("type=cdir; .\r\ntype=file; planted\r\n", "")}});
    EXPECT_NE(TlsError(), "(no error)");
    EXPECT_THAT(names_, testing::IsEmpty());
}

}  // namespace
