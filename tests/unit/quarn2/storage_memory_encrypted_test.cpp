// Runs the conformance suite over the storage in memory with encryption.
#include "memory_site.h"
#include "storage_conformance.h"

namespace {

class EncryptedMemorySite final : public MemorySite {
  public:
    std::string Token() const override { return MemorySite::Token() + "?arch_password=p%40ss"; }
};

INSTANTIATE_TEST_SUITE_P(EncryptedMemory, StorageConformance,
                         testing::Values(SiteKind<EncryptedMemorySite>("encrypted_memory")),
                         NameOfKind<StorageKind>);

}  // namespace
