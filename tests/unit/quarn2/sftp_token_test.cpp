// Tokens of SFTP storages, good and bad.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "quarn2/token.h"

namespace {

using quarn2::BackupToken;
using testing::HasSubstr;
using testing::Not;

TEST(SftpToken, TakesAPasswordAKeyOrBoth) {
    for (const char* const text : {
             "sftp://u:p@h/srv/backups",
             "sftp://u@h:2222/srv/backups?key=/etc/key",
             "sftp://u:p@h/srv/backups?key=etc/key&known_hosts=etc/hosts&timeout=5",
             "sftp://u:p@[::1]:22/srv/backups",
             "sftp://u:p@h/~/backups",
             "sftp://u:p@h/srv/%7E?arch_password=x&limit_rate=1000",
         }) {
        EXPECT_EQ(BackupToken(text).fault(), "") << text;
    }
}

TEST(SftpToken, ShowsNoSecret) {
    EXPECT_EQ(BackupToken("sftp://u:SECRET@h:22/d?key=/k&arch_password=SECRET").Str(),
              "sftp://u:***@h:22/d?arch_password=***&key=/k");
}

struct Bad {
    const char* token;
    const char* fault;
};

void PrintTo(const Bad& bad, std::ostream* out) { *out << bad.token; }

class BadSftpToken : public testing::TestWithParam<Bad> {};

TEST_P(BadSftpToken, SaysWhyWithoutASecret) {
    const BackupToken token(GetParam().token);
    EXPECT_FALSE(token);
    EXPECT_THAT(token.fault(), HasSubstr(GetParam().fault));
    EXPECT_THAT(token.fault(), Not(HasSubstr("RET")));
    EXPECT_EQ(token.Str(), "***");
}

INSTANTIATE_TEST_SUITE_P(
    Place, BadSftpToken,
    testing::Values(
        Bad{"sftp:", "needs a host"}, Bad{"sftp:///srv/backups", "needs a host"},
        Bad{"sftp:srv/backups", "needs a host"}, Bad{"sftp://h/srv", "needs a user"},
        Bad{"sftp://:SECRET@h/srv", "the user name is empty"},
        Bad{"sftp://u:SECRET@/srv", "a user name without a host"},
        Bad{"sftp://u:SECRET@h", "needs a directory"},
        Bad{"sftp://u:SECRET@h?timeout=5", "needs a directory"},
        Bad{"sftp://u:SECRET@h/", "the server's root directory"},
        Bad{"sftp://u:SECRET@h//", "the server's root directory"},
        Bad{"sftp://u:SECRET@h/srv/..", "the server's root directory"},
        Bad{"sftp://u:SECRET@h/../..", "the server's root directory"},
        Bad{"sftp://u:SECRET@h/~", "the login directory"},
        Bad{"sftp://u:SECRET@h/~/", "the login directory"},
        Bad{"sftp://u:SECRET@h/~/a/..", "the login directory"},
        Bad{"sftp://u:SECRET@h/~/../other", "below the login directory"},
        Bad{"sftp://u:SECRET@h/~/a/../..", "below the login directory"},
        Bad{"sftp://u:SECRET@h:0/srv", "the port"}, Bad{"sftp://u:SECRET@h:65536/srv", "the port"},
        Bad{"sftp://u:SECRET@h:ssh/srv", "the port"}, Bad{"sftp://u:SECRET@h:/srv", "the port"},
        Bad{"sftp://u:SECRET@h h/srv", "a space"}, Bad{"sftp://u:SEC/RET@h/srv", "after the host"},
        Bad{"sftp://u:SECRET@a@h/srv", "as %40"}, Bad{"sftp://u:SECRET@[::1/srv", "invalid host"},
        Bad{"sftp://u:SECRET@h/sr%2", "percent-encoding in the path"},
        Bad{"sftp://u:SECRET@h/sr%0a", "a control character in the path"}));

INSTANTIATE_TEST_SUITE_P(
    Login, BadSftpToken,
    testing::Values(Bad{"sftp://u@h/srv", "needs a password"},
                    Bad{"sftp://u:@h/srv", "needs a password"},
                    Bad{"sftp://u@h/srv?known_hosts=/k", "private key file in parameter 'key'"},
                    Bad{"sftp://u@h/srv?key=", "parameter 'key' has no value"},
                    Bad{"sftp://u:SECRET@h/srv?known_hosts=", "parameter 'known_hosts' has no"},
                    Bad{"sftp://u@h/srv?key=a&key=b", "repeated parameter 'key'"}));

INSTANTIATE_TEST_SUITE_P(
    Parameters, BadSftpToken,
    testing::Values(Bad{"sftp://u:SECRET@h/srv?ca=/ca.pem", "does not support parameter 'ca'"},
                    Bad{"sftp://u:SECRET@h/srv?timeout=0", "'timeout' must be from 1 to 86400"},
                    Bad{"sftp://u:SECRET@h/srv?timeout=86401", "'timeout' must be from 1 to 86400"},
                    Bad{"sftp://u:SECRET@h/srv?timeout=999999999999999999",
                        "'timeout' must be from 1 to 86400"},
                    Bad{"sftp://u:SECRET@h/srv?timeout=-1", "whole number"},
                    Bad{"sftp://u:SECRET@h/srv?timeout=5s", "whole number"},
                    Bad{"sftp://u:SECRET@h/srv?strict=no", "unknown parameter 'strict'"},
                    Bad{"sftp://u:SECRET@h/srv?region=x", "unknown parameter 'region'"},
                    Bad{"sftp://u:SECRET@h/srv?password=SECRET", "unknown parameter 'password'"},
                    Bad{"sftp://u:SECRET@h/srv?arch_password=a&b=SECRET",
                        "unknown parameter after a secret parameter"}));

}  // namespace
