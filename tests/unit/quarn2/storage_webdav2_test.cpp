// Runs the conformance suite over WebDAV, against nginx.
#include "storage_conformance.h"
#include "webdav_site.h"

namespace {

INSTANTIATE_TEST_SUITE_P(Webdav2, StorageConformance,
                         testing::Values(SiteKind<Webdav2Site>("https"),
                                         SiteKind<Encrypted<Webdav2Site>>("https_encrypted")),
                         NameOfKind<StorageKind>);

}  // namespace
