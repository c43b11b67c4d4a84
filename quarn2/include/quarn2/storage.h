// The interface of a storage for its callers. (Authors of a backend read
// quarn2_backend/storage_backend.h.)
//
// Names on a storage are relative paths with "/" between their components. No component may be
// empty, "." or "..", contain NUL or another control character, or have the form of a temporary
// name (kro_file::IsTemporaryName). A name that breaks these rules is refused with kFailed before
// the storage is accessed. Errors are kro_err::Error: kUnauthorized for refused credentials,
// kNotFound, kUnavailable for errors that a retry may solve, kFailed for all others. An object must
// be used by one thread at a time. Separate objects may work in parallel, also on the same storage.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace quarn2 {

class BackupToken;

// Receives the progress of transfers on the thread that uses the storage.
class TransferObserver {
  public:
    virtual ~TransferObserver() = default;
    // A transfer of `size` bytes begins (-1: size not known).
    virtual void Begin(std::int64_t size) = 0;
    // `bytes` more bytes were transferred.
    virtual void Advance(std::int64_t bytes) = 0;
};

class Storage {
  public:
    Storage() = default;
    virtual ~Storage() = default;
    Storage(const Storage&) = delete;
    Storage& operator=(const Storage&) = delete;

    // Downloads `remote` to the local file `local` and replaces it. The file appears under its name
    // only when it is complete and synced. If the download fails, an existing local file stays
    // unchanged, unless only the sync of its directory failed. Throws kNotFound when the storage
    // has no such file, and kUnauthorized when the file is encrypted and the token has no
    // arch_password or a different one.
    virtual void Download(const std::string& remote, const std::string& local) = 0;

    // Stores the local file as `remote` and replaces an existing file. Makes the directories of
    // `remote` where the storage has directories. Returns true when the stored file is complete
    // and, as far as the protocol allows, durable. Returns false when the storage is full. If it
    // returns false or throws, `remote` is unchanged and at most empty directories are left behind;
    // StorageBackend::Put lists the exceptions. Throws when the size or the modification time of
    // the local file changes during the upload. The caller may retry.
    virtual bool Upload(const std::string& remote, const std::string& local) = 0;

    // Removes everything on the storage, including leftovers of interrupted uploads. The root
    // directory stays.
    virtual void Clear() = 0;

    // Removes one file and the leftovers of interrupted uploads of that name. Succeeds when there
    // is none, and does nothing for an empty name. Throws for a directory. A directory that becomes
    // empty may stay. After a power failure the file may exist again, unless SyncRemovals was
    // called.
    virtual void RemoveFile(const std::string& remote) = 0;

    // Makes the removals of RemoveFile in this directory ("" is the root) durable. Does nothing
    // where the storage has no such operation.
    virtual void SyncRemovals(const std::string& /*directory*/) {}

    // Replaces `names` with the sorted names of all files and directories in a directory ("" is the
    // root), without leftovers of interrupted uploads. For a file, the only name is `directory`
    // itself. Throws kNotFound for a missing directory. An empty storage has an empty list.
    virtual void List(std::vector<std::string>& names, const std::string& directory) = 0;

    // Removes a directory and everything below it. Succeeds when there is none. Does not remove a
    // file of that name. Refuses the root.
    virtual void RemoveDir(const std::string& remote) = 0;

    // Makes the directory and its missing parents, where the storage has directories. Does nothing
    // for "", the root.
    void MkDir(const std::string& directory);

    // Reports subsequent transfers to `observer`; null stops the reports. The caller keeps
    // ownership, and `observer` must outlive the transfers.
    void SetObserver(TransferObserver* observer) noexcept { observer_ = observer; }

    // With `deferred`, Download does not sync the files. They still appear only when complete, but
    // may be empty after a power failure. This is for many small files that can be downloaded
    // again: the caller calls kro_file::SyncFileSystem and must not rely on the files before.
    void DeferSync(bool deferred) noexcept { sync_deferred_ = deferred; }

    // With `allowed`, and with a token without arch_password, Download writes encrypted files as
    // they are stored instead of refusing them.
    void AllowCiphertext(bool allowed) noexcept { ciphertext_allowed_ = allowed; }

    // Returns "NAME SIZE", or "NAME SIZE HASH" when the storage encrypts: the name under which a
    // local file is stored, the number of bytes that it will occupy, and the hash of the key. A
    // file at .../USER/DATE/NAME, where DATE is a date or "custom", is stored as USER/DATE/NAME.
    // Any other file is stored as NAME. Refuses a name that contains a space or that a storage does
    // not allow.
    std::string GetFileInfo(const std::string& local);

    // Returns the number of bytes that the local file will occupy on the storage. Does not read its
    // data.
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

// Opens the storage of the token. For an invalid token it throws kro_err::Error with
// BackupToken::fault(), which contains no secret.
std::shared_ptr<Storage> GetStorage(const BackupToken& token);

}  // namespace quarn2
