// What several roles share: the storage of the environment, the control socket's command side,
// deletion of backups, and two workers for event loops.
#pragma once

#include <memory>
#include <string>

#include "kro/kro_args.h"
#include "kro/kro_thread.h"
#include "kro/res_handle.h"
#include "quarn2/expect.h"
#include "quarn2/storage.h"
#include "quarn2_cp2_misc_storage.h"

// Reads a descriptor to its end. std::runtime_error "Failed to read".
std::string Read(ResHandle handle);

// The control socket of a storage's node client, relative to the install root.
std::string ControlSocketPath(const std::string& storage);

// Sends one command to the node client of the storage that BACKUP_STORAGE names and returns its
// answer without the leading "OK". Throws std::runtime_error. When the command was refused its text
// holds the reason that the node client has logged, or is empty when that was not found.
std::string SendCommand(const std::string& command);

// Ends an event loop once a descriptor has something to say (or was closed). The lock keeps it from
// looking while another thread is in the middle of an exchange on that descriptor.
class FinishOnClose {
  public:
    explicit FinishOnClose(kro_thread::SafeLock& lock) : lock_(lock) {}
    quarn2::Expect::Result* operator()(ResHandle handle);

  private:
    kro_thread::SafeLock& lock_;
};

// Ends an event loop when one of the signals of kro_proc::WatchTermination arrives.
class FinishOnSignal {
  public:
    quarn2::Expect::Result* operator()(ResHandle signals);
    bool arrived() const noexcept { return arrived_; }

  private:
    bool arrived_ = false;
};

// Standard input for an event loop: a copy of its own, so that dropping the worker does not free
// descriptor 0 for another file while threads still use it as the master link.
ResHandle StandardInput();

// --delete: deletes a backup by its info file.
void CommandDelete(kro_args::ResultPtr result);

// --clear: empties the storage and removes the local storage directories.
void CommandClear();

// std::runtime_error when a --clear of this info root was broken off, or is under way.
void CheckNoBrokenClear(const std::string& info_root);

// Deletes exactly one backup: slices, companions and info file on the storage, index copies and
// info file here. With `skip_full` a full backup is left alone. Errors end it where they happen; it
// can be run again.
void Delete(std::shared_ptr<quarn2::Storage> storage, const std::string& info_path, bool skip_full);

// Deletes one backup and, for a full one, looks for the backups of the same week that rest on it
// first: without `force` one of them is a std::runtime_error and nothing is deleted, with it they
// go first.
void DeleteWithDepends(std::shared_ptr<quarn2::Storage> storage, const std::string& info_path,
                       bool force);

// What the names of a broken or incomplete backup's files have in common.
std::string GetPrefix(const std::string& name);

// Delete the files whose names `takes` accepts, at the storage root and in a local directory; each
// is logged with the reason `why`.
using TakesName = std::function<bool(const std::string& name)>;
void DeleteOnStorageIf(quarn2::Storage& storage, const TakesName& takes, const char* why);
void DeleteLocallyIf(const std::string& directory, const TakesName& takes, const char* why);

// Deletes every file with the info file's prefix, at the storage root and beside the info file.
// Errors are logged, never thrown; false after one.
bool DeleteByPrefix(std::shared_ptr<quarn2::Storage> storage, const std::string& info_path);

// Deletes a local encrypted index that its directory's ".encrypted_indexes" lists, and its line
// there.
void DeleteEncryptedIndex(const std::string& path);

// Removes the incomplete backups that `dir`/.cleanup lists and keeps the lines of those that could
// not be removed.
void CleanUp(const std::string& dir);
