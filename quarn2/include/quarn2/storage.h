// The interface through which the program uses a storage. (The interface for authors of a backend
// is quarn2_backend/storage_backend.h.)
//
// Names on a storage are relative paths with "/" between their components. No component may be
// empty, "." or "..", contain NUL or another control character, or have the form of a temporary
// name (kro_file::IsTemporaryName). For a name that violates these rules, every function throws
// kFailed before it accesses the storage. Errors are kro_err::Error: kUnauthorized for refused
// credentials, kNotFound for a missing file or directory, kUnavailable for temporary errors, which
// justify a retry, and kFailed for all others. Only one thread at a time may use a Storage object.
// Separate objects may work in parallel, also on the same storage.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kro/kro_err.h"
#include "quarn2/listed_entry.h"

namespace quarn2 {

class BackupToken;

// Receives the progress of uploads and downloads. The storage calls the observer on the thread that
// called Upload or Download.
class TransferObserver {
  public:
    virtual ~TransferObserver() = default;
    // The storage calls this when a transfer of `size` bytes begins (-1: unknown size).
    virtual void Begin(std::int64_t size) = 0;
    // The storage calls this when it has transferred another `bytes` bytes.
    virtual void Advance(std::int64_t bytes) = 0;
};

// The result for one name of an operation on many names: the error, or nullopt after success.
using FileError = std::optional<kro_err::Error>;

// A file to download: its name on the storage and its local path.
struct FileDownload {
    std::string remote;
    std::string local;
};

class Storage {
  public:
    Storage() = default;
    virtual ~Storage() = default;
    Storage(const Storage&) = delete;
    Storage& operator=(const Storage&) = delete;

    // Downloads `remote` to the local file `local` and replaces an existing file. The local file
    // appears under its name only when it is complete and synced. If the download fails, an
    // existing local file stays unchanged. There is one exception: if only the sync of the
    // directory fails, the new file has already replaced it. Throws kNotFound when the storage has
    // no such file, and kUnauthorized when the file is encrypted and the token's arch_password is
    // missing or wrong.
    virtual void Download(const std::string& remote, const std::string& local) = 0;

    // Stores the local file as `remote` and replaces an existing file. Creates the directories of
    // `remote` when the storage has directories. Returns true when the stored file is complete and,
    // as far as the protocol allows, durable. Returns false when the storage is full. If Upload
    // returns false or throws, `remote` is unchanged and at most empty directories remain;
    // StorageBackend::Put lists the exceptions. Throws when the size or the modification time of
    // the local file changes during the upload. After an error, another call repeats the complete
    // upload.
    virtual bool Upload(const std::string& remote, const std::string& local) = 0;

    // Removes everything on the storage, including temporary files of interrupted uploads. Does not
    // remove the root directory.
    virtual void Clear() = 0;

    // Removes one file and the temporary files of interrupted uploads of that name. Succeeds when
    // the file does not exist, and does nothing for an empty name. Throws kFailed when `remote` is
    // a directory. A directory that becomes empty may remain. The file can reappear after a power
    // failure until SyncRemovals has been called.
    virtual void RemoveFile(const std::string& remote) = 0;

    // Syncs a directory ("" is the root) after RemoveFile has removed files in it, so that the
    // files do not reappear after a power failure. Does nothing when the storage has no such
    // operation.
    virtual void SyncRemovals(const std::string& /*directory*/) {}

    // Replaces `names` with the sorted names of all files and directories in `directory` ("" is the
    // root). Omits the temporary files of interrupted uploads. If `directory` is a file, the only
    // name is `directory` itself. Throws kNotFound for a missing directory. For an empty storage,
    // `names` becomes empty.
    virtual void List(std::vector<std::string>& names, const std::string& directory) = 0;

    // Returns the same names as List, sorted by name, with the stored size of each plain file when
    // the storage's listing contains it. Slower than List on a local storage.
    virtual std::vector<ListedEntry> ListSizes(const std::string& directory) = 0;

    // Returns the complete names and the sizes of all files on the storage, sorted by name. Returns
    // nothing when the storage can only list directory by directory, or when it has too many files
    // for one listing.
    virtual std::optional<std::vector<ListedEntry>> ListAllFiles() = 0;

    // Removes a directory and everything below it. Succeeds when the directory does not exist. Does
    // not remove a file of that name. Throws kFailed for "", the root.
    virtual void RemoveDir(const std::string& remote) = 0;

