// Marker files of versions before the ledger: tmp/quarn2_cp.uploads[#STORAGE] and
// tmp/quarn2_cp.unstored[#STORAGE]. This is the only file that reads them.
#pragma once

#include <string>

// Turns the marker files of this storage into entries of its ledger and removes them. `storage`:
// the name of a user's own storage, empty for the common one. A failure is only logged, and the
// file stays.
void MigrateMarkers(const std::string& storage);
