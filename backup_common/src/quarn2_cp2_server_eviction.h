// Chooses backups to evict. The functions are pure decisions over the model and delete nothing.
//
// Two rules keep every remaining backup restorable: a user's newest record is never chosen, and
// neither is a full backup whose successor is a daily.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "quarn2_cp2_server_model.h"

// The oldest record of a user that may be evicted; end() when there is none.
using Backups = std::map<std::string, GlobalSizeControl::StorageDesc::UserDesc::BackupInfo>;
Backups::const_iterator OldestRemovable(const Backups& backups);

// The dates of the dailies beyond `leave`, oldest first; the newest record is never among them.
std::vector<std::string> ExcessDailies(const Backups& backups, int leave);

// The dates of the fulls beyond `leave`, oldest first. Only a full whose successor is a full is
// chosen.
std::vector<std::string> ExcessFulls(const Backups& backups, int leave);
