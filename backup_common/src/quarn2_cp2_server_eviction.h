// Chooses backups to evict. The functions only read the model and delete nothing.
//
// Two rules keep every remaining backup restorable: the newest backup of a user is never chosen,
// and a full backup that is followed by a daily is never chosen.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "quarn2_cp2_server_model.h"

// A user's oldest backup that may be evicted; end() when there is none.
using Backups = std::map<std::string, GlobalSizeControl::StorageDesc::UserDesc::BackupInfo>;
Backups::const_iterator OldestRemovable(const Backups& backups);

// The dates of a user's oldest dailies that exceed the number `leave`, oldest first. Never contains
// the user's newest backup.
std::vector<std::string> ExcessDailies(const Backups& backups, int leave);

// The dates of a user's oldest full backups that exceed the number `leave`, oldest first. Contains
// only full backups that are followed by another full backup.
std::vector<std::string> ExcessFulls(const Backups& backups, int leave);
