// The server's accounting: the backups on a storage and the space that they use. All decisions
// about reservations and evictions use this data. Only the thread of the server's event loop uses
// it. It is never written to disk.
#pragma once

#include <cstdint>
#include <limits>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "kro/kro_args.h"
#include "quarn2/storage.h"
#include "quarn2_cp2_misc_sizes.h"
#include "quarn2_cp2_server_scan.h"
#include "quarn2_cp2_server_unfinished.h"

// The limits of the command line. A missing value or 0 means no limit, except for daily backups.
// For daily backups, it means that a daily is kept only while it is the newest backup of its user.
struct ServerLimits {
    static constexpr std::int32_t kNoCount = std::numeric_limits<std::int32_t>::max();
    static constexpr std::int64_t kNoSize = std::numeric_limits<std::int64_t>::max();

    std::int32_t full = kNoCount;
    std::int32_t daily = 0;
    std::int64_t size = kNoSize;

    // Parses count-limit (FULL or FULL:DAILY) and size-limit (bytes). Throws std::runtime_error,
    // which quotes the value and names the expected form, when a value is invalid.
    static ServerLimits Parse(const std::string& count_limit, const std::string& size_limit);
};

// All sizes are in bytes. All maps are ordered: users are processed in the order of their names,
// and dates sort as text.
struct GlobalSizeControl {
    struct StorageDesc {
        struct UserDesc {
            struct BackupInfo {
                std::int64_t size = 0;
                std::int32_t type = 1;  // 0: full, 1: daily, which needs the newest full before it
                bool locked = false;    // never chosen for eviction
            };

            static bool IsFull(const std::pair<const std::string, BackupInfo>& record) noexcept {
                return record.second.type == 0;
            }

            // The size of the backups that no eviction may delete: the user's newest backup and,
            // when that is a daily, the newest full backup before it. The user must have at least
            // one backup.
            std::int64_t GetLockedSize() const noexcept;

            std::map<std::string, BackupInfo> backups;  // by date: oldest first
        };

        GlobalSizeControl* owner = nullptr;
        std::int64_t limit = 0;            // free size if all removable backups were evicted
        std::int64_t free_size = 0;        // size_limit minus the size of the backups
        std::int64_t reserved = 0;         // granted to uploads in progress
        std::uint64_t resets = 0;          // how often `reserved` was reset to 0
        std::int64_t remote_reserved = 0;  // the part of `reserved` for other machines
        std::int64_t unfinished = 0;       // the size of backups that are not complete
        // Counts `size` bytes as used by files that no eviction can delete. A negative size
        // reverses an earlier call.
        void CountPermanently(std::int64_t size) noexcept;
        // Sets the reserved space to 0.
        void ResetReserved() noexcept;
        // Returns how many bytes must be free in addition to `reserved` before `size` bytes can be
        // reserved: at least `size`. The result is larger if `unfinished` is larger than
        // `reserved`, because the incomplete backups need the difference too. That happens after a
        // completion, which resets all reservations, also those of uploads in progress. For a node
        // client of this machine, `unfinished` already contains the file for which the space is
        // reserved. `freed`: the part of `unfinished` that will be removed before the reservation.
        std::int64_t NeededFor(std::int64_t size, bool is_remote,
                               std::int64_t freed = 0) const noexcept;

        std::map<std::string, UserDesc> users;
        std::shared_ptr<quarn2::Storage> storage;
        // The info files of backups whose deletion was interrupted, with the sizes of the backups.
        // These backups are not in `users`.
        std::map<std::string, std::int64_t> half_deleted;
    };

    GlobalSizeControl() = default;
    // Reads the limits and the path from the command line and logs the limits.
    explicit GlobalSizeControl(const kro_args::Result& args);
    // Not copyable, because each storage points to its owner.
    GlobalSizeControl(const GlobalSizeControl&) = delete;
    GlobalSizeControl& operator=(const GlobalSizeControl&) = delete;

    // Registers the storage, which all nodes share.
    StorageDesc& AddStorage(std::shared_ptr<quarn2::Storage> storage);

