// A deletion in the ledger: a job that makes the same backup meanwhile must notice that its slices
// are gone.
#pragma once

#include <string>
#include <vector>

#include "quarn2/info.h"
#include "quarn2/storage.h"
#include "quarn2_cp2_ledger.h"

class LedgerDeletion {
  public:
    // Records that every file of the backup is removed. To be called before the first removal.
    LedgerDeletion(const std::string& info_path, const quarn2::InfoMap& info);

    // Removes the slices that an earlier run of the job left and that the info file does not name,
    // and ends the entries. To be called after the last removal.
    void Finish(quarn2::Storage& storage) const;

  private:
    Ledger ledger_;
    std::string key_;
    std::vector<std::string> entries_;
    std::vector<std::string> named_;
};
