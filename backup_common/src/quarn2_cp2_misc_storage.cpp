#include "quarn2_cp2_misc_storage.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include "kro/kro_env.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "quarn2_cp2_misc_paths.h"

namespace fs = std::filesystem;

namespace {

// Relative paths are resolved against the install root, because it is the working directory of
// every command.
ProtectedDirectories FindProtected(const std::string& info_root) {
    ProtectedDirectories found;
    for (const char* const path : {"", "var"}) found.outside.push_back(ResolvePath(path));
    const std::vector<std::string> closed = {"sbin",           "etc",     "tmp",
                                             kDefaultInfoRoot, info_root, kPrivateInfoRoot};
    std::transform(closed.begin(), closed.end(), std::back_inserter(found.closed), ResolvePath);
    return found;
}

std::string Relation(Overlap overlap) {
    switch (overlap) {
        case Overlap::kIs:
            return "is";
        case Overlap::kContains:
            return "contains";
        case Overlap::kIsInside:
            break;
    }
    return "is inside of";
}

std::optional<Overlap> FindOverlap(const fs::path& storage, const fs::path& directory,
                                   bool may_be_inside) {
    if (storage == directory) return Overlap::kIs;
    if (IsSameOrBelow(storage, directory)) return Overlap::kContains;
    if (!may_be_inside && IsSameOrBelow(directory, storage)) return Overlap::kIsInside;
    return std::nullopt;
}

// The directories in which the storage keeps files: the storage directory, the directory of
// `remote`, and the targets of symbolic links at the top of the storage. An administrator may
// spread a storage over several disks with such links.
std::vector<fs::path> DirectoriesOf(const fs::path& storage, const std::string& remote) {
    std::vector<fs::path> found = {storage, ResolvePath(storage / kro_file::Path(remote))};
    std::error_code error;
    for (fs::directory_iterator entry(storage, error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code ignored;
        if (!entry->is_symlink(ignored) || !entry->is_directory(ignored)) continue;
        // Skips another user's link, because the storage does not follow it.
        if (kro_file::IsForeignLink(entry->path())) continue;
        found.push_back(ResolvePath(entry->path()));
    }
    return found;
}

[[noreturn]] void ThrowInvalidSource(const std::string& source, const std::string& reason) {
    throw std::runtime_error(
        "'" + source + "' cannot be uploaded: " + reason +
        "; nothing was changed. Upload only files that are outside of the storage");
}

}  // namespace

quarn2::BackupToken TokenByEnv() { return quarn2::BackupToken(kro_env::GetEnv("BACKUP_TOKEN")); }

fs::path StorageDirectory(const quarn2::BackupToken& token) {
    return ResolvePath(kro_file::GoodPath(token.path()));
}

std::vector<std::string> ListOrNothing(quarn2::Storage& storage, const std::string& path) {
    std::vector<std::string> names;
    try {
        storage.List(names, path);
    } catch (const kro_err::Error& error) {
        if (error.kind() != kro_err::Kind::kNotFound) throw;
    }
    return names;
}

std::optional<StorageConflict> FindConflict(const ProtectedDirectories& protected_directories,
                                            const fs::path& storage) {
    for (const fs::path& directory : protected_directories.outside) {
        const auto overlap = FindOverlap(storage, directory, true);
        if (overlap) return StorageConflict{*overlap, directory};
    }
    for (const fs::path& directory : protected_directories.closed) {
        const auto overlap = FindOverlap(storage, directory, false);
        if (overlap) return StorageConflict{*overlap, directory};
    }
    return std::nullopt;
}

void CheckStorageDirectory(const quarn2::BackupToken& token, const std::string& info_root) {
    if (!token.IsLocal()) return;
    const auto conflict = FindConflict(FindProtected(info_root), StorageDirectory(token));
    if (!conflict) return;
    throw std::runtime_error("storage directory '" + kro_file::GoodPath(token.path()) +
                             "' cannot be used: it " + Relation(conflict->overlap) + " '" +
                             conflict->directory.string() +
                             "', which this program needs; nothing was changed. Use a directory "
                             "that contains only backups in BACKUP_TOKEN");
}

std::shared_ptr<quarn2::Storage> OpenStorage(const quarn2::BackupToken& token,
                                             const std::string& info_root) {
    CheckStorageDirectory(token, info_root);
    return quarn2::GetStorage(token);
}

std::shared_ptr<quarn2::Storage> GetStorageByEnv(const std::string& info_root) {
    return OpenStorage(TokenByEnv(), info_root);
}

void CheckSource(const quarn2::BackupToken& token, const std::string& remote,
                 const std::string& source) {
    if (!token.IsLocal()) return;
    const fs::path storage = StorageDirectory(token);
    std::error_code error;
    if (fs::equivalent(storage / remote, source, error)) {
        ThrowInvalidSource(source, "it is the stored file itself");
    }
    const fs::path resolved = ResolvePath(source);
    for (const fs::path& directory : DirectoriesOf(storage, remote)) {
        if (IsSameOrBelow(directory, resolved)) {
            ThrowInvalidSource(
                source, "it is inside of the storage directory '" + directory.string() + "'");
        }
    }
}
