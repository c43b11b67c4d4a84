// Observes the scan of the info files. The server needs only the totals of the scan. quarn2_report
// uses an observer to describe each backup.
#pragma once

#include <string>

#include "quarn2/info_reader.h"

// How the scan has counted the backup of an info file.
enum class ScanResult {
    kCounted,       // a complete backup
    kFuture,        // complete, dated after the current date: used space, never evicted
    kCustom,        // a complete custom backup: used space, never evicted
    kMisnamed,      // complete, but the info file is not named DATE.USER.info: never evicted
    kUnfinished,    // the ledger has an open entry for the backup
    kNotFinished,   // the info file has no "finished"
    kBeingDeleted,  // the deletion of the backup was interrupted, or is in progress
    kOtherNode,     // the server does not manage the storage of the backup
};

class ScanObserver {
  public:
    virtual ~ScanObserver() = default;
    // The scan has read an info file. The entries of `info` are valid during the call.
    virtual void Take(const std::string& path, const quarn2::InfoReader& info,
                      ScanResult result) = 0;
    // The scan could not read or count an info file. `reason` does not always contain the file
    // name.
    virtual void Fail(const std::string& path, const std::string& reason) = 0;
};