    // --- Operations on many names ---
    //
    // Each of these functions performs the operation above for each name of a list, with the same
    // guarantees for each name. An error of one name does not stop the others. The order of the
    // operations is not defined. At most N requests run at the same time, where N is the token's
    // parameter "parallel"; a short list uses fewer. The function returns when all operations and
    // all threads have ended. The memory does not grow with the length of the list.
    //
    // The storage requests the list with `next`, which returns nothing when there is no further
    // name at the moment. The storage calls `next` again after it has reported more results with
    // `done`, so `done` can extend the list. The list ends when `next` returns nothing and no
    // operation is running. The storage calls `done` once for each name, in any order, with its
    // result. It calls `next`, `done` and the observer on the thread of the caller; none of them
    // may call functions of this object. If one of them throws, the storage cancels the running
    // operations. The function rethrows the exception when these operations have ended.
    //
    // If R + 2 operations in a row fail with kUnavailable, where R is the number of operations that
    // run at the same time, the storage attempts no other name: `done` receives a kUnavailable
    // error for each remaining name. If the storage can remove several files with one request,
    // RemoveMany processes the names in batches, one batch after the other. A batch then counts as
    // one operation, and it counts as failed only if all of its names fail with kUnavailable.
    //
    // The other settings of the storage apply as usual. `limit_rate` limits all downloads of a call
    // together. An exception other than kro_err::Error ends the call.

    using NextDownload = std::function<std::optional<FileDownload>()>;
    using DownloadDone = std::function<void(const FileDownload&, const FileError&)>;
    virtual void DownloadMany(const NextDownload& next, const DownloadDone& done) = 0;

    using NextName = std::function<std::optional<std::string>()>;
    using RemovalDone = std::function<void(const std::string& remote, const FileError&)>;
    virtual void RemoveMany(const NextName& next, const RemovalDone& done) = 0;

    // `names` is empty after an error.
    using ListingDone = std::function<void(const std::string& directory,
                                           std::vector<std::string>& names, const FileError&)>;
    virtual void ListMany(const NextName& next, const ListingDone& done) = 0;

    // The variants for lists. They return one result for each element, in the order of the list.
    std::vector<FileError> DownloadMany(const std::vector<FileDownload>& files);
    std::vector<FileError> RemoveMany(const std::vector<std::string>& names);

    // Creates the directory and its missing parents when the storage has directories. Does nothing
    // for "", the root.
    void MkDir(const std::string& directory);

    // Reports subsequent transfers to `observer`; null stops the reports. The storage does not own
    // `observer`, which must outlive the transfers.
    void SetObserver(TransferObserver* observer) noexcept { observer_ = observer; }

    // With `deferred`, Download does not sync the downloaded files. A file still appears only when
    // it is complete, but can be empty after a power failure. This saves time for many small files
    // that can be downloaded again. Code that sets `deferred` must call kro_file::SyncFileSystem
    // before it relies on the files.
    void DeferSync(bool deferred) noexcept { sync_deferred_ = deferred; }

    // Determines how Download handles an encrypted file if the token has no arch_password. With
    // `allowed`, Download writes the file without decryption. By default, Download throws
    // kUnauthorized.
    void AllowCiphertext(bool allowed) noexcept { ciphertext_allowed_ = allowed; }

    // Returns "NAME SIZE", or "NAME SIZE HASH" when the storage encrypts: the name under which a
    // local file is stored, the number of bytes that it will occupy, and the hash of the key. A
    // file at .../USER/DATE/NAME, where DATE is a date or "custom", is stored as USER/DATE/NAME.
    // Any other file is stored as NAME. Throws kFailed for a name that contains a space or that
    // storages do not allow.
    std::string GetFileInfo(const std::string& local);

    // Returns the number of bytes that the local file will occupy on the storage. Does not read the
    // data of the file.
    std::int64_t Size(const std::string& local);

  protected:
    TransferObserver* observer() const noexcept { return observer_; }
    bool sync_deferred() const noexcept { return sync_deferred_; }
    bool ciphertext_allowed() const noexcept { return ciphertext_allowed_; }

  private:
    virtual void DoMkDir(const std::string& directory) = 0;
    virtual std::string KeyHash() = 0;
    virtual std::int64_t StoredSize(const std::string& local, std::int64_t size) = 0;

    TransferObserver* observer_ = nullptr;
    bool sync_deferred_ = false;
    bool ciphertext_allowed_ = false;
};

// Opens the storage of the token. For an invalid token, throws kro_err::Error with the text of
// BackupToken::fault(), which contains no secret.
std::shared_ptr<Storage> GetStorage(const BackupToken& token);

}  // namespace quarn2
