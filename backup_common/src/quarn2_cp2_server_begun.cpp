// Finishes the work of earlier processes: interrupted deletions, and slices of backups that will
// not be completed.

#include <algorithm>
#include <exception>
#include <string>

#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "quarn2_cp2_misc_delete.h"
#include "quarn2_cp2_misc_removal.h"
#include "quarn2_cp2_server_model.h"

namespace {

constexpr kro_log::Module kLog("main");

const DeletionCause kResumed{.reason = RemovalReason::kResumed};

using StorageDesc = GlobalSizeControl::StorageDesc;

// Finishes an interrupted deletion. Returns true when this process or another one has finished the
// deletion.
bool Finish(GlobalSizeControl& control, const StorageDesc& desc, const std::string& info_path) {
    KRO_LOG(kLog, 5, "Finish the deletion of '%s'", info_path.c_str());
    try {
        control.CheckStorage();
        Delete(desc.storage, info_path, false, kResumed);
        return true;
    } catch (const std::exception& error) {
        if (!kro_file::Exists(info_path)) return true;
        KRO_LOG(kLog, 4, "Cant finish the deletion of '%s'. What: %s", info_path.c_str(),
                error.what());
        return false;
    }
}

bool CancelDeletionOf(GlobalSizeControl& control, const StorageDesc& desc,
                      const std::string& info_path) {
    try {
        control.CheckStorage();
        return CancelDeletion(*desc.storage, info_path);
    } catch (const std::exception& error) {
        KRO_LOG(kLog, 6, "%s", error.what());
        return false;
    }
}

bool CancelDeletions(GlobalSizeControl& control) {
    bool any = false;
    for (auto& [key, desc] : control.storages) {
        for (const auto& [info_path, size] : desc.half_deleted) {
            any = CancelDeletionOf(control, desc, info_path) || any;
        }
    }
    return any;
}

bool IsOfStorage(const std::exception& error) {
    const auto* const known = dynamic_cast<const kro_err::Error*>(&error);
    return known != nullptr && known->kind() != kro_err::Kind::kFailed;
}

}  // namespace

void GlobalSizeControl::FinishDeletions() {
    if (CancelDeletions(*this)) Scan(date);
    for (auto& [key, desc] : storages) {
        std::erase_if(desc.half_deleted, [&, &storage = desc](const auto& begun) {
            if (Finish(*this, storage, begun.first)) return true;
            storage.CountPermanently(std::max<std::int64_t>(begun.second, 0));
            return false;
        });
    }
}

// Throws an error of the storage, because the next eviction would fail with the same error. Any
// other error concerns one info file only and must not prevent evictions.
void GlobalSizeControl::FinishBegunFirst() {
    for (auto& [key, desc] : storages) {
        std::erase_if(desc.half_deleted, [&storage = desc](const auto& begun) {
            KRO_LOG(kLog, 5, "Finish the deletion of '%s'", begun.first.c_str());
            try {
                if (kro_file::Exists(begun.first)) {
                    Delete(storage.storage, begun.first, false, kResumed);
                }
            } catch (const std::exception& error) {
                if (IsOfStorage(error)) throw;
                KRO_LOG(kLog, 4, "Cant finish the deletion of '%s'. What: %s", begun.first.c_str(),
                        error.what());
                return false;
            }
            storage.CountPermanently(-std::max<std::int64_t>(begun.second, 0));
            return true;
        });
    }
}

void GlobalSizeControl::ReclaimUnfinished(const StorageDesc& storage, std::int64_t size,
                                          bool is_remote) {
    const auto has_room = [&] {
        return storage.NeededFor(size, is_remote) <= LessSize(storage.free_size, storage.reserved);
    };
    try {
        if (storage.unfinished == 0 || has_room()) return;
        CheckStorage();
        for (const LedgerEntry& entry : unfinished.Reclaimable(date)) {
            unfinished.Remove(entry, *storage.storage);
            RefreshUnfinished();
            if (has_room()) return;
        }
    } catch (const std::exception& error) {
        KRO_LOG(kLog, 4, "Cant remove slices of backups that are not complete. What: %s",
                error.what());
    }
}
