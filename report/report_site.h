// Reads the info root, the ledger and the server's files of one storage. Writes nothing and takes
// no lock.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kro/kro_date.h"
#include "quarn2_cp2_ledger.h"
#include "quarn2_cp2_server_model.h"
#include "report_backup.h"
#include "report_files.h"
#include "report_names.h"
#include "report_options.h"
#include "report_output.h"
#include "report_server.h"

// The parts of a report that all modes use.
struct Site {
    Options options;
    Names names;
    std::string date;  // the reference date
    ServerReport server;
    std::vector<LedgerEntry> entries;  // the ledger's entries of the storage and the user
    GlobalSizeControl account;         // filled by ScanSite
    Output output;

    explicit Site(const Options& chosen);
};

// Reads the server's files and the ledger. Records a finding for each that cannot be read.
void ReadServerAndLedger(Site& site);

// Receives one backup, read from an info file or from the ledger.
using TakeBackup = std::function<void(Backup&& backup)>;

// Scans the info files once, fills the account and calls `take` for each backup, then for each
// ledger entry. Records a finding for each info file that cannot be read. Throws kro_err::Error
// when the info root is missing or cannot be listed.
void ScanSite(Site& site, const TakeBackup& take);

// The limits of the options or, if these are missing, of the running server. `is_known` is false
// when no source has the limit.
struct KnownLimits {
    ServerLimits limits;
    bool is_size_known = false;
    bool is_count_known = false;
    const char* source = "";  // the origin of the size limit: "options" or "server"
};
KnownLimits ChooseLimits(const Options& options, const ServerReport& server);

// The time relative to which ages are computed: the beginning of the reference date, or now.
kro_date::DateTime ReferenceTime(const Options& options);

// Looks for the index beside the info file.
LocalFiles FindLocalFiles(const std::string& info_path);

// True for an entry file whose content is not a valid entry.
bool IsBroken(const LedgerEntry& entry, const std::string& text);
