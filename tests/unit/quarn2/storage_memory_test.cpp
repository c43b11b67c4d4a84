// Runs the conformance suite over the storage in memory.
#include "memory_site.h"
#include "storage_conformance.h"

namespace {

INSTANTIATE_TEST_SUITE_P(Memory, StorageConformance,
                         testing::Values(SiteKind<MemorySite>("memory")), NameOfKind<StorageKind>);

}  // namespace
