// Runs the conformance suite over the local storage.
#include "local_site.h"
#include "storage_conformance.h"

namespace {

INSTANTIATE_TEST_SUITE_P(Local, StorageConformance, testing::Values(SiteKind<LocalSite>("local")),
                         NameOfKind<StorageKind>);

}  // namespace
