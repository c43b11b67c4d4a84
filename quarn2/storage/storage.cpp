#include "quarn2/storage.h"

#include <map>
#include <utility>

#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/str.h"
#include "quarn2/names.h"
#include "quarn2/token.h"
#include "quarn2_backend/registry.h"
#include "storage/backend_storage.h"
#include "storage/encrypted_backend.h"
#include "storage/idle_backends.h"
#include "storage/logging_backend.h"
#include "storage/rate_limit.h"

namespace quarn2 {

void Storage::MkDir(const std::string& directory) {
    if (!directory.empty()) DoMkDir(directory);
}

std::string Storage::GetFileInfo(const std::string& local) {
    const std::string info = GetStoredName(local) + " " + str::Str(Size(local));
    return str::Append(info, KeyHash(), " ");
}

std::int64_t Storage::Size(const std::string& local) {
    return StoredSize(local, kro_file::Size(local));
}

namespace {

// Assigns the results of a list, which arrive in any order, to the positions in the list. If the
// list contains a key twice, both operations are the same, so each may get the result of the other.
class Results {
  public:
    void Expect(std::string key) {
        positions_.emplace(std::move(key), errors_.size());
        errors_.emplace_back();
    }

    void Set(const std::string& key, const FileError& error) {
        const auto found = positions_.find(key);
        errors_[found->second] = error;
        positions_.erase(found);
    }

    std::vector<FileError> Take() { return std::move(errors_); }

  private:
    std::multimap<std::string, std::size_t> positions_;
    std::vector<FileError> errors_;
};

std::string KeyOf(const FileDownload& file) { return file.remote + '\0' + file.local; }

// Returns a function that returns the elements of the list one by one.
template <class Element>
std::function<std::optional<Element>()> EachOf(const std::vector<Element>& list) {
    return [position = list.begin(), end = list.end()]() mutable {
        return position == end ? std::nullopt : std::optional<Element>(*position++);
    };
}

}  // namespace

std::vector<FileError> Storage::DownloadMany(const std::vector<FileDownload>& files) {
    Results results;
    for (const FileDownload& file : files) results.Expect(KeyOf(file));
    DownloadMany(EachOf(files), [&](const FileDownload& file, const FileError& error) {
        results.Set(KeyOf(file), error);
    });
    return results.Take();
}

std::vector<FileError> Storage::RemoveMany(const std::vector<std::string>& names) {
    Results results;
    for (const std::string& name : names) results.Expect(name);
    RemoveMany(EachOf(names),
               [&](const std::string& name, const FileError& error) { results.Set(name, error); });
    return results.Take();
}

namespace {

// Opens the scheme's backend and wraps it for logging, a rate limit or encryption if the log level
// and the token require that.
std::unique_ptr<StorageBackend> OpenBackend(const BackendScheme& scheme, const BackupToken& token,
                                            std::shared_ptr<Pace> pace = nullptr) {
    std::unique_ptr<StorageBackend> backend = scheme.open(token);
    if (kro_log::Enabled(kStorageLogLevel)) backend = Logged(std::move(backend));
    const std::int64_t limit = str::Int64(token.Param("limit_rate"));
    if (pace) {
        backend = RateLimited(std::move(backend), std::move(pace));
    } else if (limit > 0) {
        backend = RateLimited(std::move(backend), limit);
    }
    const std::string password = token.Param("arch_password");
    if (!password.empty()) backend = Encrypted(std::move(backend), password);
    return backend;
}

// Takes an idle backend of the token or opens a new one. With a `pace`, always opens a new backend,
// which does not become idle after its use.
std::unique_ptr<StorageBackend> OpenOrTake(const BackupToken& token, std::shared_ptr<Pace> pace) {
    const BackendScheme& scheme = *FindScheme(token.scheme());
    if (pace || !scheme.keeps_connections) return OpenBackend(scheme, token, std::move(pace));
    return AcquireBackend(token, [&] { return OpenBackend(scheme, token); });
}

}  // namespace

std::shared_ptr<Storage> GetStorage(const BackupToken& token) {
    if (!token) throw kro_err::Error(kro_err::Kind::kFailed, token.fault());
    return std::make_shared<BackendStorage>(
        OpenOrTake(token, nullptr), token,
        [token](std::shared_ptr<Pace> pace) { return OpenOrTake(token, std::move(pace)); });
}

}  // namespace quarn2
