// The removal of one backup. The info file (or the ledger) records the removal before the first
// file is removed. After a crash, a partly removed backup does not count as complete, and the
// removal can be finished later.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "kro/kro_err.h"
#include "quarn2/info.h"
#include "quarn2/info_reader.h"
#include "quarn2/storage.h"

// True for the errors after which a storage has certainly removed nothing: the file or the storage
// is missing, or the storage refuses access.
bool HasRemovedNothing(const kro_err::Error& error) noexcept;

// Removes the files of one backup from its storage.
class Removal {
  public:
    // Records in the info file that the backup is being deleted: adds "deletion" with the time and
    // renames "finished" to "deletion-finished". When the disk is full, records in an empty ledger
    // entry that the backup is not complete. The info file is then changed after the first removal,
    // because that removal may have freed space.
    Removal(std::shared_ptr<quarn2::Storage> storage, const std::string& info_path,
            quarn2::InfoMap info);

    // True when the constructor has recorded the removal. False when an earlier removal of the
    // backup was interrupted, or when there is no info file.
    bool has_begun() const noexcept { return !old_text_.empty() || has_entry_; }

    void RemoveFile(const std::string& name);
    // Removes several files in any order, some of them at the same time. Attempts every file, and
    // then throws the first error. If nothing has been removed before, removes the first file alone
    // and throws immediately when that fails.
    void RemoveFiles(const std::vector<std::string>& names);
    void RemoveDir(const std::string& name);

    // Cancels the removal after an error: restores the info file and removes the ledger entry that
    // this object has created. Does nothing when a file of the backup may already have been
    // removed. Logs failures.
    void Cancel() const noexcept;

    // Removes the ledger entry that this object has created. Call it when no file of the backup is
    // left.
    void Finish() const;

    const std::shared_ptr<quarn2::Storage>& storage() const noexcept { return storage_; }

  private:
    void Mark();
    void RecordRemoved();
    void RecordFailure(const kro_err::Error& error) noexcept;

    std::shared_ptr<quarn2::Storage> storage_;
    std::string info_path_;
    quarn2::InfoMap info_;
    bool marked_;
    std::string old_text_;  // empty when the info file was not rewritten
    bool touched_ = false;
    bool has_entry_ = false;  // this object has created a ledger entry
};

// Removes files from a storage in any order, some of them at the same time. Attempts every file,
// and then throws the first error in the order of the names.
void RemoveStoredFiles(quarn2::Storage& storage, const std::vector<std::string>& names);

// Removes a directory with its content. Removes the file `last` in the directory after all other
// entries.
void RemoveDirectory(const std::string& directory, const std::string& last);

// True for an info file that records an unfinished removal of its backup.
bool IsBeingDeleted(const quarn2::InfoReader& info);

// True when the storage has the complete backup: the info file has "finished", and the storage has
// the info file and every slice that the info file names. Throws the storage's kro_err::Error when
// the storage does not answer.
bool IsCompleteOnStorage(quarn2::Storage& storage, const std::string& info_path,
                         const quarn2::InfoMap& info);

// Cancels a deletion that was interrupted before it removed anything: if the storage still has
// every file of the backup, restores "finished" in the info file and returns true. Throws the
// storage's kro_err::Error when the storage does not answer.
bool CancelDeletion(quarn2::Storage& storage, const std::string& info_path);

// Finishes the removals that the info files in `directory` record. Skips info files that cannot be
// read. Stops at the first removal that fails and throws its error.
void FinishDeletions(const std::shared_ptr<quarn2::Storage>& storage, const std::string& directory);
