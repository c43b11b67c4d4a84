// Implements the Storage interface with a backend.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "quarn2/storage.h"
#include "quarn2/token.h"
#include "quarn2_backend/storage_backend.h"
#include "storage/many_tasks.h"
#include "storage/rate_limit.h"

namespace quarn2 {

// Implements the functions that all storages share: checks names, reads and writes local files.
class BackendStorage final : public Storage {
  public:
    // Opens another backend of the same token, on any thread. If a Pace is given, it limits the
    // backend's transfers instead of the token's rate limit.
    using OpenMore = std::function<std::unique_ptr<StorageBackend>(std::shared_ptr<Pace>)>;

    // `token` is the token of the storage that `backend` accesses. Its arch_password determines the
    // stored sizes, the key hash and how Download treats encrypted files.
    // `open_more` opens other backends for operations on many names.
    BackendStorage(std::unique_ptr<StorageBackend> backend, BackupToken token, OpenMore open_more);

    void Download(const std::string& remote, const std::string& local) override;
    bool Upload(const std::string& remote, const std::string& local) override;
    void Clear() override;
    void RemoveFile(const std::string& remote) override;
    void SyncRemovals(const std::string& directory) override;
    void List(std::vector<std::string>& names, const std::string& directory) override;
    std::vector<ListedEntry> ListSizes(const std::string& directory) override;
    std::optional<std::vector<ListedEntry>> ListAllFiles() override;
    void RemoveDir(const std::string& remote) override;
    using Storage::DownloadMany;
    using Storage::RemoveMany;
    void DownloadMany(const NextDownload& next, const DownloadDone& done) override;
    void RemoveMany(const NextName& next, const RemovalDone& done) override;
    void ListMany(const NextName& next, const ListingDone& done) override;

  private:
    void DoMkDir(const std::string& directory) override;
    std::string KeyHash() override;
    std::int64_t StoredSize(const std::string& local, std::int64_t size) override;

    void DownloadBy(StorageBackend& backend, const FileDownload& file,
                    TransferObserver* observer) const;
    void RunMany(ManyTasks::Next next, TransferObserver* observer, std::int64_t rate);
    void RemoveInBatches(const NextName& next, const RemovalDone& done);
    StorageBackend::Errors RemoveBatch(const std::vector<std::string>& names);

    std::unique_ptr<StorageBackend> backend_;
    BackupToken token_;
    OpenMore open_more_;
};

}  // namespace quarn2
