// Empties a storage and the info roots.
#pragma once

#include <string>

// --clear: empties the storage of BACKUP_TOKEN, if that is set, and removes the local info roots.
void CommandClear();

// Throws std::runtime_error when a --clear of this info root was interrupted or is in progress.
void CheckNoBrokenClear(const std::string& info_root);
