// The listings and replies of FTP servers.
#include <gmock/gmock.h>

#include "backends/ftp/listing.h"
#include "backends/ftp/reply.h"
#include "kro/kro_err.h"

using kro_err::Kind;
using quarn2::ftp::Entry;
using quarn2::ftp::Listing;
using quarn2::ftp::ParseFacts;
using quarn2::ftp::ParseListing;
using quarn2::ftp::ParseMachineListing;
using quarn2::ftp::Reply;
using quarn2::ftp::Transcript;
using testing::ElementsAre;
using testing::IsEmpty;
using Type = Entry::Type;

namespace {

template <class Action>
std::pair<Kind, std::string> ErrorOf(const Action& action) {
    try {
        action();
    } catch (const kro_err::Error& error) {
        return {error.kind(), error.what()};
    }
    ADD_FAILURE() << "nothing failed";
    return {};
}

// --- Machine listings ---

TEST(FtpMachineListing, TellsFilesDirectoriesAndLinks) {
    const Listing listing = ParseMachineListing(
        "type=cdir;sizd=4096;modify=20261120194037; .\r\n"
        "type=pdir;sizd=4096;modify=20261120194037; ..\r\n"
        "type=file;size=3;modify=20261120194037;UNIX.mode=0644; F2026-11-20.web1.tgz\r\n"
        "modify=20261120194113;perm=flcdmpe;type=dir;unique=FE00U; user\r\n"
        "Type=OS.unix=slink:;size=4; link\r\n"
        "size=4; untold\r\n");
    EXPECT_TRUE(listing.shows_itself);
    EXPECT_THAT(
        listing.entries,
        ElementsAre(Entry{"F2026-11-20.web1.tgz", Type::kFile, 3}, Entry{"user", Type::kDirectory},
                    Entry{"link", Type::kOther}, Entry{"untold", Type::kUnspecified}));
}

TEST(FtpMachineListing, ASizeThatIsNoNumberIsUnknown) {
    const Listing listing = ParseMachineListing(
        "type=file;size=; a\r\n"
        "type=file;size=-1; b\r\n"
        "size=9223372036854775808;type=file; c\r\n"
        "Size=9223372036854775807;type=file; d\r\n"
        "type=dir;size=4096; e\r\n");
    EXPECT_THAT(
        listing.entries,
        ElementsAre(Entry{"a", Type::kFile}, Entry{"b", Type::kFile}, Entry{"c", Type::kFile},
                    Entry{"d", Type::kFile, 9223372036854775807}, Entry{"e", Type::kDirectory}));
}

TEST(FtpMachineListing, KeepsEveryByteOfAName) {
    const Listing listing = ParseMachineListing(
        "type=file;  two leading\r\n"
        "type=file; trailing \r\n"
        "type=file; a;b=c\r\n"
        "type=FILE; \xff\xfe\r\n"
        " no facts\r\n"
        "type=file; line feed alone\n");
    EXPECT_THAT(
        listing.entries,
        ElementsAre(Entry{" two leading", Type::kFile}, Entry{"trailing ", Type::kFile},
                    Entry{"a;b=c", Type::kFile}, Entry{"\xff\xfe", Type::kFile},
                    Entry{"no facts", Type::kUnspecified}, Entry{"line feed alone", Type::kFile}));
}

TEST(FtpMachineListing, DropsNamesThatLeadElsewhere) {
    const Listing listing = ParseMachineListing(
        "type=file; ../../etc/passwd\r\n"
        "type=dir; /\r\n"
        "type=dir; a/b\r\n"
        "type=file; tab\there\r\n"
        "type=file; escape\x1b[2J\r\n"
        "type=file; cr\r\r\n"
        "type=file; \r\n"
        "type=cdir; /whole/path\r\n"
        "type=pdir; /whole\r\n"
        "type=file; good\r\n");
    EXPECT_THAT(listing.entries, ElementsAre(Entry{"good", Type::kFile}));
    EXPECT_TRUE(listing.shows_itself);
}

TEST(FtpMachineListing, NothingIsAnEmptyListing) {
    EXPECT_THAT(ParseMachineListing("").entries, IsEmpty());
    EXPECT_FALSE(ParseMachineListing("").shows_itself);
}

TEST(FtpMachineListing, RefusesWhatIsNone) {
    for (const char* const line :
         {"total 12", "-rw-r--r-- 1 u g 3 Nov 20 19:40 name", "name", "type=file name"}) {
        const auto [kind, text] =
            ErrorOf([line] { ParseMachineListing(std::string(line) + "\r\n"); });
        EXPECT_EQ(kind, Kind::kFailed) << line;
        EXPECT_EQ(text, "cannot parse a line of the server's directory listing: '" +
                            std::string(line) + "'");
    }
}

TEST(FtpMachineListing, CutLineIsNoName) {
    const auto [kind, text] =
        ErrorOf([] { ParseMachineListing("type=file; whole\r\ntype=file; slice.1"); });
    EXPECT_EQ(kind, Kind::kUnavailable);
    EXPECT_EQ(text, "the server's directory listing is truncated");
}

TEST(FtpMachineListing, TypeOfOneFile) {
    EXPECT_EQ(ParseFacts("Begin\n type=dir;sizd=4096; /d\nEnd."), Type::kDirectory);
    EXPECT_EQ(ParseFacts("Start of list for /f\nmodify=1;type=file; /f\nEnd"), Type::kFile);
    EXPECT_EQ(ParseFacts("Begin\n type=OS.unix=slink:; /type=dir;\nEnd."), Type::kOther);
    EXPECT_EQ(ParseFacts("No facts at all"), std::nullopt);
    EXPECT_EQ(ParseFacts(""), std::nullopt);
}

// --- Human-readable listings ---

TEST(FtpListing, UnixInItsVariants) {
    const Listing listing = ParseListing(
        "total 12\r\n"
        "drwxr-xr-x    2 33         www-data         4096 Nov 20 19:40 .\r\n"
        "drwxr-xr-x    2 33         www-data         4096 Nov 20 19:40 ..\r\n"
        "-rw-r--r--   1 ftptest  www-data        3 Nov 20 19:41 a\r\n"
        "-rw-r--r--   1 ftptest  www-data        3 Nov 20  2025 last year\r\n"
        "-rw-r--r--   1 ftptest        3 Jan  1 00:00 without group\r\n"
        "drwxr-xr-t+  3 jan      may          4096 Dec 31 23:59 months for names\r\n"
        "-rw-r--r--   1 u        g           123 2026-11-20 19:40 iso\r\n"
        "lrwxrwxrwx   1 u        g             4 Nov 20 19:53 link -> target\r\n"
        "lrwxrwxrwx   1 u        g             4 Nov 20 19:53 which -> a -> b\r\n"
        "crw-rw-rw-   1 root     root     1,   3 Nov 20 19:53 null\r\n");
    EXPECT_TRUE(listing.shows_itself);
    EXPECT_THAT(
        listing.entries,
        ElementsAre(Entry{"a", Type::kFile, 3}, Entry{"last year", Type::kFile, 3},
                    Entry{"without group", Type::kFile, 3},
                    Entry{"months for names", Type::kDirectory}, Entry{"iso", Type::kFile, 123},
                    Entry{"link", Type::kOther}, Entry{"null", Type::kOther}));
}

TEST(FtpListing, KeepsTheBlanksOfAName) {
    const Listing listing = ParseListing(
        "-rw-r--r--   1 u g 3 Nov 20 19:41  one leading\r\n"
        "-rw-r--r--   1 u g 3 Nov 20 19:41    \r\n"
        "-rw-r--r--   1 u g 3 Nov 20 19:41 two  within \r\n"
        "-rw-r--r--   1 u g 3 Nov 20 19:41 5 Nov 20 19:41 x\r\n"
        "-rw-r--r--   1 u g 3 Nov 20 19:41 a -> b\r\n");
    EXPECT_THAT(
        listing.entries,
        ElementsAre(Entry{" one leading", Type::kFile, 3}, Entry{"   ", Type::kFile, 3},
                    Entry{"two  within ", Type::kFile, 3},
                    Entry{"5 Nov 20 19:41 x", Type::kFile, 3}, Entry{"a -> b", Type::kFile, 3}));
}

TEST(FtpListing, Dos) {
    const Listing listing = ParseListing(
        "11-20-26  07:40PM       <DIR>          user one\r\n"
        "11-20-2026  19:40              1234567 F2026-11-20.web1.tgz\r\n"
        "11-20-26  07:40AM                    3  leading\r\n");
    EXPECT_THAT(listing.entries, ElementsAre(Entry{"user one", Type::kDirectory},
                                             Entry{"F2026-11-20.web1.tgz", Type::kFile, 1234567},
                                             Entry{" leading", Type::kFile, 3}));
}

TEST(FtpListing, DropsNamesThatLeadElsewhere) {
    const Listing listing = ParseListing(
        "-rw-r--r-- 1 u g 3 Nov 20 19:41 ../x\r\n"
        "drwxr-xr-x 1 u g 3 Nov 20 19:41 /\r\n"
        "11-20-26  07:40PM       <DIR>          ..\r\n"
        "11-20-26  07:40PM                    3 a/b\r\n");
    EXPECT_THAT(listing.entries, IsEmpty());
    EXPECT_FALSE(listing.shows_itself);
}

TEST(FtpListing, LosesNoLineInSilence) {
    for (const char* const line :
         {"name", "-rw-r--r-- 1 u g 3 Nov 20 19:41", "-rw-r--r-- 1 u g 3 Nov 20 19:41 ",
          "-rw-r--r-- 1 u g 3 Foo 20 19:41 x", "-rw-r--r-- 1 u g x Nov 20 19:41 x", "drwxr-xr-x",
          "total 12 files", "11-20-26  07:40PM", "11-20-26  07:40PM  <LNK> x",
          "11/20/26  07:40PM       <DIR>          x", "type=file; x",
          "ls: cannot open directory '.': Permission denied"}) {
        const auto [kind, text] = ErrorOf([line] { ParseListing(std::string(line) + "\r\n"); });
        EXPECT_EQ(kind, Kind::kFailed) << line;
        EXPECT_EQ(text, "cannot parse a line of the server's directory listing: '" +
                            std::string(line) + "'");
    }
}

TEST(FtpListing, CutLineIsNoName) {
    EXPECT_EQ(ErrorOf([] { ParseListing("-rw-r--r-- 1 u g 3 Nov 20 19:41 slice.1"); }).first,
              Kind::kUnavailable);
}

// --- Replies ---

Transcript Heard(const std::vector<std::string>& lines) {
    Transcript transcript;
    for (const std::string& line : lines) {
        if (line.starts_with("> ")) {
            transcript.Sent(line.substr(2) + "\r\n");
        } else {
            transcript.Received(line + "\r\n");
        }
    }
    return transcript;
}

TEST(FtpTranscript, GivesEachCommandItsReplies) {
    const Transcript transcript =
        Heard({"220-Welcome", "220 ready", "> STOR /a b", "150 go", "226-done", "226 in no time",
               "> SIZE /a b", "213 3", "> RNFR /a b"});
    ASSERT_EQ(transcript.replies().size(), 5U);
    EXPECT_EQ(transcript.replies()[0].verb, "");
    EXPECT_EQ(transcript.replies()[0].text, "Welcome\nready");
    EXPECT_EQ(transcript.replies()[1].code, 150);
    EXPECT_EQ(transcript.Find("STOR")->code, 226);
    EXPECT_EQ(transcript.Find("STOR")->text, "done\nin no time");
    EXPECT_EQ(transcript.Find("SIZE")->text, "3");
    EXPECT_EQ(transcript.Find("RNFR"), nullptr) << "not answered";
    EXPECT_EQ(transcript.Find("DELE"), nullptr);
}

TEST(FtpTranscript, KeepsNoPassword) {
    const Transcript transcript = Heard({"220 ready", "> PASS secret", "530 wrong"});
    EXPECT_EQ(transcript.replies().back().verb, "PASS");
    for (const Reply& reply : transcript.replies()) {
        EXPECT_EQ((reply.verb + reply.text).find("secret"), std::string::npos);
    }
}

TEST(FtpTranscript, RefusalIsTheReplyToTheLastCommandAlone) {
    EXPECT_EQ(Heard({"> DELE x", "550 none", "> STOR x", "451 error"}).Refusal()->code, 451);
    EXPECT_EQ(Heard({"> DELE x", "550 none", "> STOR x"}).Refusal(), nullptr);
    EXPECT_EQ(Heard({"> DELE x", "550 none", "> STOR x", "150 go"}).Refusal(), nullptr);
    EXPECT_EQ(Transcript().Refusal(), nullptr);
}

TEST(FtpTranscript, LeavesOutTheEndOfThePreviousConnection) {
    const Transcript transcript = Heard({"> STOR x", "150 go", "522 no", "> QUIT", "221 bye"});
    ASSERT_NE(transcript.Refusal(), nullptr);
    EXPECT_EQ(transcript.Refusal()->code, 522);
    EXPECT_EQ(transcript.Find("STOR")->code, 522);
}

TEST(FtpTranscript, TakesNoLineInAReplyForItsEnd) {
    const Transcript transcript =
        Heard({"> FEAT", "211-Features:", " 211 this is one", "2110 and this", "211 End"});
    ASSERT_EQ(transcript.replies().size(), 1U);
    EXPECT_EQ(transcript.replies()[0].text, "Features:\n 211 this is one\n2110 and this\nEnd");
}

}  // namespace
