// Runs the conformance suite over S3, against Ceph's object gateway.
#include "s3_site.h"
#include "storage_conformance.h"

namespace {

INSTANTIATE_TEST_SUITE_P(
    S3, StorageConformance,
    testing::Values(SiteKind<S3Site>("path_style"),
                    SiteKind<Encrypted<S3VirtualHostSite>>("virtual_host_encrypted")),
    NameOfKind<StorageKind>);

}  // namespace
