// To which backup a file belongs, where several backups share a directory.
#pragma once

#include <set>
#include <string>
#include <vector>

// One backup by its names.
struct BackupNames {
    std::string user;
    std::string date;             // "custom" for a custom backup
    std::set<std::string> stems;  // of the slices that its info file names, without their endings
};

// True for a file of this backup, by its name: info file, index, archive file.
bool BelongsTo(const std::string& name, const BackupNames& backup);

// True when `directory` is the backup's own directory USER/DATE, and none of the names in it is a
// file of another user's backup: only then may the directory go with the backup.
bool OwnsDirectory(const std::string& directory, const std::vector<std::string>& names,
                   const BackupNames& backup);
