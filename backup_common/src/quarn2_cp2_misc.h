// Functions that several commands share: opening the storage, the client side of the control
// socket, deletion of backups, and two workers for event loops.
#pragma once

#include <memory>
#include <string>

#include "kro/kro_args.h"
#include "kro/kro_thread.h"
#include "kro/res_handle.h"
#include "quarn2/expect.h"
#include "quarn2/storage.h"
#include "quarn2_cp2_misc_storage.h"

// Reads from a descriptor until the end of its data. Throws std::runtime_error "Failed to read"
// when a read fails.
std::string Read(ResHandle handle);

// The control socket of a storage's node client, relative to the install root.
std::string ControlSocketPath(const std::string& storage);

// Sends one command to the node client of the storage that BACKUP_STORAGE names and returns its
// answer without the leading "OK". Throws std::runtime_error when the command cannot be sent or is
// refused. The text of the error for a refused command contains the node client's reason from the
// log, or is empty when the log has none.
std::string SendCommand(const std::string& command);

// Ends an event loop when a descriptor becomes readable or is closed by its peer. Checks the
// descriptor while it holds `lock`. Threads that send commands and read answers over the same
// descriptor hold this lock as well, so their answers do not end the loop.
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

// A duplicate of standard input for an event loop. When the loop removes its worker, it closes the
// duplicate and not descriptor 0. Upload threads still read the server's answers from descriptor 0,
// so no other file may get that number.
ResHandle StandardInput();

// --delete: deletes a backup by its info file.
void CommandDelete(kro_args::ResultPtr result);

// --clear: empties the storage of BACKUP_TOKEN, if that is set, and removes the local info roots.
void CommandClear();

// Throws std::runtime_error when a --clear of this info root was interrupted or is in progress.
void CheckNoBrokenClear(const std::string& info_root);

// Deletes exactly one backup: slices, companion files and info file on the storage, index copies
// and info file on this machine. With `skip_full`, does nothing for a full backup. Throws at the
// first error. The call can then be repeated to delete the remaining files.
void Delete(std::shared_ptr<quarn2::Storage> storage, const std::string& info_path, bool skip_full);

// Deletes one backup. For a full backup, first looks for backups of the same week that depend on
// it. Without `force`, throws std::runtime_error when there is such a backup, and deletes nothing.
// With `force`, deletes these backups before the full backup.
void DeleteWithDepends(std::shared_ptr<quarn2::Storage> storage, const std::string& info_path,
                       bool force);

// The prefix that the names of an incomplete backup's files share: `name` without its type letter
// and without the part from ".info" or ".tgz" on.
std::string GetPrefix(const std::string& name);

// Delete the files for whose names `takes` returns true, at the storage root or in a local
// directory. Each deletion is logged with the reason `why`.
using TakesName = std::function<bool(const std::string& name)>;
void DeleteOnStorageIf(quarn2::Storage& storage, const TakesName& takes, const char* why);
void DeleteLocallyIf(const std::string& directory, const TakesName& takes, const char* why);

// Deletes every file with the info file's prefix at the storage root and in the info file's
// directory. When that fails, logs the error and returns false. Never throws.
bool DeleteByPrefix(std::shared_ptr<quarn2::Storage> storage, const std::string& info_path);

// Removes the incomplete backups that `dir`/.cleanup lists and keeps the lines of backups that
// could not be removed.
void CleanUp(const std::string& dir);
