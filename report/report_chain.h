// Chains of backups: a full backup and the dailies that depend on it. The functions only
// process data.
#pragma once

#include <string>
#include <vector>

#include "report_backup.h"

// The backups of one chain, oldest first. Without a full backup, the dailies cannot be restored.
struct Chain {
    bool has_full = false;
    std::vector<Backup> backups;
};

struct UserBackups {
    std::string user;
    std::vector<Chain> chains;   // complete backups, and those with a date in the future
    std::vector<Backup> others;  // custom, unfinished, being deleted, ...
};

// Groups the backups by user, in the order of the names, and by chain. A daily depends on the
// newest complete full backup before it.
std::vector<UserBackups> GroupByUser(std::vector<Backup> backups);

// The dailies that cannot be restored, because their full backup is missing. Leaves out
// backups that another program has marked as deleted.
std::vector<Backup> NotRestorable(const UserBackups& user);

// The backups to restore for a day, in order, or the reason why it cannot be restored. A reason
// names the nearest days that can be restored, if there are any.
struct Restore {
    std::vector<Backup> backups;
    std::string fault;
};

// `backups`: the backups of one user. `date`: YYYY-MM-DD, or "custom".
Restore FindRestore(std::vector<Backup> backups, const std::string& date);
