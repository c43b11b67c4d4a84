// The interface that the author of a storage backend implements.
//
// A backend only transfers bytes. The library handles local files, temporary local names,
// encryption, retries, rate limits and logging around it. Names are already checked: relative,
// normalised, no empty, "." or ".." component, no control character. A backend throws
// kro_err::Error; its kind determines the reaction of the caller (see kro_err.h). An object is used
// by one thread at a time. Several objects, also in other processes, may work on the same storage
// at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "quarn2/token.h"

namespace quarn2 {

// The bytes of one upload, readable at any offset and more than once. Outlives the call that it is
// passed to.
class ByteSource {
  public:
    virtual ~ByteSource() = default;

    // The number of bytes. It does not change during the upload.
    virtual std::int64_t size() const = 0;

    // Fills `buffer` with the bytes at `offset`, completely or up to the end of the source, and
    // returns their number. Throws kFailed when the source has become shorter than size().
    virtual std::size_t ReadAt(std::int64_t offset, std::span<std::byte> buffer) = 0;

    // Returns a descriptor of a plain file that contains exactly these bytes from offset 0, for
    // backends that can copy inside the kernel; -1 when there is none. The source keeps ownership.
    virtual int Descriptor() const { return -1; }

    // A backend that reads through Descriptor() reports here the number of bytes since its last
    // report.
    virtual void Advance(std::int64_t /*bytes*/) {}

    // The backend calls this after it has read everything and before it makes the result visible.
    // Throws kFailed when the source has changed since the start; for a local file, when its size
    // or modification time is different.
    virtual void CheckUnchanged() = 0;
};

// Receives the bytes of one download in order.
class ByteSink {
  public:
    virtual ~ByteSink() = default;

    // A backend that knows the total number of bytes may call this once, before the first byte.
    virtual void Expect(std::int64_t /*size*/) {}

    // Writes the next bytes, all of them.
    virtual void Write(std::span<const std::byte> bytes) = 0;

    // Returns a descriptor of an empty plain file that stores the bytes unchanged, for backends
    // that can copy inside the kernel; -1 when there is none. A backend that writes to the
    // descriptor must not call Write.
    virtual int Descriptor() const { return -1; }

    // A backend that writes through Descriptor() reports here the number of bytes since its last
    // report.
    virtual void Advance(std::int64_t /*bytes*/) {}
};

class StorageBackend {
  public:
    StorageBackend() = default;
    virtual ~StorageBackend() = default;
    StorageBackend(const StorageBackend&) = delete;
    StorageBackend& operator=(const StorageBackend&) = delete;

    // Stores the source as `name` and replaces an existing file atomically: readers see the
    // complete old or the complete new file. Makes missing directories above `name`, but never the
    // root. Returns true when the file is complete, and verified and durable as far as the protocol
    // allows. Returns false when the storage or a quota is full. If it returns false or throws, the
    // old file stays and no temporary file is left, with two exceptions. If the connection is lost,
    // a leftover may stay until the next Put or Remove of that name. If only the last step fails,
    // such as the sync of the directory or the reply to a rename, the new file may be visible.
    virtual bool Put(const std::string& name, ByteSource& source) = 0;

    // Writes all stored bytes to the sink, or throws. Throws kNotFound when there is no such file,
    // and kUnavailable when the transfer ends before the end of the file.
    virtual void Get(const std::string& name, ByteSink& sink) = 0;

    // Removes the file and the leftovers of interrupted Puts of that name. Succeeds when there is
    // none. Throws kFailed for a directory.
    virtual void Remove(const std::string& name) = 0;

    // Removes a directory and everything below it. Succeeds when there is none.
    virtual void RemoveDir(const std::string& name) = 0;

    // Makes the removals of Remove directly in this directory ("" is the root) durable, so that
    // they survive a power failure. Does nothing where the storage has no such operation.
    virtual void SyncRemovals(const std::string& /*name*/) {}

    // Makes the directory and its missing parents. Succeeds when it exists, and does nothing where
    // the storage has no directories. Never makes the root: throws kNotFound when the root is
    // missing.
    virtual void MakeDir(const std::string& name) = 0;

    // Returns the names of the files and directories directly in a directory ("" is the root), in
    // any order, each once, without temporary names. For a file, returns `name` alone. Throws
    // kNotFound when neither exists (also when the root is missing). An empty root has no names.
    virtual std::vector<std::string> List(const std::string& name) = 0;

    // Removes everything below the root, including leftovers of interrupted Puts. The root stays.
    virtual void Clear() = 0;
};

// One entry of the registry: all properties of a scheme.
struct BackendScheme {
    std::string scheme;
    // The parameters that it accepts in addition to those of every scheme.
    std::set<std::string> params;
    // The parameters whose values are secrets.
    std::set<std::string> secrets;
    // Returns the error in a token of this scheme (no path, no host, ...), or "" for a valid one.
    // The text must not contain a secret.
    std::function<std::string(const BackupToken&)> fault;
    // Opens the storage. The backend may connect later, at the first operation.
    std::function<std::unique_ptr<StorageBackend>(const BackupToken&)> open;
    // True when the backend keeps its connections open. After its storage object is destroyed, a
    // later storage object of the same token reuses the backend, possibly on another thread.
    bool keeps_connections = false;
};

// Returns the scheme's entry, or null for an unknown scheme. The built-in schemes are listed in
// registry.cpp.
const BackendScheme* FindScheme(const std::string& scheme);

// Adds a scheme to the built-in ones, for storages outside the program, such as those of tests.
// Must not be called while other threads open storages.
void RegisterScheme(BackendScheme scheme);

}  // namespace quarn2
