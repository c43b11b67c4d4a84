// Marker files of versions before the ledger: tmp/quarn2_cp.uploads[#STORAGE] and
// tmp/quarn2_cp.unstored[#STORAGE]. Only this unit reads them.
#pragma once

#include <string>

// Converts the marker files of this storage into entries of its ledger and removes them. `storage`:
// the name of a user's own storage, empty for the common one. Logs failures and keeps the marker
// files that it could not convert.
void MigrateMarkers(const std::string& storage);
