// Decides to which backup a file belongs when several backups share a directory.
#pragma once

#include <set>
#include <string>
#include <vector>

// The names by which the files of one backup are recognised.
struct BackupNames {
    std::string user;
    std::string date;             // "custom" for a custom backup
    std::set<std::string> stems;  // slice names from the info file, without numbers
};

// True when `name` is the name of a file of this backup: its info file, index or an archive file.
bool BelongsTo(const std::string& name, const BackupNames& backup);

// True when `directory` is the backup's own directory USER/DATE and none of `names` is a file of
// another user's backup. Only then may the deletion of the backup remove the directory.
bool OwnsDirectory(const std::string& directory, const std::vector<std::string>& names,
                   const BackupNames& backup);
