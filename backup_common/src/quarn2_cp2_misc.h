// Functions that several roles share: opening the storage, the client side of the control socket,
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

// Reads a descriptor to its end. Throws std::runtime_error "Failed to read".
std::string Read(ResHandle handle);

// The control socket of a storage's node client, relative to the install root.
std::string ControlSocketPath(const std::string& storage);

// Sends one command to the node client of the storage that BACKUP_STORAGE names and returns its
// answer without the leading "OK". Throws std::runtime_error. If the node client refused the
// command, the error's text contains the reason from the log, or is empty when the log has none.
std::string SendCommand(const std::string& command);

// Ends an event loop when a descriptor becomes readable or is closed by its peer. It checks the
// descriptor under the lock, so it does not interfere with an exchange of another thread on that
// descriptor.
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

// A duplicate of standard input for an event loop. When the loop drops the worker, it closes the
// duplicate and not descriptor 0. Threads still use descriptor 0 as the master link, so no other
// file may get its number.
ResHandle StandardInput();

// --delete: deletes a backup by its info file.
void CommandDelete(kro_args::ResultPtr result);

// --clear: empties the storage of BACKUP_TOKEN, if that is set, and removes the local info roots.
void CommandClear();

// Throws std::runtime_error when a --clear of this info root was interrupted or is in progress.
void CheckNoBrokenClear(const std::string& info_root);

// Deletes exactly one backup: slices, companion files and info file on the storage, index copies
// and info file on this machine. With `skip_full`, skips a full backup. Throws at the first error;
// the call can be repeated.
void Delete(std::shared_ptr<quarn2::Storage> storage, const std::string& info_path, bool skip_full);

// Deletes one backup. For a full backup, first looks for backups of the same week that depend on
// it. Without `force`, throws std::runtime_error when there is one, and deletes nothing. With
// `force`, deletes them before the full backup.
void DeleteWithDepends(std::shared_ptr<quarn2::Storage> storage, const std::string& info_path,
                       bool force);

// The prefix that the names of an incomplete backup's files share: `name` without its type letter
// and without the part from ".info" or ".tgz" on.
std::string GetPrefix(const std::string& name);

// Delete the files whose names `takes` accepts, at the storage root or in a local directory. Each
// deletion is logged with the reason `why`.
using TakesName = std::function<bool(const std::string& name)>;
void DeleteOnStorageIf(quarn2::Storage& storage, const TakesName& takes, const char* why);
void DeleteLocallyIf(const std::string& directory, const TakesName& takes, const char* why);

// Deletes every file with the info file's prefix at the storage root and in the info file's
// directory. Logs an error and returns false; never throws.
bool DeleteByPrefix(std::shared_ptr<quarn2::Storage> storage, const std::string& info_path);

// Deletes a local encrypted index and its line in the directory's ".encrypted_indexes". Does
// nothing when the index is not listed there.
void DeleteEncryptedIndex(const std::string& path);

// Removes the incomplete backups that `dir`/.cleanup lists and keeps the lines of those that could
// not be removed.
void CleanUp(const std::string& dir);
