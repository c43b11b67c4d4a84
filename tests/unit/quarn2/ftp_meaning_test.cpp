// The meaning of FTP replies: by code, and by text if the code is ambiguous.
#include <gmock/gmock.h>

#include "backends/ftp/meaning.h"
#include "backends/ftp/reply.h"

using kro_err::Kind;
using quarn2::ftp::KindOf;
using quarn2::ftp::Meaning;
using quarn2::ftp::MeaningOf;
using quarn2::ftp::Reply;
using quarn2::ftp::Transcript;
using quarn2::ftp::WithoutNames;

namespace {

// Returns the reply that a session parses after the command.
Reply ReplyTo(const std::string& command, const std::string& line,
              const std::string& login = "web1") {
    Transcript transcript;
    transcript.Sent("USER " + login + "\r\n");
    transcript.Received("331 Password\r\n");
    transcript.Clear();
    transcript.Sent(command + "\r\n");
    transcript.Received(line + "\r\n");
    return transcript.replies().back();
}

TEST(FtpMeaning, OfEachCode) {
    struct Line {
        int code;
        Meaning meaning;
        Kind kind;
    };
    const Line lines[] = {
        {150, Meaning::kDone, Kind::kFailed},
        {226, Meaning::kDone, Kind::kFailed},
        {331, Meaning::kDone, Kind::kFailed},
        {421, Meaning::kUnavailable, Kind::kUnavailable},
        {425, Meaning::kUnavailable, Kind::kUnavailable},
        {426, Meaning::kUnavailable, Kind::kUnavailable},
        {430, Meaning::kUnavailable, Kind::kUnavailable},
        {431, Meaning::kUnavailable, Kind::kUnavailable},
        {450, Meaning::kUnavailable, Kind::kUnavailable},
        {451, Meaning::kUnavailable, Kind::kUnavailable},
        {452, Meaning::kNoRoom, Kind::kUnavailable},
        {499, Meaning::kUnavailable, Kind::kUnavailable},
        {500, Meaning::kFailed, Kind::kFailed},
        {501, Meaning::kFailed, Kind::kFailed},
        {502, Meaning::kFailed, Kind::kFailed},
        {503, Meaning::kFailed, Kind::kFailed},
        {504, Meaning::kFailed, Kind::kFailed},
        {522, Meaning::kFailed, Kind::kFailed},
        {530, Meaning::kUnauthorized, Kind::kUnauthorized},
        {532, Meaning::kFailed, Kind::kFailed},
        {534, Meaning::kFailed, Kind::kFailed},
        {550, Meaning::kFailed, Kind::kFailed},
        {551, Meaning::kFailed, Kind::kFailed},
        {552, Meaning::kNoRoom, Kind::kFailed},
        {553, Meaning::kFailed, Kind::kFailed},
        {999, Meaning::kFailed, Kind::kFailed},
    };
    for (const Line& line : lines) {
        const Reply reply = ReplyTo("STOR /dir/file", std::to_string(line.code) + " Sorry");
        EXPECT_EQ(MeaningOf(reply), line.meaning) << line.code;
        if (line.meaning != Meaning::kDone) {
            EXPECT_EQ(KindOf(reply), line.kind) << line.code;
        }
    }
}

TEST(FtpMeaning, OfTextsWhereTheCodeLeavesItOpen) {
    const std::pair<std::string, Meaning> lines[] = {
        {"552 Quota exceeded", Meaning::kNoRoom},
        {"452 /x: No space left on device", Meaning::kNoRoom},
        {"451 Error during write to file: No space left on device", Meaning::kNoRoom},
        {"553 Can't open that file: Disk quota exceeded", Meaning::kNoRoom},
        {"550 Can't create directory: NO SPACE LEFT on device", Meaning::kNoRoom},
        {"451 Disk full", Meaning::kNoRoom},
        {"550 You are over your quota", Meaning::kNoRoom},
        {"451 Error during write to file", Meaning::kUnavailable},
        {"451 Failure writing to local file.", Meaning::kUnavailable},
        {"451 Input/output error", Meaning::kUnavailable},
        {"451 Cannot read the quota file", Meaning::kUnavailable},
        {"426 No space for another connection", Meaning::kUnavailable},
        {"421 Disk full", Meaning::kUnavailable},
        {"550 Permission denied", Meaning::kFailed},
        {"550 /dir/F.tgz: No such file or directory", Meaning::kNotFound},
        {"450 File not found", Meaning::kNotFound},
        {"502 Command not found", Meaning::kFailed},
        {"226 Done; 12 MB of your quota exceeded", Meaning::kDone},
        {"530 Login incorrect.", Meaning::kUnauthorized},
        {"530 Sorry, the maximum number of allowed clients (10) are already connected",
         Meaning::kUnavailable},
        {"530 Too many connections from your address", Meaning::kUnavailable},
        {"530 Server busy, try again later", Meaning::kUnavailable},
    };
    for (const auto& [line, meaning] : lines) {
        EXPECT_EQ(MeaningOf(ReplyTo("STOR /dir/F.tgz", line)), meaning) << line;
    }
}

TEST(FtpMeaning, OfNamesIsNone) {
    const std::string user = "disk full";
    const std::pair<std::string, std::string> lines[] = {
        {"STOR /dir/over-quota/F.tgz", "550 /dir/over-quota/F.tgz: Input/output error"},
        {"STOR /dir/over-quota/F.tgz", "550 over-quota/F.tgz: Input/output error"},
        {"STOR /dir/over-quota/F.tgz", "550 'over-quota': not writable"},
        {"STOR /dir/no space/F.tgz", "550 Cannot write to no space"},
        {"STOR /dir/quota exceeded", "553 quota exceeded: Permission denied"},
        {"STOR /x", "550 User disk full may not write"},
        {"STOR /x", "550 /srv/quota/exceeded/x: Access denied"},
        {"MKD /dir/no such file", "550 no such file: Exec format error"},
    };
    for (const auto& [command, line] : lines) {
        EXPECT_EQ(MeaningOf(ReplyTo(command, line, user)), Meaning::kFailed) << line;
    }
}

TEST(FtpMeaning, OfThePreviousCommandsNameIsNone) {
    Transcript transcript;
    for (const char* const command : {"RNFR /dir/disk full", "RNTO /dir/x"}) {
        transcript.Sent(command);
        transcript.Received("550 Cannot rename disk full to x\r\n");
        EXPECT_EQ(MeaningOf(transcript.replies().back()), Meaning::kFailed) << command;
    }
}

TEST(FtpWords, LeaveOutNamesButNoPartOfAWord) {
    EXPECT_EQ(WithoutNames("no space for a b", {"/a b/o"}), "no space for  ");
    EXPECT_EQ(WithoutNames("quota quotas 'quota'", {"quota"}), "  quotas ' ' ");
    EXPECT_EQ(WithoutNames("/dir/x: full (/srv/x) full", {}), " full  full ");
}

TEST(FtpWords, EndWithNamesOfBlanks) {
    const std::string blanks(16000, ' ');
    EXPECT_EQ(WithoutNames(blanks + "-", {" ", "  ", "-", "/", ""}).find('-'), std::string::npos);
}

TEST(FtpReply, HasTheNumberOfSizeAndSpace) {
    using quarn2::ftp::NumberIn;
    EXPECT_EQ(NumberIn({"SIZE", 213, "17", {}}), 17);
    EXPECT_EQ(NumberIn({"AVBL", 213, "0 ", {}}), 0);
    EXPECT_EQ(NumberIn({"SIZE", 213, "", {}}), -1);
    EXPECT_EQ(NumberIn({"SIZE", 213, "-1", {}}), -1);
    EXPECT_EQ(NumberIn({"SIZE", 213, "9999999999999999999", {}}), -1);
    EXPECT_EQ(NumberIn({"SIZE", 200, "17", {}}), -1);
}

TEST(FtpReply, TellsMissingFromDenied) {
    using quarn2::ftp::ReportsDenied;
    using quarn2::ftp::ReportsMissing;
    for (const char* const text : {"/nope: No such file or directory", "Can't open x: no such file",
                                   "The system cannot find the file specified.",
                                   "Sorry, but that file doesn't exist", "File not found"}) {
        EXPECT_TRUE(ReportsMissing(text)) << text;
        EXPECT_FALSE(ReportsDenied(text)) << text;
    }
    for (const char* const text :
         {"Can't open x: Permission denied", "Access is denied.", "/dd: Operation not permitted"}) {
        EXPECT_TRUE(ReportsDenied(text)) << text;
        EXPECT_FALSE(ReportsMissing(text)) << text;
    }
    EXPECT_FALSE(ReportsMissing("Failed to open file."));
    EXPECT_FALSE(ReportsDenied("Failed to open file."));
}

TEST(FtpReply, TellsAListingThatIsCut) {
    EXPECT_TRUE(quarn2::ftp::ReportsTruncation("Options: -l\nOutput truncated to 10000 matches"));
    EXPECT_FALSE(quarn2::ftp::ReportsTruncation("7 matches total"));
}

TEST(FtpReply, TellsServersThatWantEncryption) {
    const auto says = [](const std::string& line, const std::string& login = "web1") {
        return quarn2::ftp::ReportsTlsNeeded(ReplyTo("PASS x", line, login).words);
    };
    EXPECT_TRUE(says("421 Sorry, cleartext sessions and weak ciphers are not accepted"));
    EXPECT_TRUE(says("550 SSL/TLS required on the control channel"));
    EXPECT_TRUE(says("530 Non-anonymous sessions must use encryption."));
    EXPECT_FALSE(says("530 Login incorrect."));
    EXPECT_FALSE(says("530 User secure unknown.", "secure"));
}

}  // namespace
