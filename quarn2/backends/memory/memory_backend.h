// A storage in this process's memory, for tests. Its token is memory:NAME.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

// Registers the scheme "memory", so that memory:NAME is a valid token.
void RegisterMemoryScheme();

// The content of one memory storage. All storage objects with the same NAME share one MemoryStore.
// All functions are thread-safe. The hook is called without the store's mutex, so the hook may call
// functions of the store.
class MemoryStore {
  public:
    // A test hook that the store calls before each operation with the operation's name ("Put",
    // "Get", "Remove", "RemoveDir", "MakeDir", "List", "ListAllFiles", "Clear") and the stored
    // name. An exception from the hook makes the operation fail.
    using Hook = std::function<void(const std::string& operation, const std::string& name)>;

    // Returns the store with this name. The first call with a name creates the store.
    static std::shared_ptr<MemoryStore> Named(const std::string& name);

    // Removes all files, all directories, the capacity limit, the hook and the log. Resets
    // SetListsAllFiles.
    void Reset();

    // Limits the total size of all files: a Put that would exceed `bytes` returns false. -1: no
    // limit.
    void SetCapacity(std::int64_t bytes);
    void SetHook(Hook before);
    // With `lists`, ListAllFiles returns all files, as on a storage without directories. By default
    // it returns nothing.
    void SetListsAllFiles(bool lists);

    std::map<std::string, std::string> files() const;
    // Returns all directories, including the parents that Put and MakeDir have created.
    std::set<std::string> directories() const;
    std::int64_t used() const;
    // Returns "OPERATION NAME" for every operation so far, including failed ones. The text is only
    // "OPERATION" when the name is "", the root.
    std::vector<std::string> log() const;
    void ClearLog();

    // Adds a file. Does not call the hook, add a log entry or check the capacity limit.
    void SetFile(const std::string& name, const std::string& content);

  private:
    friend class MemoryBackend;

    // Adds the operation to the log and calls the hook.
    void Begin(const std::string& operation, const std::string& name);
    void AddDirsAbove(const std::string& name);
    void AddDirs(const std::string& name);
    void EraseBelow(const std::string& directory);
    std::int64_t Used() const;
    // Returns nothing when `name` is not a file.
    std::optional<std::int64_t> SizeOf(const std::string& name) const;
    std::set<std::string> Children(const std::string& directory) const;

    mutable std::mutex mutex_;
    std::map<std::string, std::string> files_;
    std::set<std::string> directories_;
    std::int64_t capacity_ = -1;
    bool lists_all_files_ = false;
    Hook before_;
    std::vector<std::string> log_;
};

}  // namespace quarn2
