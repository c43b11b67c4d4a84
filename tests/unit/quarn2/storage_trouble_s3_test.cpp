// Runs the network failure suite over S3, against Ceph's object gateway.
#include "s3_site.h"
#include "storage_trouble.h"

namespace {

INSTANTIATE_TEST_SUITE_P(S3, StorageTrouble,
                         testing::Values(TroubledSite<S3Site>("https"),
                                         TroubledSite<Encrypted<S3Site>>("https_encrypted")),
                         NameOfKind<RemoteKind>);

}  // namespace
