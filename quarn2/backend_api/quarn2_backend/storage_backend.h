// The interface that the author of a storage backend implements.
//
// A backend only transfers bytes. The library handles local files, temporary local names,
// encryption, retries, rate limits and logging around it. The library passes only checked names:
// relative, normalised, no empty, "." or ".." component, no control character. A backend throws
// kro_err::Error; the kind of the error determines how the program reacts (see kro_err.h). Only one
// thread at a time uses a backend object. Several objects, also in different processes, may work on
// the same storage at the same time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "kro/kro_err.h"
#include "quarn2/listed_entry.h"
#include "quarn2/token.h"
#include "token/scheme.h"

namespace quarn2 {

// The bytes of one upload. A backend may read them at any offset and repeatedly. The source
// outlives the call of Put that receives it.
class ByteSource {
  public:
    virtual ~ByteSource() = default;

    // Returns the number of bytes of the source. The number is constant during the upload.
    virtual std::int64_t size() const = 0;

    // Reads the bytes of the source at `offset` into `buffer` and returns their number. The number
    // is smaller than the buffer only at the end of the source. Throws kFailed when the source has
    // become shorter than size().
    virtual std::size_t ReadAt(std::int64_t offset, std::span<std::byte> buffer) = 0;

    // Returns a descriptor of a plain file that contains exactly the bytes of the source from
    // offset 0, or -1 when no such file exists. Backends use the descriptor to copy inside the
    // kernel. The source keeps ownership of the descriptor.
    virtual int Descriptor() const { return -1; }

    // A backend that reads through Descriptor() calls this with the number of bytes read since its
    // previous call, so that the library can report the progress.
    virtual void Advance(std::int64_t /*bytes*/) {}

    // The backend calls this after it has read the complete source and before it makes the stored
    // file visible. Throws kFailed when the source has changed since the start of the upload. A
    // local file counts as changed when its size or modification time is different.
    virtual void CheckUnchanged() = 0;
};

// The destination of one download. Receives the bytes of the file in order.
class ByteSink {
  public:
    virtual ~ByteSink() = default;

    // A backend that knows the size of the file may call this once, before it writes the first
    // byte.
    virtual void Expect(std::int64_t /*size*/) {}

    // Writes all of `bytes` after the bytes of the previous call.
    virtual void Write(std::span<const std::byte> bytes) = 0;

    // Returns a descriptor of an empty plain file that stores the downloaded bytes unchanged, or -1
    // when no such file exists. Backends use the descriptor to copy inside the kernel. A backend
    // that writes to the descriptor must not call Write.
    virtual int Descriptor() const { return -1; }

    // A backend that writes through Descriptor() calls this with the number of bytes written since
    // its previous call, so that the library can report the progress.
    virtual void Advance(std::int64_t /*bytes*/) {}
};

class StorageBackend {
  public:
    StorageBackend() = default;
    virtual ~StorageBackend() = default;
    StorageBackend(const StorageBackend&) = delete;
    StorageBackend& operator=(const StorageBackend&) = delete;

    // Stores the source as `name` and replaces an existing file atomically: readers see the
    // complete old or the complete new file. Creates missing parent directories of `name`, but
    // never the storage's root. Returns true when the stored file is complete, and verified and
    // durable as far as the protocol allows. Returns false when the storage or a quota is full. If
    // Put returns false or throws, the old file is unchanged and no temporary file remains, with
    // two exceptions. If the connection is lost, a temporary file can remain until the next Put or
    // Remove of that name. If only the last step fails, such as the sync of the directory or the
    // reply to a rename, the new file can be visible.
    virtual bool Put(const std::string& name, ByteSource& source) = 0;

    // Writes all stored bytes to the sink, or throws. Throws kNotFound when the file does not
    // exist, and kUnavailable when the transfer ends before the end of the file.
    virtual void Get(const std::string& name, ByteSink& sink) = 0;

