// Base class of the wrappers around a backend.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

// Forwards every operation to the wrapped backend, except Put and Get, which the derived class
// implements.
class ForwardingBackend : public StorageBackend {
  public:
    explicit ForwardingBackend(std::unique_ptr<StorageBackend> backend)
        : backend_(std::move(backend)) {}

    void Remove(const std::string& name) override { backend_->Remove(name); }
    Errors RemoveMany(std::span<const std::string> names) override {
        return backend_->RemoveMany(names);
    }
    std::size_t RemovalBatch() const override { return backend_->RemovalBatch(); }
    void RemoveDir(const std::string& name) override { backend_->RemoveDir(name); }
    void SyncRemovals(const std::string& name) override { backend_->SyncRemovals(name); }
    void MakeDir(const std::string& name) override { backend_->MakeDir(name); }
    std::vector<std::string> List(const std::string& name) override { return backend_->List(name); }
    std::vector<ListedEntry> ListSizes(const std::string& name) override {
        return backend_->ListSizes(name);
    }
    std::optional<std::vector<ListedEntry>> ListAllFiles() override {
        return backend_->ListAllFiles();
    }
    void Clear() override { backend_->Clear(); }

  protected:
    StorageBackend& backend() const noexcept { return *backend_; }

  private:
    std::unique_ptr<StorageBackend> backend_;
};

}  // namespace quarn2
