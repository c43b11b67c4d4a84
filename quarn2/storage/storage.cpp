#include "quarn2/storage.h"

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

// Opens the scheme's backend and wraps it for logging, a rate limit or encryption if the log level
// and the token require that.
std::unique_ptr<StorageBackend> OpenBackend(const BackendScheme& scheme, const BackupToken& token) {
    std::unique_ptr<StorageBackend> backend = scheme.open(token);
    if (kro_log::Enabled(kStorageLogLevel)) backend = Logged(std::move(backend));
    const std::int64_t limit = str::Int64(token.Param("limit_rate"));
    if (limit > 0) backend = RateLimited(std::move(backend), limit);
    const std::string password = token.Param("arch_password");
    if (!password.empty()) backend = Encrypted(std::move(backend), password);
    return backend;
}

}  // namespace

std::shared_ptr<Storage> GetStorage(const BackupToken& token) {
    if (!token) throw kro_err::Error(kro_err::Kind::kFailed, token.fault());
    const BackendScheme& scheme = *FindScheme(token.scheme());
    const auto open = [&] { return OpenBackend(scheme, token); };
    return std::make_shared<BackendStorage>(
        scheme.keeps_connections ? TakeBackend(token, open) : open(), token);
}

}  // namespace quarn2
