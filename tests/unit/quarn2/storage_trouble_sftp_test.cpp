// Runs the network failure suite over SFTP, against OpenSSH's server.
#include "sftp_site.h"
#include "storage_trouble.h"

namespace {

INSTANTIATE_TEST_SUITE_P(Sftp, StorageTrouble,
                         testing::Values(TroubledSite<SftpSite>("password"),
                                         TroubledSite<Encrypted<SftpKeySite>>("key_encrypted")),
                         NameOfKind<RemoteKind>);

}  // namespace
