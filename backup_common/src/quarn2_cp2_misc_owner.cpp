#include "quarn2_cp2_misc_owner.h"

#include <algorithm>

#include "kro/kro_file.h"
#include "quarn2/names.h"

bool BelongsTo(const std::string& name, const BackupNames& backup) {
    if (backup.stems.contains(quarn2::StripSliceNumber(name))) return true;
    return quarn2::IsBackupFile(name) && quarn2::GetUserName(name) == backup.user &&
           quarn2::GetDate(name) == backup.date;
}

bool OwnsDirectory(const std::string& directory, const std::vector<std::string>& names,
                   const BackupNames& backup) {
    // With an empty user or date, or with "..", the path would refer to another directory.
    if (!quarn2::IsSafeName(backup.user) || !quarn2::IsSafeName(backup.date)) return false;
    if (directory != kro_file::ConcatPath(backup.user, backup.date)) return false;
    return std::none_of(names.begin(), names.end(), [&backup](const std::string& name) {
        return quarn2::IsBackupFile(name) && quarn2::GetUserName(name) != backup.user &&
               !BelongsTo(name, backup);
    });
}
