// The reasons for the deletion of a backup.
#pragma once

#include <string_view>

enum class RemovalReason {
    kNone,         // no backup is removed, or the reason is not known
    kUnknown,      // a reason written by a newer version of the program
    kCountDaily,   // the user has more daily backups than the count limit allows
    kCountFull,    // the user has more full backups than the count limit allows
    kSizeStart,    // at the server's start the backups use more than the size limit
    kSizeReserve,  // an upload needs the space
    kSizeDropOne,  // an upload found the storage full, and the server has no size limit
    kAsked,        // the user requested the deletion of this backup
    kDependant,    // the full backup that this backup needs is deleted
    kIncomplete,   // the backup was never completed
    kClear,        // the user deletes all backups
    kRescan,       // the storage does not list the backup
    kResumed,      // an earlier process has begun the deletion
};

// The name of the reason in logs, events and reports, such as "count-daily". The name of kNone is
// "".
const char* NameOf(RemovalReason reason) noexcept;

// The reason with this name; kUnknown for any other text.
RemovalReason ParseRemovalReason(std::string_view name) noexcept;
