// A storage as the author of a backend sees it: exactly what to implement.
//
// A backend carries bytes and nothing else: local files, temporary local names, encryption,
// retries, rate limits and logging are done around it. Names come checked: relative, normalised, no
// empty, "." or ".." component, no control character. Failures are thrown as kro_err::Error with
// the kind that tells the caller what to do (see kro_err.h). One object is used by one thread at a
// time; several objects may work on the same storage at once, from other processes too.
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

// The bytes of one upload, readable at any offset and more than once. Outlives the call it is given
// to.
class ByteSource {
  public:
    virtual ~ByteSource() = default;

    // The number of bytes, fixed from the start.
    virtual std::int64_t size() const = 0;

    // Fills `buffer` from `offset` on: all of it, or up to the end. A source that has become
    // shorter than size() throws kFailed.
    virtual std::size_t ReadAt(std::int64_t offset, std::span<std::byte> buffer) = 0;

    // A descriptor of a plain file that holds exactly these bytes at offset 0, for backends that
    // can copy inside the kernel; -1 when there is none. It stays the source's.
    virtual int Descriptor() const { return -1; }

    // Whoever reads through Descriptor() tells here how many more bytes are done.
    virtual void Advance(std::int64_t /*bytes*/) {}

    // To be called once everything has been read and before the result is made visible: throws
    // kFailed when the source no longer has the size it started with.
    virtual void CheckUnchanged() = 0;
};

// Where the bytes of one download go, in order.
class ByteSink {
  public:
    virtual ~ByteSink() = default;

    // May be called once, before the first byte, by a backend that knows how many are to come.
    virtual void Expect(std::int64_t /*size*/) {}

    // Takes the next bytes, all of them.
    virtual void Write(std::span<const std::byte> bytes) = 0;

    // A descriptor of an empty plain file that takes the bytes as they are, for backends that can
    // copy inside the kernel; -1 when there is none. Whoever writes to it calls Write no more.
    virtual int Descriptor() const { return -1; }

    // Whoever writes through Descriptor() tells here how many more bytes are done.
    virtual void Advance(std::int64_t /*bytes*/) {}
};

class StorageBackend {
  public:
    StorageBackend() = default;
    virtual ~StorageBackend() = default;
    StorageBackend(const StorageBackend&) = delete;
    StorageBackend& operator=(const StorageBackend&) = delete;

    // Stores the source under `name`, replacing what was there, in one step that others see whole
    // or not at all. True: complete, verified as far as the protocol allows, durable. False: no
    // room (full storage or quota). On false and on failure the old file stays and no temporary one
    // does. Missing directories above `name` are made; the root never is.
    virtual bool Put(const std::string& name, ByteSource& source) = 0;

    // Hands the stored bytes to the sink, all of them or an exception. kNotFound when there are
    // none. A transfer that ends before the file does is kUnavailable.
    virtual void Get(const std::string& name, ByteSink& sink) = 0;

    // Removes the file and the leftovers of interrupted Puts of that name; nothing there is
    // success. A directory is kFailed.
    virtual void Remove(const std::string& name) = 0;

    // Removes a directory with everything below; nothing there is success.
    virtual void RemoveDir(const std::string& name) = 0;

    // What Remove has removed directly below the directory ("" is the root) stays so, even if the
    // power fails. Nothing to do where the storage cannot be asked for that.
    virtual void SyncRemovals(const std::string& /*name*/) {}

    // Makes the directory and those above it; there already is success. Nothing to do where
    // directories do not exist. The root never is made: a missing one is kNotFound.
    virtual void MakeDir(const std::string& name) = 0;

    // The names directly below a directory ("" is the root), files and directories, in any order
    // and each once, temporary ones left out. For a file: that file's `name` alone. kNotFound when
    // neither exists (also for a missing root); an empty root has no names.
    virtual std::vector<std::string> List(const std::string& name) = 0;

    // Removes everything below the root, leftovers of interrupted Puts included, and keeps the
    // root.
    virtual void Clear() = 0;
};

// One entry of the registry: everything that the library knows about a scheme.
struct BackendScheme {
    std::string scheme;
    // The parameters it takes besides those that every scheme takes.
    std::set<std::string> params;
    // The parameters whose values are secrets.
    std::set<std::string> secrets;
    // What is wrong with a token of this scheme (no path, no host, ...), "" when nothing is. Must
    // not put a secret into its answer.
    std::function<std::string(const BackupToken&)> fault;
    // Opens the storage. May connect later, at the first operation.
    std::function<std::unique_ptr<StorageBackend>(const BackupToken&)> open;
    // The backend holds connections that are worth keeping: it is used again, later, by other
    // storage objects of the same token, on other threads too.
    bool keeps_connections = false;
};

// The scheme's entry, null when it is unknown. The built-in schemes are listed in registry.cpp.
const BackendScheme* FindScheme(const std::string& scheme);

// Adds a scheme to those built in; for storages that are not part of the program, as in tests. Not
// to be called while other threads open storages.
void RegisterScheme(BackendScheme scheme);

}  // namespace quarn2
