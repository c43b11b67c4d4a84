// The server's account of what a storage holds: the one authority for reservations and evictions.
// It lives on the thread of the server's event loop and is never written to disk.
#pragma once

#include <cstdint>
#include <limits>
#include <list>
#include <map>
#include <memory>
#include <string>

#include "kro/kro_args.h"
#include "quarn2/storage.h"
#include "quarn2_cp2_misc_sizes.h"
#include "quarn2_cp2_server_unfinished.h"

// What the command line allows. 0 or nothing given: no limit, except for daily backups, where 0
// means that none is kept beyond what the chains need.
struct ServerLimits {
    static constexpr std::int32_t kNoCount = std::numeric_limits<std::int32_t>::max();
    static constexpr std::int64_t kNoSize = std::numeric_limits<std::int64_t>::max();

    std::int32_t full = kNoCount;
    std::int32_t daily = 0;
    std::int64_t size = kNoSize;

    // Reads count-limit (FULL or FULL:DAILY) and size-limit (bytes). A value that cannot be read is
    // a std::runtime_error that quotes it and says what was expected.
    static ServerLimits Parse(const std::string& count_limit, const std::string& size_limit);
};

// All sizes in bytes. Ordered maps throughout: the order of names is the order of work, and dates
// sort as text.
struct GlobalSizeControl {
    struct StorageDesc {
        struct UserDesc {
            struct BackupInfo {
                std::int64_t size = 0;
                std::int32_t type = 1;  // 0 full, 1 daily: needs the newest full before it
                bool locked = false;    // never chosen for eviction
            };

            static bool IsFull(const std::pair<const std::string, BackupInfo>& record) noexcept {
                return record.second.type == 0;
            }

            // The space of the newest chain, which no eviction may free: the newest record and,
            // when it is not a full one, the full before it. For users with at least one record.
            std::int64_t GetLockedSize() const noexcept;

            std::map<std::string, BackupInfo> backups;  // by date: oldest first
        };

        GlobalSizeControl* owner = nullptr;
        std::int64_t limit = 0;            // the most that could ever be free
        std::int64_t free_size = 0;        // size_limit less what the backups use
        std::int64_t reserved = 0;         // promised to uploads under way
        std::uint64_t resets = 0;          // how often `reserved` has been set back to 0
        std::int64_t remote_reserved = 0;  // the part of `reserved` of other machines' uploads
        std::int64_t unfinished = 0;       // what backups that are not complete use
        // Space that no eviction can free; a negative size gives it back.
        void ChargeForGood(std::int64_t size) noexcept;
        // Forgets every reservation.
        void ResetReserved() noexcept;
        // What must be free beyond `reserved` for a reservation of `size` bytes. A completion
        // forgets reservations of uploads that are under way: then `unfinished`, which has the file
        // that a node client of this machine asks for already, is the greater one.
        std::int64_t NeededFor(std::int64_t size, bool is_remote) const noexcept;

        std::map<std::string, UserDesc> users;
        std::shared_ptr<quarn2::Storage> storage;
        // The info files of backups whose removal was begun, and their sizes. They are no backups
        // any more.
        std::map<std::string, std::int64_t> half_deleted;
    };

    GlobalSizeControl() = default;
    // Takes limits and path from the command line and says so in the log.
    explicit GlobalSizeControl(const kro_args::Result& args);
    // The storages point back here.
    GlobalSizeControl(const GlobalSizeControl&) = delete;
    GlobalSizeControl& operator=(const GlobalSizeControl&) = delete;

    // Registers the one storage that all nodes share.
    StorageDesc& AddStorage(std::shared_ptr<quarn2::Storage> storage);

    // Sets the reference date and scans.
    void Init(const std::string& reference_date);

    // Forgets all backups and fills the account from the info files under `path`, as of
    // `current_date`. Errors of reading leave it half filled and pass out.
    void Scan(const std::string& current_date);

    // The scan's part for each info file: enters its backup. Skips a file that is not there any
    // more, because a job has deleted its backup since the files were listed.
    void TakeInfoFiles(const std::list<std::string>& paths, const std::string& current_date);

    // Throws while the storage cannot be asked whether it has the backups of this account, and when
    // it has none of them.
    void CheckStorage();

    // For the deletions that the scan has found begun: takes back those that have removed nothing,
    // and finishes the others. What cannot be removed counts as used space until a deletion of
    // another backup finishes it first.
    void FinishDeletions();

    // Finishes the deletions that FinishDeletions could not. Errors pass out: a server has one
    // begun deletion at a time, so that an outage costs no backup.
    void FinishBegunFirst();

    // Forgets all backups; users and storages stay.
    void ClearBackupInfo();

    // One pass: deletes the oldest removable backup of every user with more than `keep` records,
    // then lowers max_count by one. std::runtime_error when `keep` is negative: nothing is left to
    // delete.
    void DropOldest(int keep);

    // Deletes daily and then full backups beyond these counts, per user, oldest first, as far as
    // every remaining backup can still be restored.
    void DropByCount(int count_to_leave_full, int count_to_leave_daily);

    // Deletes backups, in passes of DropOldest, until the storage has `size` bytes that are neither
    // used nor reserved. std::runtime_error, before any deletion, when that cannot be reached.
    void MakeRoom(const StorageDesc& storage, std::int64_t size);

    // Deletes by the count limits and then, in passes of DropOldest, until no storage uses more
    // than the size limit. std::runtime_error, before any deletion, when that cannot be reached.
    void FitIntoLimits();

    // Removes slices that belong to no complete backup and to no job of this date (see
    // UnfinishedBackups::Reclaimable), oldest first, until a reservation of `size` bytes needs no
    // eviction or none is left. Failures are only logged.
    void ReclaimUnfinished(const StorageDesc& storage, std::int64_t size, bool is_remote);

    // Takes over from the ledger what unfinished backups use.
    void RefreshUnfinished();

    // The greatest used space of any storage, 0 without one.
    std::int64_t GreatestUsedSize() const noexcept;

    std::string path;
    std::int32_t full_limit = ServerLimits::kNoCount;
    std::int32_t daily_limit = 0;
    std::int64_t size_limit = ServerLimits::kNoSize;
    bool common_storage = false;
    std::int32_t max_count = 0;  // the eviction passes count down from here
    std::string date;
    // False while it is not known whether the storage holds the backups of this account, because it
    // could not be asked. Every deletion checks it first.
    bool is_storage_checked = true;
    UnfinishedBackups unfinished;  // backups that the scan leaves out
    std::map<std::string, StorageDesc> storages;
};
