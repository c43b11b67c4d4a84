// Marker files of earlier versions, which had no ledger: tmp/quarn2_cp.uploads[#STORAGE] and
// tmp/quarn2_cp.unstored[#STORAGE]. Only this unit reads these files.
#pragma once

#include <string>

// Converts the marker files of a storage into ledger entries and removes the converted files.
// `storage`: the name of a user's own storage, empty for the common storage. Logs failures and
// keeps the marker files that could not be converted.
void MigrateMarkers(const std::string& storage);
