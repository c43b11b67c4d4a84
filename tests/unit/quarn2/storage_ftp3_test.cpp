// The conformance suite over FTP: vsftpd.
#include "ftp_site.h"
#include "storage_conformance.h"

namespace {

INSTANTIATE_TEST_SUITE_P(Ftp3, StorageConformance, testing::Values(SiteKind<Ftps3Site>("tls")),
                         NameOfKind<StorageKind>);

}  // namespace
