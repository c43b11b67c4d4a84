// The check of host keys.
#include <gmock/gmock.h>

#include "backends/sftp/known_hosts.h"
#include "storage_site.h"

namespace {

using kro_err::Kind;
using quarn2::sftp::KnownHosts;
using quarn2::sftp::Trust;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

const std::string kType = "ssh-ed25519";
const std::string kKey = "AAAAC3NzaC1lZDI1NTE5AAAAIFAb4sJz5tBxKPWdJHlqzsSLR4R9bBPjg0RuUJjRGJqf";
const std::string kOther = "AAAAC3NzaC1lZDI1NTE5AAAAIAtXpQtDbHnyk1sj4UMkMc5IuzS8i1CXJBFjFsK0Nq2L";
const std::string kEntry = " " + kType + " " + kKey;

Trust Check(const std::string& text, const std::string& host = "example.org",
            std::uint16_t port = 22) {
    KnownHosts known(host, port);
    known.AddText(text);
    return known.Check(kType, kKey);
}

TEST(SftpKnownHosts, TrustsTheKeyOfTheHost) {
    EXPECT_EQ(Check("example.org" + kEntry), Trust::kTrusted);
    EXPECT_EQ(Check("example.org" + kEntry + " a comment\r\n"), Trust::kTrusted);
    EXPECT_EQ(Check("\n# words\n  other,example.org\t" + kType + "\t" + kKey), Trust::kTrusted);
    EXPECT_EQ(Check("Example.ORG" + kEntry), Trust::kTrusted);
    EXPECT_EQ(Check("127.0.0.1" + kEntry, "127.0.0.1"), Trust::kTrusted);
    EXPECT_EQ(Check("::1" + kEntry, "::1"), Trust::kTrusted);
}

TEST(SftpKnownHosts, KnowsNothingOfOthers) {
    for (const char* const hosts : {"example.com", "xexample.org", "example.orgx", "*.example.org",
                                    "[example.org]:22", "#example.org", ""}) {
        EXPECT_EQ(Check(hosts + kEntry), Trust::kUnknown) << hosts;
    }
    EXPECT_EQ(Check(""), Trust::kUnknown);
    EXPECT_EQ(Check("example.org"), Trust::kUnknown);
    EXPECT_EQ(Check("example.org ssh-ed25519"), Trust::kUnknown);
    EXPECT_EQ(Check("@cert-authority example.org" + kEntry), Trust::kUnknown);
}

TEST(SftpKnownHosts, TellsThePortsApart) {
    EXPECT_EQ(Check("[example.org]:2222" + kEntry, "example.org", 2222), Trust::kTrusted);
    EXPECT_EQ(Check("[example.org]:2222" + kEntry), Trust::kUnknown);
    EXPECT_EQ(Check("example.org" + kEntry, "example.org", 2222), Trust::kUnknown);
    EXPECT_EQ(Check("[example.org]:2222" + kEntry, "example.org", 222), Trust::kUnknown);
    EXPECT_EQ(Check("[*.org]:2222" + kEntry, "example.org", 2222), Trust::kTrusted);
}

TEST(SftpKnownHosts, UnderstandsPatterns) {
    EXPECT_EQ(Check("*" + kEntry), Trust::kTrusted);
    EXPECT_EQ(Check("*.org" + kEntry), Trust::kTrusted);
    EXPECT_EQ(Check("e*m*le.?rg" + kEntry), Trust::kTrusted);
    EXPECT_EQ(Check("e*m*le.??rg" + kEntry), Trust::kUnknown);
    EXPECT_EQ(Check("*.org,!example.org" + kEntry), Trust::kUnknown);
    EXPECT_EQ(Check("!example.org,*.org" + kEntry), Trust::kUnknown);
    EXPECT_EQ(Check("!example.com" + kEntry), Trust::kUnknown);
}

// Made by ssh-keygen -H.
TEST(SftpKnownHosts, UnderstandsHashedNames) {
    const std::string plain =
        "|1|KvsSyu64QqkhyFnbXsTAYn5zj6Q=|ORYWxgyDZYp8BCoH2A63fcztaI8=" + kEntry;
    const std::string with_port =
        "|1|lVCowb7Al8ulXpbMGUWUGFX0mQg=|qqgF6wQuvdRNBCAMn+szi0a6RFA=" + kEntry;
    EXPECT_EQ(Check(plain), Trust::kTrusted);
    EXPECT_EQ(Check(plain, "example.com"), Trust::kUnknown);
    EXPECT_EQ(Check(with_port), Trust::kUnknown);
    EXPECT_EQ(Check(with_port, "example.org", 2222), Trust::kTrusted);
}

TEST(SftpKnownHosts, BrokenHashesMatchNothing) {
    for (const char* const hash : {"|1|", "|1||", "|1|AAAA", "|1|AAAA|", "|1|A|A", "|1|$$$$|$$$$",
                                   "|1|====|====", "|1|KvsSyu64QqkhyFnbXsTAYn5zj6Q=|AAAA"}) {
        EXPECT_EQ(Check(hash + kEntry), Trust::kUnknown) << hash;
    }
}

TEST(SftpKnownHosts, AnotherKeyIsAChangeAndOneOfSeveralIsEnough) {
    EXPECT_EQ(Check("example.org ssh-ed25519 " + kOther), Trust::kChanged);
    EXPECT_EQ(Check("example.org ssh-rsa AAAAB3NzaC1yc2E="), Trust::kChanged);
    EXPECT_EQ(Check("example.org ecdsa-sha2-nistp256 " + kKey), Trust::kChanged);
    EXPECT_EQ(Check("example.org ssh-ed25519 " + kOther + "\nexample.org" + kEntry),
              Trust::kTrusted);
}

TEST(SftpKnownHosts, RevokedIsRevokedWhateverElseIsSaid) {
    EXPECT_EQ(Check("@revoked *" + kEntry), Trust::kRevoked);
    EXPECT_EQ(Check("example.org" + kEntry + "\n@revoked *" + kEntry), Trust::kRevoked);
    EXPECT_EQ(Check("@revoked * ssh-ed25519 " + kOther + "\nexample.org" + kEntry),
              Trust::kTrusted);
    EXPECT_EQ(Check("@revoked * ssh-ed25519 " + kOther), Trust::kUnknown);
}

TEST(SftpKnownHosts, TellsTheTypesToAskFor) {
    KnownHosts known("h", 22);
    known.AddText("h ssh-rsa AAAA\nother ssh-dss AAAA\n@revoked h ecdsa-sha2-nistp256 AAAA\n");
    known.AddText("h" + kEntry + "\nh ssh-rsa BBBB\n");
    EXPECT_THAT(known.Types(), ElementsAre("ssh-rsa", "ssh-ed25519"));
}

TEST(SftpKnownHosts, MissingFileHasNothingAndADirectoryIsAnError) {
    const TempDir directory;
    KnownHosts known("h", 22);
    known.AddFile(directory / "missing");
    EXPECT_THAT(known.Types(), IsEmpty());
    EXPECT_THAT(KindOf([&] { known.AddFile(directory.path()); }), Optional(Kind::kUnauthorized));
    local_files::Save(directory / "file", "h" + kEntry);
    known.AddFile(directory / "file");
    EXPECT_EQ(known.Check(kType, kKey), Trust::kTrusted);
}

}  // namespace
