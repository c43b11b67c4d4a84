// The conformance suite over the storage in memory.
#include "memory_site.h"
#include "storage_conformance.h"

namespace {

INSTANTIATE_TEST_SUITE_P(Memory, StorageConformance,
                         testing::Values(StorageKind{"memory",
                                                     []() -> std::unique_ptr<StorageSite> {
                                                         return std::make_unique<MemorySite>();
                                                     }}));

}  // namespace
