#include "memory_backend.h"

#include <cstring>
#include <utility>

#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/str.h"
#include "quarn2_backend/registry.h"

namespace quarn2 {

using kro_err::Error;
using kro_err::Kind;

namespace {

std::string ReadSource(ByteSource& source) {
    std::vector<std::byte> bytes(static_cast<std::size_t>(source.size()));
    std::size_t done = 0;
    while (done < bytes.size()) {
        done += source.ReadAt(static_cast<std::int64_t>(done), std::span(bytes).subspan(done));
    }
    source.CheckUnchanged();
    std::string content(bytes.size(), '\0');
    if (!bytes.empty()) std::memcpy(content.data(), bytes.data(), bytes.size());
    return content;
}

std::string Prefix(const std::string& directory) {
    return directory.empty() ? std::string() : directory + "/";
}

}  // namespace

class MemoryBackend final : public StorageBackend {
  public:
    explicit MemoryBackend(std::shared_ptr<MemoryStore> store) : store_(std::move(store)) {}

    bool Put(const std::string& name, ByteSource& source) override;
    void Get(const std::string& name, ByteSink& sink) override;
    void Remove(const std::string& name) override;
    void RemoveDir(const std::string& name) override;
    void MakeDir(const std::string& name) override;
    std::vector<std::string> List(const std::string& name) override {
        return NamesOf(ListSizes(name));
    }
    std::vector<ListedEntry> ListSizes(const std::string& name) override;
    std::optional<std::vector<ListedEntry>> ListAllFiles() override;
    void Clear() override;

