// One backup of the report, and its age. The functions only process data.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "quarn2/info_reader.h"
#include "quarn2_cp2_ledger.h"
#include "quarn2_cp2_server_scan.h"

enum class State {
    kComplete,
    kFuture,        // complete, dated after the reference date; never evicted
    kCustom,        // a complete custom backup; never evicted
    kMisnamed,      // complete, but its info file is not named DATE.USER.info; never evicted
    kUnfinished,    // its job runs or was interrupted
    kBeingDeleted,  // its deletion was interrupted, or is in progress
    kLeftover,      // slices of an earlier attempt of a complete backup
};

// The name of the state in the output: "complete", "deletion interrupted", ...
const char* NameOf(State state);

struct Backup {
    std::string user;
    std::string date;     // YYYY-MM-DD or "custom"
    std::string archive;  // the name of the archive without slice number; may be empty
    State state = State::kComplete;
    bool is_full = false;
    bool is_marked_deleted = false;  // the info file has the key "deleted" of another program
    std::int64_t size = 0;           // bytes on the storage
    std::string created;             // "YYYY-MM-DD HH:MM:SS"; may be empty or another text
    std::string finished;
    std::string node;       // empty when the info file does not name it
    std::string base;       // the value of "base" of a daily
    std::string info_path;  // empty for a backup that is only in the ledger
};

// Describes the backup of an info file. An invalid size counts as 0.
Backup FromInfo(const std::string& path, const quarn2::InfoReader& info, ScanResult result);

// Describes the backup of a ledger entry.
Backup FromEntry(const LedgerEntry& entry);

// The age in days at the reference date, from the date of the backup or, for a custom backup, from
// its creation. Nothing when there is no valid date.
std::optional<std::int64_t> AgeInDays(const Backup& backup, const std::string& reference);
