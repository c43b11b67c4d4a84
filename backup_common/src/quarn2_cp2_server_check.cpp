#include "quarn2_cp2_server_check.h"

#include <stdexcept>

#include "kro/kro_err.h"
#include "kro/str.h"
#include "quarn2/token.h"
#include "quarn2_cp2_misc_newest.h"
#include "quarn2_cp2_misc_storage.h"
#include "quarn2_cp2_server_notes.h"

namespace {

// The storage's token without secrets.
std::string StorageName() { return TokenByEnv().Str(); }

}  // namespace

void CheckRightStorage(quarn2::Storage& storage, const std::string& info_root) {
    const NewestCheck check = FindNewestOnStorage(storage, info_root);
    if (check.result != NewestOnStorage::kNoneFound) return;
    throw std::runtime_error("the storage " + StorageName() + " has none of the " +
                             str::Str(check.asked) +
                             " newest backups of the info root. Check that the storage is mounted "
                             "and that the token is correct. If the storage was emptied on "
                             "purpose, run --server --rescan");
}

bool IsRightStorageAtStart(const std::string& info_root) {
    try {
        CheckRightStorage(*GetStorageByEnv(), info_root);
        return true;
    } catch (const kro_err::Error& error) {
        Warn("cannot check whether " + StorageName() +
             " is the storage of the backups in the info root: " + error.what() +
             ". The server starts, but deletes nothing until this check succeeds");
        return false;
    }
}
