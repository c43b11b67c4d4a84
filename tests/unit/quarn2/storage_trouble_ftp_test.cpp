// Runs the network failure suite over FTP, against pure-ftpd.
#include "ftp_site.h"
#include "storage_trouble.h"

namespace {

INSTANTIATE_TEST_SUITE_P(Ftp, StorageTrouble,
                         testing::Values(TroubledSite<FtpsSite>("tls"),
                                         TroubledSite<Encrypted<FtpSite>>("plain_encrypted")),
                         NameOfKind<RemoteKind>);

}  // namespace
