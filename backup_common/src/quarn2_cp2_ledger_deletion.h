// Records the deletion of a backup in the ledger. A job that repeats the same backup meanwhile must
// notice that its slices are gone.
#pragma once

#include <string>
#include <vector>

#include "quarn2/info.h"
#include "quarn2/storage.h"
#include "quarn2_cp2_ledger.h"

class LedgerDeletion {
  public:
    // Records every slice of the backup as removed. Call it before the first removal.
    LedgerDeletion(const std::string& info_path, const quarn2::InfoMap& info);

    // Removes slices that an earlier run of the job left and that the info file does not name. Then
    // removes the entries. Call it after the last removal.
    void Finish(quarn2::Storage& storage) const;

  private:
    Ledger ledger_;
    std::string key_;
    std::vector<std::string> entries_;
    std::vector<std::string> named_;
};
