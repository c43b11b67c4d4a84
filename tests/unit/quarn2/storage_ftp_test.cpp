// Runs the conformance suite over FTP, against pure-ftpd.
#include "ftp_site.h"
#include "storage_conformance.h"

namespace {

INSTANTIATE_TEST_SUITE_P(Ftp, StorageConformance,
                         testing::Values(SiteKind<FtpsSite>("tls"), SiteKind<FtpSite>("plain"),
                                         SiteKind<Encrypted<FtpsSite>>("tls_encrypted")),
                         NameOfKind<StorageKind>);

}  // namespace
