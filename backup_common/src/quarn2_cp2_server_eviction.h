// Choosing what to evict: pure decisions over the model, nothing is deleted here.
//
// Two rules keep every remaining backup restorable: a user's newest record is never chosen, and no
// full one whose successor is a daily.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "quarn2_cp2_server_model.h"

// The oldest record of a user that may go, end() when there is none.
using Backups = std::map<std::string, GlobalSizeControl::StorageDesc::UserDesc::BackupInfo>;
Backups::const_iterator OldestRemovable(const Backups& backups);

// One backup to delete: a place in the model, which must not lose it, nor its user, before.
struct Victim {
    GlobalSizeControl::StorageDesc* storage = nullptr;
    const std::string* user_name = nullptr;
    GlobalSizeControl::StorageDesc::UserDesc* user = nullptr;
    Backups::const_iterator record;
};

// Shows what one pass of DropOldest deletes: from every user with more than `keep` records the
// oldest removable one, in the order of storages and users. The visitor may take the victim it is
// shown out of the model.
void VisitOldest(GlobalSizeControl& control, int keep,
                 const std::function<void(const Victim&)>& visit);

// Takes a deleted backup out of the model.
void ForgetBackup(const Victim& victim);

// The dates of the dailies beyond `leave`, oldest first; the newest record is never among them.
std::vector<std::string> ExcessDailies(const Backups& backups, int leave);

// The dates of the fulls beyond `leave`, oldest first, as far as their successors are fulls.
std::vector<std::string> ExcessFulls(const Backups& backups, int leave);
