// Tests how storage failures are classified, and how server messages are normalised before the
// search for known words.
#include "base/failure.h"

#include <gtest/gtest.h>

namespace {

using kro_err::Kind;
using quarn2::Failure;
using quarn2::SearchableText;

TEST(Failure, HasTheKindThatIsThrown) {
    EXPECT_EQ(quarn2::KindOf(Failure::kUnauthorized), Kind::kUnauthorized);
    EXPECT_EQ(quarn2::KindOf(Failure::kNoRoom), Kind::kFailed);
    EXPECT_EQ(quarn2::KindOf(Failure::kNotFound), Kind::kNotFound);
    EXPECT_EQ(quarn2::KindOf(Failure::kUnavailable), Kind::kUnavailable);
    EXPECT_EQ(quarn2::KindOf(Failure::kFailed), Kind::kFailed);
}

TEST(SearchableText, HasNoNameInIt) {
    const struct {
        const char* text;
        const char* path;
        const char* searched;
    } cases[] = {
        {"Disk Quota exceeded", "/srv/x", "disk quota exceeded"},
        {"/srv/Quota/f: Failure", "/srv/Quota/f", " : failure"},
        {"/chroot/quota/f: failure", "/srv/quota/f", "/chroot/ / : failure"},
        {".F.quota.tgz.part~: failure", "srv/F.quota.tgz", ". .part~: failure"},
        {"no space left on a device", "/a/e", "no space left on a device"},
        {"'quota': no space", "quota", "' ': no space"},
        {"'quota': no space", "quota/f", "' ': no space"},
        {"quota/f: no space", "/chroot/quota/f", " / : no space"},
        {"user's quota is exceeded", "/srv/quota/f", "user's quota is exceeded"},
        {"bucket/p/quota", "bucket//p/quota", " / / "},
        {"", "/quota", ""},
        {"quota", "", "quota"},
    };
    for (const auto& [text, path, searched] : cases) {
        EXPECT_EQ(SearchableText(text, path), searched) << path;
    }
}

}  // namespace
