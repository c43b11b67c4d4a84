// A storage in this process's memory, for tests. Its token is memory:NAME.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

// Registers the scheme "memory", so that memory:NAME is a valid token.
void RegisterMemoryScheme();

// The content of one storage. All storage objects of one NAME share it. Every call is thread-safe.
// The hook is called without the lock, so it may call the store.
class MemoryStore {
  public:
    // Called before each operation with its name ("Put", "Get", "Remove", "RemoveDir", "MakeDir",
    // "List", "Clear") and the stored name. An exception from the hook makes the operation fail.
    using Hook = std::function<void(const std::string& operation, const std::string& name)>;

    // Returns the store of this name and makes it at the first call.
    static std::shared_ptr<MemoryStore> Named(const std::string& name);

    // Restores the initial state: no files, no directories, no capacity limit, no hook, an empty
    // log.
    void Reset();

    // A Put that would raise the total size of all files above `bytes` returns false. -1: no limit.
    void SetCapacity(std::int64_t bytes);
    void SetHook(Hook before);

    std::map<std::string, std::string> files() const;
    // All directories, including the parents that Put and MakeDir have made.
    std::set<std::string> directories() const;
    std::int64_t used() const;
    // "OPERATION NAME" of every call so far, including failed ones; the operation alone for the
    // root.
    std::vector<std::string> log() const;
    void ClearLog();

    // Adds a file directly: no hook, no log entry, no capacity limit.
    void SetFile(const std::string& name, const std::string& content);

  private:
    friend class MemoryBackend;

    // Logs the operation and calls the hook.
    void Begin(const std::string& operation, const std::string& name);
    void AddDirsAbove(const std::string& name);
    void AddDirs(const std::string& name);
    void EraseBelow(const std::string& directory);
    std::int64_t Used() const;
    std::set<std::string> Children(const std::string& directory) const;

    mutable std::mutex mutex_;
    std::map<std::string, std::string> files_;
    std::set<std::string> directories_;
    std::int64_t capacity_ = -1;
    Hook before_;
    std::vector<std::string> log_;
};

}  // namespace quarn2
