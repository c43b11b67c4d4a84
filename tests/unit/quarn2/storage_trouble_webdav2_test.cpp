// Runs the network failure suite over WebDAV, against nginx.
#include "storage_trouble.h"
#include "webdav_site.h"

namespace {

INSTANTIATE_TEST_SUITE_P(Webdav2, StorageTrouble,
                         testing::Values(TroubledSite<Webdav2Site>("https")),
                         NameOfKind<RemoteKind>);

}  // namespace