  private:
    std::shared_ptr<MemoryStore> store_;
};

bool MemoryBackend::Put(const std::string& name, ByteSource& source) {
    store_->Begin("Put", name);
    std::string content = ReadSource(source);
    const std::lock_guard lock(store_->mutex_);
    if (store_->directories_.contains(name)) {
        throw Error(Kind::kFailed, "'" + name + "' on the storage is a directory");
    }
    const auto old = store_->files_.find(name);
    const std::size_t freed = old == store_->files_.end() ? 0 : old->second.size();
    const std::int64_t used = store_->Used() - static_cast<std::int64_t>(freed) +
                              static_cast<std::int64_t>(content.size());
    if (store_->capacity_ >= 0 && used > store_->capacity_) return false;
    store_->AddDirsAbove(name);
    store_->files_[name] = std::move(content);
    return true;
}

void MemoryBackend::Get(const std::string& name, ByteSink& sink) {
    store_->Begin("Get", name);
    std::string content;
    {
        const std::lock_guard lock(store_->mutex_);
        const auto found = store_->files_.find(name);
        if (found == store_->files_.end()) {
            throw Error(Kind::kNotFound, "no file '" + name + "' on the storage");
        }
        content = found->second;
    }
    sink.Write(std::as_bytes(std::span(content)));
}

void MemoryBackend::Remove(const std::string& name) {
    store_->Begin("Remove", name);
    const std::lock_guard lock(store_->mutex_);
    if (store_->directories_.contains(name)) {
        throw Error(Kind::kFailed, "'" + name + "' on the storage is a directory");
    }
    store_->files_.erase(name);
}

void MemoryBackend::RemoveDir(const std::string& name) {
    store_->Begin("RemoveDir", name);
    const std::lock_guard lock(store_->mutex_);
    store_->EraseBelow(name);
    store_->directories_.erase(name);
}

void MemoryBackend::MakeDir(const std::string& name) {
    store_->Begin("MakeDir", name);
    const std::lock_guard lock(store_->mutex_);
    store_->AddDirs(name);
}

std::vector<ListedEntry> MemoryBackend::ListSizes(const std::string& name) {
    store_->Begin("List", name);
    const std::lock_guard lock(store_->mutex_);
    if (store_->files_.contains(name)) return {{name, store_->SizeOf(name)}};
    if (!name.empty() && !store_->directories_.contains(name)) {
        throw Error(Kind::kNotFound, "no directory '" + name + "' on the storage");
    }
    std::vector<ListedEntry> entries;
    for (const std::string& child : store_->Children(name)) {
        entries.push_back({child, store_->SizeOf(kro_file::ConcatPath(name, child))});
    }
    return entries;
}

std::optional<std::vector<ListedEntry>> MemoryBackend::ListAllFiles() {
    {
        const std::lock_guard lock(store_->mutex_);
        if (!store_->lists_all_files_) return std::nullopt;
    }
    store_->Begin("ListAllFiles", "");
    std::vector<ListedEntry> files;
    for (const auto& [name, content] : store_->files()) {
        files.push_back({name, static_cast<std::int64_t>(content.size())});
    }
    return files;
}

void MemoryBackend::Clear() {
    store_->Begin("Clear", "");
    const std::lock_guard lock(store_->mutex_);
    store_->EraseBelow("");
}

// --- MemoryStore ---

std::shared_ptr<MemoryStore> MemoryStore::Named(const std::string& name) {
    static std::mutex mutex;
    static std::map<std::string, std::shared_ptr<MemoryStore>> stores;
    const std::lock_guard lock(mutex);
    std::shared_ptr<MemoryStore>& store = stores[name];
    if (store == nullptr) store = std::make_shared<MemoryStore>();
    return store;
}

void MemoryStore::Reset() {
    const std::lock_guard lock(mutex_);
    files_.clear();
    directories_.clear();
    capacity_ = -1;
    lists_all_files_ = false;
    before_ = nullptr;
    log_.clear();
}

void MemoryStore::SetCapacity(std::int64_t bytes) {
    const std::lock_guard lock(mutex_);
    capacity_ = bytes;
}

void MemoryStore::SetListsAllFiles(bool lists) {
    const std::lock_guard lock(mutex_);
    lists_all_files_ = lists;
}

void MemoryStore::SetHook(Hook before) {
    const std::lock_guard lock(mutex_);
    before_ = std::move(before);
}

std::map<std::string, std::string> MemoryStore::files() const {
    const std::lock_guard lock(mutex_);
    return files_;
}

std::set<std::string> MemoryStore::directories() const {
    const std::lock_guard lock(mutex_);
    return directories_;
}

std::int64_t MemoryStore::used() const {
    const std::lock_guard lock(mutex_);
    return Used();
}

std::vector<std::string> MemoryStore::log() const {
    const std::lock_guard lock(mutex_);
    return log_;
}

void MemoryStore::ClearLog() {
    const std::lock_guard lock(mutex_);
    log_.clear();
}

void MemoryStore::SetFile(const std::string& name, const std::string& content) {
    const std::lock_guard lock(mutex_);
    AddDirsAbove(name);
    files_[name] = content;
}

void MemoryStore::Begin(const std::string& operation, const std::string& name) {
    Hook before;
    {
        const std::lock_guard lock(mutex_);
        log_.push_back(str::Append(operation, name, " "));
        before = before_;
    }
    if (before) before(operation, name);
}

void MemoryStore::AddDirsAbove(const std::string& name) {
    const std::string above = kro_file::Path(name);
    if (!above.empty()) AddDirs(above);
}

void MemoryStore::AddDirs(const std::string& name) {
    for (std::string directory = name; !directory.empty(); directory = kro_file::Path(directory)) {
        if (files_.contains(directory)) {
            throw Error(Kind::kFailed, "'" + directory + "' on the storage is not a directory");
        }
    }
    for (std::string directory = name; !directory.empty(); directory = kro_file::Path(directory)) {
        directories_.insert(directory);
    }
}

void MemoryStore::EraseBelow(const std::string& directory) {
    const std::string prefix = Prefix(directory);
    std::erase_if(files_, [&](const auto& file) { return str::StartsWith(file.first, prefix); });
    std::erase_if(directories_,
                  [&](const std::string& name) { return str::StartsWith(name, prefix); });
}

std::int64_t MemoryStore::Used() const {
    std::size_t used = 0;
    for (const auto& [name, content] : files_) used += content.size();
    return static_cast<std::int64_t>(used);
}

std::optional<std::int64_t> MemoryStore::SizeOf(const std::string& name) const {
    const auto found = files_.find(name);
    if (found == files_.end()) return std::nullopt;
    return static_cast<std::int64_t>(found->second.size());
}

std::set<std::string> MemoryStore::Children(const std::string& directory) const {
    const std::string prefix = Prefix(directory);
    std::set<std::string> names;
    const auto add = [&](const std::string& name) {
        if (!str::StartsWith(name, prefix)) return;
        const std::size_t end = name.find('/', prefix.size());
        names.insert(name.substr(prefix.size(), end - prefix.size()));
    };
    for (const auto& [name, content] : files_) add(name);
    for (const std::string& name : directories_) add(name);
    return names;
}

// --- The scheme ---

void RegisterMemoryScheme() {
    BackendScheme scheme;
    scheme.scheme = "memory";
    scheme.default_parallel = 1;
    scheme.fault = [](const BackupToken& token) {
        const bool good = token.host().empty() && !token.path().empty();
        return std::string(good ? "" : "the token of a memory storage has the form memory:NAME");
    };
    scheme.open = [](const BackupToken& token) {
        return std::make_unique<MemoryBackend>(MemoryStore::Named(token.path()));
    };
    RegisterScheme(std::move(scheme));
}

}  // namespace quarn2