    // Sets the reference date and calls Scan with it.
    void Init(const std::string& reference_date);

    // Clears all backup records and reads them again from the info files under `path`. A backup
    // with a date after `current_date` counts as used space and is never evicted. Without an
    // observer, throws the first read error and leaves the records incomplete. With an observer,
    // continues after a read error. With a user, the scan reads only the info files of this user.
    void Scan(const std::string& current_date, ScanObserver* observer = nullptr,
              const std::string& user = "");

    // Counts the backup of each info file. Skips an info file that was removed after the files were
    // listed.
    void CountInfoFiles(const std::list<std::string>& paths, const std::string& current_date,
                        ScanObserver* observer = nullptr);

    // Throws kro_err::Error while the storage does not answer, and std::runtime_error when the
    // storage has none of the newest backups of the info root. After the first success, does
    // nothing.
    void CheckStorage();

    // Handles the interrupted deletions that the scan has found. Cancels a deletion that has
    // removed nothing, and finishes the others. A backup that cannot be removed counts as used
    // space until FinishBegunFirst removes it.
    void FinishDeletions();

    // Finishes the deletions that FinishDeletions could not finish. Called before each eviction, so
    // that an outage of the storage interrupts the deletion of at most one backup. Throws an error
    // of the storage, because no other backup may be deleted during an outage. Logs other errors.
    void FinishBegunFirst();

    // Removes all backup records from memory. Users and storages stay.
    void ClearBackupInfo();

    // One eviction pass: deletes the oldest removable backup of every user with more than `keep`
    // backups, then decrements max_count. Does nothing when `keep` is not below max_count. Throws
    // std::runtime_error when `keep` is negative, because nothing is left to delete.
    void DropOldest(int keep);

    // Deletes daily and then full backups beyond these counts, for each user, oldest first. Keeps a
    // user's newest backup and a full backup that a daily needs.
    void DropByCount(int count_to_leave_full, int count_to_leave_daily);

    // Deletes backups, in passes of DropOldest, until NeededFor(size, is_remote) bytes of the
    // storage are neither used nor reserved. Throws std::runtime_error before any deletion when
    // that is impossible.
    void MakeRoom(const StorageDesc& storage, std::int64_t size, bool is_remote = false);

    // True when MakeRoom with these arguments would find enough backups to delete.
    bool CanMakeRoom(const StorageDesc& storage, std::int64_t size, bool is_remote) const;

    // Deletes backups beyond the count limits and then, in passes of DropOldest, until no storage
    // uses more than the size limit. Throws std::runtime_error before any deletion when that is
    // impossible.
    void FitIntoLimits();

    // Removes slices that belong neither to a complete backup nor to a job that may still be
    // running (see UnfinishedBackups::Reclaimable), oldest first. Stops when `size` bytes can be
    // reserved without an eviction, or when no such slice is left. Failures are only logged.
    void ReclaimUnfinished(const StorageDesc& storage, std::int64_t size, bool is_remote);

    // Updates the size of unfinished backups from the ledger.
    void RefreshUnfinished();

    // The largest used space of any storage; 0 without a storage.
    std::int64_t MaxUsedSize() const noexcept;

    // The used space of the storage in bytes, without backups that are not complete.
    std::int64_t UsedSizeOf(const StorageDesc& storage) const noexcept;

    // The size limit in bytes, or nothing without a limit.
    std::optional<std::int64_t> LimitOrNothing() const noexcept;

    std::string path;
    std::int32_t full_limit = ServerLimits::kNoCount;
    std::int32_t daily_limit = 0;
    std::int64_t size_limit = ServerLimits::kNoSize;
    bool common_storage = false;
    std::int32_t max_count = 0;  // largest backup count of a user; each eviction pass decrements it
    std::string date;
    // False while it is unknown whether the storage has the backups of the info root, because the
    // storage has not answered yet. No backup is deleted while it is false.
    bool is_storage_checked = true;
    UnfinishedBackups unfinished;  // backups that the scan does not count
    std::map<std::string, StorageDesc> storages;
};
