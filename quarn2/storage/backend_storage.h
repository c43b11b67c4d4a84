// Implements the Storage interface with a backend.
#pragma once

#include <memory>

#include "quarn2/storage.h"
#include "quarn2/token.h"
#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

// Implements the functions that all storages share: checks names, reads and writes local files.
class BackendStorage final : public Storage {
  public:
    // `token` is the token of the storage that `backend` accesses. Its arch_password determines the
    // stored sizes, the key hash and how Download treats encrypted files.
    BackendStorage(std::unique_ptr<StorageBackend> backend, BackupToken token);

    void Download(const std::string& remote, const std::string& local) override;
    bool Upload(const std::string& remote, const std::string& local) override;
    void Clear() override;
    void RemoveFile(const std::string& remote) override;
    void SyncRemovals(const std::string& directory) override;
    void List(std::vector<std::string>& names, const std::string& directory) override;
    void RemoveDir(const std::string& remote) override;

  private:
    void DoMkDir(const std::string& directory) override;
    std::string KeyHash() override;
    std::int64_t StoredSize(const std::string& local, std::int64_t size) override;

    std::unique_ptr<StorageBackend> backend_;
    BackupToken token_;
};

}  // namespace quarn2
