// Storages in memory for the conformance suite.
#pragma once

#include "backends/memory/memory_backend.h"
#include "storage_site.h"

class MemorySite : public StorageSite {
  public:
    MemorySite() {
        quarn2::RegisterMemoryScheme();
        store_->Reset();
    }
    std::string Token() const override { return "memory:conformance"; }
    std::vector<std::string> Everything() const override {
        std::vector<std::string> names;
        for (const auto& [name, content] : store_->files()) names.push_back(name);
        return names;
    }
    bool LeaveLeftover(const std::string& /*name*/) override { return false; }
    bool LimitRoom(std::int64_t bytes) override {
        store_->SetCapacity(bytes);
        return true;
    }

  private:
    std::shared_ptr<quarn2::MemoryStore> store_ = quarn2::MemoryStore::Named("conformance");
};