    // Removes the file and the temporary files of interrupted Puts of that name. Succeeds when the
    // file does not exist. Throws kFailed when `name` is a directory.
    virtual void Remove(const std::string& name) = 0;

    // The results of an operation on several names, in the order of the names: an error, or nullopt
    // after success.
    using Errors = std::vector<std::optional<kro_err::Error>>;

    // Removes the files with these names, each with the guarantees of Remove. The default calls
    // Remove for each name. A backend overrides this function and RemovalBatch when its protocol
    // removes several files with one request.
    virtual Errors RemoveMany(std::span<const std::string> names);

    // Returns the maximum number of names for one call of RemoveMany. The library calls Remove for
    // each name, with several backends in parallel, when the number is 1.
    virtual std::size_t RemovalBatch() const { return 1; }

    // Removes a directory and everything below it. Succeeds when the directory does not exist.
    virtual void RemoveDir(const std::string& name) = 0;

    // Syncs a directory ("" is the root) after Remove has removed files in it, so that the files do
    // not reappear after a power failure. Does nothing when the storage has no such operation.
    virtual void SyncRemovals(const std::string& /*name*/) {}

    // Creates the directory and its missing parents. Succeeds when the directory exists, and does
    // nothing when the storage has no directories. Never creates the storage's root: throws
    // kNotFound when the root is missing.
    virtual void MakeDir(const std::string& name) = 0;

    // Returns the names of the files and directories directly in a directory ("" is the root), in
    // any order, each once, without temporary names. For a file, returns `name` alone. Throws
    // kNotFound when there is neither a directory nor a file of this name, and when the root is
    // missing. Returns an empty list for an empty root.
    virtual std::vector<std::string> List(const std::string& name) = 0;

    // Returns the same names as List, with the stored size of each plain file, and no size for
    // directories. The default returns no sizes. A backend overrides this function when the
    // protocol's listing contains the sizes, or when a size costs no request. The size of an
    // encrypted file is that of the stored bytes. When `name` is a file, its size may be missing.
    virtual std::vector<ListedEntry> ListSizes(const std::string& name);

    // Returns the complete names and the sizes of all files at any depth, in any order. Omits the
    // names that List omits. Returns nothing when the protocol lists each directory with a request
    // of its own, or when there are too many files for one listing. The library then lists each
    // directory.
    virtual std::optional<std::vector<ListedEntry>> ListAllFiles() { return std::nullopt; }

    // Removes everything below the storage's root, including the temporary files of interrupted
    // Puts. Does not remove the root.
    virtual void Clear() = 0;
};

inline StorageBackend::Errors StorageBackend::RemoveMany(std::span<const std::string> names) {
    Errors errors(names.size());
    for (std::size_t i = 0; i < names.size(); ++i) {
        try {
            Remove(names[i]);
        } catch (const kro_err::Error& error) {
            errors[i] = error;
        }
    }
    return errors;
}

inline std::vector<ListedEntry> StorageBackend::ListSizes(const std::string& name) {
    std::vector<ListedEntry> entries;
    for (std::string& entry : List(name)) entries.push_back({std::move(entry), std::nullopt});
    return entries;
}

// Returns the names of the entries. Backends whose listings always contain sizes implement List
// with this function.
inline std::vector<std::string> NamesOf(std::vector<ListedEntry> entries) {
    std::vector<std::string> names;
    names.reserve(entries.size());
    for (ListedEntry& entry : entries) names.push_back(std::move(entry.name));
    return names;
}

// A URL scheme of storage tokens and the function that opens its storages. RegisterScheme registers
// it.
struct BackendScheme : TokenScheme {
    // Returns a new backend for the storage of the token. The backend may delay the connection
    // until its first operation.
    std::function<std::unique_ptr<StorageBackend>(const BackupToken&)> open = nullptr;
    // True when backends of this scheme keep their connections open. When a storage object is
    // destroyed, a later storage object with the same token reuses its backend, possibly on another
    // thread.
    bool keeps_connections = false;
};

}  // namespace quarn2
