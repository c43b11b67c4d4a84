// Runs the network failure suite over WebDAV, against Apache.
#include "storage_trouble.h"
#include "webdav_site.h"

namespace {

INSTANTIATE_TEST_SUITE_P(
    Webdav, StorageTrouble,
    testing::Values(TroubledSite<WebdavSite>("https_basic"),
                    TroubledSite<Encrypted<WebdavDigestSite>>("http_digest_encrypted")),
    NameOfKind<RemoteKind>);

}  // namespace
