// Opens storages. Every command opens its storages with these functions, which refuse a local
// directory that must not be used as a storage.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "quarn2/storage.h"
#include "quarn2/token.h"

inline constexpr const char* kDefaultInfoRoot = "var/backup/tovarn";
inline constexpr const char* kPrivateInfoRoot = "var/backup/tovarn.private";

// The token in BACKUP_TOKEN. The result converts to false when the variable is unset or malformed.
quarn2::BackupToken TokenByEnv();

// The directory in a local token, with symbolic links resolved. The local storage uses this
// directory.
std::filesystem::path StorageDirectory(const quarn2::BackupToken& token);

// Like Storage::List, but returns no names for a missing path.
std::vector<std::string> ListOrNothing(quarn2::Storage& storage, const std::string& path);

// The directories that a local storage directory must not overlap, because --clear empties the
// storage and evictions delete files in it. All paths are resolved.
struct ProtectedDirectories {
    std::vector<std::filesystem::path> outside;  // may contain a storage: the install root and var
    // must not contain a storage: sbin, etc, tmp, info roots
    std::vector<std::filesystem::path> closed;
};

enum class Overlap { kIs, kContains, kIsInside };

struct StorageConflict {
    Overlap overlap;
    std::filesystem::path directory;  // the protected directory
};

// Returns the first conflict of the storage directory with a protected directory, or nothing when
// the storage directory may be used.
std::optional<StorageConflict> FindConflict(const ProtectedDirectories& protected_directories,
                                            const std::filesystem::path& storage);

// Throws std::runtime_error when the token's local directory is or contains the install root, its
// sbin, etc, var or tmp, or an info root. Also throws when the directory is inside sbin, etc, tmp
// or an info root. The info roots are `info_root` and the default ones. Does nothing for a
// malformed token and for a token that is not local.
void CheckStorageDirectory(const quarn2::BackupToken& token, const std::string& info_root);

// Calls CheckStorageDirectory and opens the storage. Throws kro_err::Error for a malformed token.
std::shared_ptr<quarn2::Storage> OpenStorage(const quarn2::BackupToken& token,
                                             const std::string& info_root = kDefaultInfoRoot);

// OpenStorage for the token in BACKUP_TOKEN. Throws kro_err::Error when the token is unset or
// malformed.
std::shared_ptr<quarn2::Storage> GetStorageByEnv(const std::string& info_root = kDefaultInfoRoot);

// Throws std::runtime_error when `source` must not be uploaded as `remote` and removed afterwards,
// because `source` is the stored file itself or is inside the storage directory. Resolves symbolic
// links, including those to directories at the top of the storage. Does nothing when the storage is
// not local.
void CheckSource(const quarn2::BackupToken& token, const std::string& remote,
                 const std::string& source);
