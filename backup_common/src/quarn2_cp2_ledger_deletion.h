// Records the deletion of a backup in the ledger. If a job repeats the same backup at the same
// time, this record prevents the job from completing the backup without the removed slices.
#pragma once

#include <string>
#include <vector>

#include "quarn2/info.h"
#include "quarn2/storage.h"
#include "quarn2_cp2_ledger.h"

class LedgerDeletion {
  public:
    // Sets every slice of the backup to kRemoved in the ledger. Create the object before the first
    // file is removed.
    LedgerDeletion(const std::string& info_path, const quarn2::InfoMap& info);

    // Removes slices from the storage that an earlier run of the job left and that the info file
    // does not name. Then removes the backup's ledger entries. Call it after all other files of the
    // backup have been removed.
    void Finish(quarn2::Storage& storage) const;

  private:
    Ledger ledger_;
    std::string key_;
    std::vector<std::string> entries_;
    std::vector<std::string> named_;
};
