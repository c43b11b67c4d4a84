// A storage as its users see it. (Authors of a backend read quarn2_backend/storage_backend.h.)
//
// Names on a storage are relative paths with "/" between their components: no empty, "." or ".."
// component, no NUL or other control character, no component of the form of temporary names
// (kro_file::IsTemporaryName); any other name is refused with kind kFailed before the storage is
// asked. Failures are kro_err::Error: kUnauthorized for refused credentials, kNotFound,
// kUnavailable for trouble that may pass, kFailed for the rest. An object is used by one thread at
// a time; separate objects, on the same storage too, may work in parallel.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace quarn2 {

class BackupToken;

// Learns how transfers go on; called on the thread that uses the storage.
class TransferObserver {
  public:
    virtual ~TransferObserver() = default;
    // A transfer begins, of so many bytes (-1: not known).
    virtual void Begin(std::int64_t size) = 0;
    // So many more bytes are done.
    virtual void Advance(std::int64_t bytes) = 0;
};

class Storage {
  public:
    Storage() = default;
    virtual ~Storage() = default;
    Storage(const Storage&) = delete;
    Storage& operator=(const Storage&) = delete;

    // Fetches `remote` into the local file `local`, replacing it. The local name appears only when
    // the file is whole and synced; on failure an old one stays as it was. kNotFound when there is
    // no such file on the storage, kUnauthorized when the file is encrypted and the token has no
    // arch_password or another one.
    virtual void Download(const std::string& remote, const std::string& local) = 0;

    // Stores the local file under `remote`, replacing it. True: stored whole and durable. False:
    // the storage has no room for it. On false and on failure `remote` is what it was before and no
    // leftover stays but empty directories. A source that changes its length or its time of
    // modification meanwhile is a failure. Can be repeated. The directories of `remote` are made
    // where the storage has such a thing.
    virtual bool Upload(const std::string& remote, const std::string& local) = 0;

    // Removes everything on the storage, leftovers included; the root itself stays.
    virtual void Clear() = 0;

    // Removes one file and what interrupted uploads of it left. Succeeds when there is none; ""
    // names none. A directory is a failure. A directory left empty may stay. A power failure may
    // bring the file back until SyncRemovals.
    virtual void RemoveFile(const std::string& remote) = 0;

    // Makes durable what RemoveFile has removed in the directory, "" being the root, where the
    // storage can be asked for that.
    virtual void SyncRemovals(const std::string& /*directory*/) {}

    // Replaces `names` by the sorted entries of a directory, files and directories alike, "" being
    // the root; leftovers of uploads are not shown. Listing a file gives `directory` itself as the
    // one name. A missing directory is kNotFound, an empty storage an empty list.
    virtual void List(std::vector<std::string>& names, const std::string& directory) = 0;

    // Removes a directory with all below it. Succeeds when there is none; a file of that name
    // stays. Never the root.
    virtual void RemoveDir(const std::string& remote) = 0;

    // Makes the directory and those above it, where the storage has directories; "" is the root.
    void MkDir(const std::string& directory);

    // Reports transfers from now on to `observer`, which stays the caller's and must outlive them;
    // null ends that.
    void SetObserver(TransferObserver* observer) noexcept { observer_ = observer; }

    // With `deferred`, downloads appear whole as ever but are not yet synced: a power failure may
    // leave them empty. For many small files that can be fetched again; the caller makes them
    // durable with kro_file::SyncFileSystem and lets nobody trust them before.
    void DeferSync(bool deferred) noexcept { sync_deferred_ = deferred; }

    // With `allowed`, and with a token without arch_password, Download hands out encrypted files as
    // they are stored instead of refusing them.
    void AllowCiphertext(bool allowed) noexcept { ciphertext_allowed_ = allowed; }

    // "NAME SIZE", and " HASH" when the storage encrypts: the name under which a local file is
    // stored, the bytes that it will occupy, the key's hash. A file in a directory named like a
    // date, or "custom", is stored as USER/DATE/NAME, any other as NAME. A name that has a blank or
    // a control character is refused.
    std::string GetFileInfo(const std::string& local);

    // The bytes that the local file will occupy on the storage; the data is not read.
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

// Opens the storage that the token names. A token that cannot be used is a kro_err::Error that says
// what is wrong with it without printing a secret.
std::shared_ptr<Storage> GetStorage(const BackupToken& token);

}  // namespace quarn2
