// Runs the conformance suite over FTP, against ProFTPD.
#include "ftp_site.h"
#include "storage_conformance.h"

namespace {

INSTANTIATE_TEST_SUITE_P(Ftp2, StorageConformance,
                         testing::Values(SiteKind<Ftps2Site>("tls"),
                                         SiteKind<Encrypted<Ftps2Site>>("tls_encrypted")),
                         NameOfKind<StorageKind>);

}  // namespace
