// Logins to a real server: accepted and refused credentials, and the check of the server's key.
#include <fcntl.h>
#include <sys/stat.h>

#include <cstdlib>

#include "sftp_site.h"

namespace {

using kro_err::Kind;
using testing::HasSubstr;
using testing::Not;
using testing::Optional;

class SftpLogin : public testing::Test {
  protected:
    // The error of a listing; empty if the listing succeeds.
    struct Outcome {
        std::optional<Kind> kind;
        std::string text;
    };
    static Outcome ListWith(const TokenParts& parts) {
        std::vector<std::string> names;
        try {
            quarn2::GetStorage(quarn2::BackupToken(parts.Text()))->List(names, "");
        } catch (const kro_err::Error& error) {
            return {error.kind(), error.what()};
        }
        return {};
    }
    std::string KeyFile(const std::string& content, mode_t mode = 0600) const {
        local_files::Save(local_ / "key", content);
        EXPECT_EQ(chmod((local_ / "key").c_str(), mode), 0);
        return local_ / "key";
    }
    std::string GoodKey() const { return local_files::Load(site_.info()["key"]); }
    TokenParts WithKey(const std::string& file) const {
        TokenParts parts = site_.Parts();
        parts.password.clear();
        parts.params["key"] = file;
        return parts;
    }

    SftpSite site_;
    TempDir local_;
};

TEST_F(SftpLogin, TakesTheRightPasswordAndTheRightKey) {
    EXPECT_EQ(ListWith(site_.Parts()).kind, std::nullopt);
    EXPECT_EQ(ListWith(WithKey(KeyFile(GoodKey()))).kind, std::nullopt);
}

TEST_F(SftpLogin, TriesThePasswordAfterARefusedKey) {
    TokenParts parts = site_.Parts();
    ASSERT_EQ(std::system(("ssh-keygen -q -t ed25519 -N '' -f " + (local_ / "new")).c_str()), 0);
    parts.params["key"] = local_ / "new";
    EXPECT_EQ(ListWith(parts).kind, std::nullopt);
}

TEST_F(SftpLogin, WrongPasswordIsUnauthorizedAndNotShown) {
    TokenParts parts = site_.Parts();
    parts.password = "a-wrong-one";
    const Outcome outcome = ListWith(parts);
    EXPECT_THAT(outcome.kind, Optional(Kind::kUnauthorized));
    EXPECT_THAT(outcome.text, HasSubstr("refused the login of user"));
    EXPECT_THAT(outcome.text, Not(HasSubstr("a-wrong-one")));
}

TEST_F(SftpLogin, UnknownKeyIsUnauthorized) {
    ASSERT_EQ(std::system(("ssh-keygen -q -t ed25519 -N '' -f " + (local_ / "new")).c_str()), 0);
    EXPECT_THAT(ListWith(WithKey(local_ / "new")).kind, Optional(Kind::kUnauthorized));
}

TEST_F(SftpLogin, SaysWhatIsWrongWithAKeyFile) {
    const auto text_of = [this](const std::string& file) {
        const Outcome outcome = ListWith(WithKey(file));
        EXPECT_THAT(outcome.kind, Optional(Kind::kUnauthorized)) << file;
        return outcome.text;
    };
    EXPECT_THAT(text_of(local_ / "missing"), HasSubstr("No such file"));
    EXPECT_THAT(text_of(local_.path()), HasSubstr("is not a plain file"));
    EXPECT_THAT(text_of(KeyFile(GoodKey(), 0640)), HasSubstr("chmod 600"));
    EXPECT_THAT(text_of(KeyFile(GoodKey(), 0604)), HasSubstr("chmod 600"));
    EXPECT_THAT(text_of(KeyFile("no key at all")),
                HasSubstr("does not contain a supported private key"));
    EXPECT_THAT(text_of(KeyFile("")), HasSubstr("does not contain a supported private key"));
    EXPECT_THAT(text_of(KeyFile(std::string(70000, 'x'))), HasSubstr("too large"));
    ASSERT_EQ(std::system(("ssh-keygen -q -t ed25519 -N secret -f " + (local_ / "locked")).c_str()),
              0);
    EXPECT_THAT(text_of(local_ / "locked"), HasSubstr("passphrase"));
}

TEST_F(SftpLogin, UnknownHostKeyIsUnauthorizedAndSaysWhatToDo) {
    TokenParts parts = site_.Parts();
    parts.params["known_hosts"] = local_ / "empty";
    const Outcome outcome = ListWith(parts);
    EXPECT_THAT(outcome.kind, Optional(Kind::kUnauthorized));
    EXPECT_THAT(outcome.text, HasSubstr("SHA256:"));
    EXPECT_THAT(outcome.text, HasSubstr("is not in '" + (local_ / "empty") + "'"));
    EXPECT_THAT(outcome.text, HasSubstr("ssh-keyscan -p " + std::to_string(parts.port)));
}

TEST_F(SftpLogin, ChangedHostKeyIsUnauthorized) {
    TokenParts parts = site_.Parts();
    local_files::Save(local_ / "hosts",
                      "[" + parts.host + "]:" + std::to_string(parts.port) +
                          " ssh-ed25519 "
                          "AAAAC3NzaC1lZDI1NTE5AAAAIAtXpQtDbHnyk1sj4UMkMc5IuzS8i1CXJBFjFsK0Nq2L\n");
    parts.params["known_hosts"] = local_ / "hosts";
    const Outcome outcome = ListWith(parts);
    EXPECT_THAT(outcome.kind, Optional(Kind::kUnauthorized));
    EXPECT_THAT(outcome.text, HasSubstr("differs from the key in '" + (local_ / "hosts") + "'"));
}

TEST_F(SftpLogin, TakesAHashedHost) {
    TokenParts parts = site_.Parts();
    local_files::Save(local_ / "hosts", local_files::Load(parts.params["known_hosts"]));
    ASSERT_EQ(std::system(("ssh-keygen -q -H -f " + (local_ / "hosts") + " 2>/dev/null").c_str()),
              0);
    ASSERT_THAT(local_files::Load(local_ / "hosts"), Not(HasSubstr(parts.host)));
    parts.params["known_hosts"] = local_ / "hosts";
    EXPECT_EQ(ListWith(parts).kind, std::nullopt);
}

TEST_F(SftpLogin, NobodyListeningIsUnavailable) {
    TokenParts parts = site_.Parts();
    parts.port = 1;
    EXPECT_THAT(ListWith(parts).kind, Optional(Kind::kUnavailable));
}

TEST_F(SftpLogin, MissingRootIsNotFound) {
    TokenParts parts = site_.Parts();
    parts.path += "/missing";
    EXPECT_THAT(ListWith(parts).kind, Optional(Kind::kNotFound));
}

}  // namespace
