#include "quarn2_cp2_server_info.h"

#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "quarn2_cp2_misc_newest.h"

namespace {

// Downloads a file. Returns false when the storage does not have the file.
bool Download(quarn2::Storage& storage, const std::string& remote, const std::string& local) {
    try {
        storage.Download(remote, local);
        return true;
    } catch (const kro_err::Error& error) {
        if (error.kind() != kro_err::Kind::kNotFound) throw;
        return false;
    }
}

}  // namespace

std::string FetchInfoFile(quarn2::Storage& storage, const std::string& root,
                          const std::string& user, const std::string& date) {
    const std::string name = date + "." + user + ".info";
    std::string path = kro_file::ConcatPath(root, name);
    kro_file::MkDirSynced(root);
    if (Download(storage, name, path)) return path;
    // Checks that the storage has the file before it creates the local directories, because they
    // would stay empty without the file.
    const std::string in_directory = kro_file::ConcatPath(user, kro_file::ConcatPath(date, name));
    if (!IsOnStorage(storage, in_directory)) return {};
    path = kro_file::ConcatPath(root, in_directory);
    kro_file::MkDirSynced(kro_file::Path(path));
    return Download(storage, in_directory, path) ? path : "";
}
