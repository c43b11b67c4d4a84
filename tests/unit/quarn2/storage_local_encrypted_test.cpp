// Runs the conformance suite over the local storage with encryption.
#include "local_site.h"
#include "storage_conformance.h"

namespace {

class EncryptedLocalSite final : public LocalSite {
  public:
    std::string Token() const override { return LocalSite::Token() + "?arch_password=p%40ss"; }
};

INSTANTIATE_TEST_SUITE_P(EncryptedLocal, StorageConformance,
                         testing::Values(SiteKind<EncryptedLocalSite>("encrypted_local")),
                         NameOfKind<StorageKind>);

}  // namespace
