// Runs the conformance suite over FTP, against vsftpd.
#include "ftp_site.h"
#include "storage_conformance.h"

namespace {

INSTANTIATE_TEST_SUITE_P(Ftp3, StorageConformance,
                         testing::Values(SiteKind<Ftps3Site>("tls"),
                                         SiteKind<Ftps3LenientSite>("tls_without_reuse")),
                         NameOfKind<StorageKind>);

}  // namespace
