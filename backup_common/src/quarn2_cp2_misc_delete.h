// Deletes complete backups.
#pragma once

#include <memory>
#include <string>

#include "kro/kro_args.h"
#include "quarn2/storage.h"
#include "quarn2_cp2_misc_events.h"

// --delete: deletes a backup by its info file.
void CommandDelete(kro_args::ResultPtr result);

// Deletes exactly one backup: slices, companion files and info file on the storage, index copies
// and info file on this machine. With `skip_full`, does nothing for a full backup. Throws at the
// first error. The call can then be repeated to delete the remaining files. Writes the events of
// the deletion with this cause.
void Delete(std::shared_ptr<quarn2::Storage> storage, const std::string& info_path, bool skip_full,
            const DeletionCause& cause = {});

// Deletes one backup. For a full backup, first looks for backups of the same week that depend on
// it. Without `force`, throws std::runtime_error when there is such a backup, and deletes nothing.
// With `force`, deletes these backups before the full backup.
void DeleteWithDepends(std::shared_ptr<quarn2::Storage> storage, const std::string& info_path,
                       bool force);
