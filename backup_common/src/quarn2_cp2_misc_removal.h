// The removal of one backup, which a crash can break off: the backup's info file tells of it before
// anything is gone, so that nobody takes what is left for a whole backup, and it can be finished.
#pragma once

#include <memory>
#include <string>

#include "quarn2/info.h"
#include "quarn2/info_reader.h"
#include "quarn2/storage.h"

// A storage from which files are removed.
class Removal {
  public:
    // Rewrites the info file: "deletion", the time, instead of "finished", whose value is kept as
    // "deletion-finished". Where there is no room for that, an empty entry of the ledger says that
    // the backup is not complete, and it is done once the first file has gone: a removal is what
    // makes room.
    Removal(std::shared_ptr<quarn2::Storage> storage, const std::string& info_path,
            quarn2::InfoMap info);

    void RemoveFile(const std::string& name);
    void RemoveDir(const std::string& name);

    // Takes the marks of this removal back if nothing has been removed yet.
    void GiveUp() const noexcept;

    // Nothing is left of the backup.
    void Finish() const;

    const std::shared_ptr<quarn2::Storage>& storage() const noexcept { return storage_; }

  private:
    void Mark();

    std::shared_ptr<quarn2::Storage> storage_;
    std::string info_path_;
    quarn2::InfoMap info_;
    bool marked_;
    std::string old_text_;  // empty when the file was not rewritten
    bool touched_ = false;
    bool has_entry_ = false;  // this removal has made one in the ledger
};

// Removes a directory with all below it; the file `last` in it goes after everything else.
void RemoveDirectory(const std::string& directory, const std::string& last);

// True for an info file whose backup is half removed, or may be.
bool IsBeingDeleted(const quarn2::InfoReader& info);

// True when the info file says that the backup is finished, and the storage has every slice that it
// names, and the info file. Throws the storage's kro_err::Error.
bool IsOnStorageAsAWhole(quarn2::Storage& storage, const std::string& info_path,
                         const quarn2::InfoMap& info);

// Makes the backup a finished one again when the storage still has every slice and the info file:
// the deletion was interrupted before it removed anything. Returns whether that was so. Throws the
// storage's kro_err::Error.
bool TakeBackDeletion(quarn2::Storage& storage, const std::string& info_path);

// Finishes the removals that the info files in `directory` tell of. Errors pass out.
void FinishDeletions(const std::shared_ptr<quarn2::Storage>& storage, const std::string& directory);
