// Runs the conformance suite over SFTP, against OpenSSH's server.
#include "sftp_site.h"
#include "storage_conformance.h"

namespace {

INSTANTIATE_TEST_SUITE_P(Sftp, StorageConformance,
                         testing::Values(SiteKind<SftpSite>("password"),
                                         SiteKind<Encrypted<SftpKeySite>>("key_encrypted")),
                         NameOfKind<StorageKind>);

}  // namespace
