// Runs the network failure suite over FTP, against ProFTPD.
#include "ftp_site.h"
#include "storage_trouble.h"

namespace {

INSTANTIATE_TEST_SUITE_P(Ftp2, StorageTrouble, testing::Values(TroubledSite<Ftps2Site>("tls")),
                         NameOfKind<RemoteKind>);

}  // namespace
