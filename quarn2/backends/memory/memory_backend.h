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

// Makes memory:NAME tokens known.
void RegisterMemoryScheme();

// What lies on one storage. All storage objects of one NAME share it. Every call is thread-safe;
// the hook is called without the lock, so it may look at the store itself.
class MemoryStore {
  public:
    // Called before an operation with its name ("Put", "Get", "Remove", "RemoveDir", "MakeDir",
    // "List", "Clear") and the stored name; what it throws is the operation's failure.
    using Hook = std::function<void(const std::string& operation, const std::string& name)>;

    // The store of this name, made at the first call.
    static std::shared_ptr<MemoryStore> Named(const std::string& name);

    // As new: no files, no directories, no capacity, no hook, an empty log.
    void Reset();

    // A Put that would bring the sum of all files above this is refused. -1: no limit.
    void SetCapacity(std::int64_t bytes);
    void SetHook(Hook before);

    std::map<std::string, std::string> files() const;
    // The directories that MakeDir and Put have made, those above them included.
    std::set<std::string> directories() const;
    std::int64_t used() const;
    // "OPERATION NAME" ("List" alone for the root) of every call so far, failed ones too.
    std::vector<std::string> log() const;
    void ClearLog();

    // Places a file without a Put.
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
