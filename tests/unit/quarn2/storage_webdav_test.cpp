// Runs the conformance suite over WebDAV, against Apache.
#include "storage_conformance.h"
#include "webdav_site.h"

namespace {

INSTANTIATE_TEST_SUITE_P(
    Webdav, StorageConformance,
    testing::Values(SiteKind<WebdavSite>("https_basic"),
                    SiteKind<Encrypted<WebdavDigestSite>>("http_digest_encrypted")),
    NameOfKind<StorageKind>);

}  // namespace
