#include "dav_folder.h"

#include <ctime>
#include <optional>
#include <utility>

#include "base/stored_name.h"
#include "kro/kro_clock.h"
#include "kro/kro_file.h"

namespace quarn2::webdav {

namespace {

using kro_err::Error;
using kro_err::Kind;
using Clock = kro_date::SteadyClock;

constexpr std::chrono::seconds kCacheTime(10);
constexpr std::size_t kMaxFolders = 16;
// Maximum number of cached file names per directory. Names beyond this limit are queried
// individually.
constexpr std::size_t kMaxFiles = 50'000;
// In seconds. A temporary file that has not changed for this time is abandoned, because a running
// upload changes its temporary file more often.
constexpr std::time_t kMaxUnchanged = 60;
constexpr int kRecheckMs = 1000;

std::optional<std::time_t> HttpDate(const std::string& text) {
    std::tm time = {};
    const char* const end = strptime(text.c_str(), "%a, %d %b %Y %H:%M:%S GMT", &time);
    if (end == nullptr || *end != '\0') return std::nullopt;
    return timegm(&time);
}

bool IsAbandoned(const Resource& file) {
    const std::optional<std::time_t> modified = HttpDate(file.modified);
    const std::optional<std::time_t> now = HttpDate(file.now);
    return modified && now && *now - *modified > kMaxUnchanged;
}

}  // namespace

// --- Listing ---

Folder* DavFolders::Find(const std::string& directory) {
    const auto found = known_.find(directory);
    if (found == known_.end()) return nullptr;
    if (Clock::now() - found->second.listed < kCacheTime) return &found->second;
    known_.erase(found);
    return nullptr;
}

Folder& DavFolders::Remember(const std::string& directory, Folder folder) {
    if (known_.size() >= kMaxFolders) known_.clear();
    folder.listed = Clock::now();
    return known_.insert_or_assign(directory, std::move(folder)).first->second;
}

// Lists a directory on the server and caches the listing. Returns null if the directory does not
// exist.
Folder* DavFolders::Load(const std::string& directory) {
    Folder folder;
    const Resource::Kind kind =
        server_.List(directory, Ask::kType, [&folder](std::string name, const DavEntry& entry) {
            if (entry.is_collection) return;
            if (IsTemporaryEntry(name)) {
                folder.temporaries.push_back(std::move(name));
            } else if (folder.files.size() < kMaxFiles) {
                folder.files.insert(std::move(name));
            }
        });
    if (kind != Resource::Kind::kCollection) return nullptr;
    return &Remember(directory, std::move(folder));
}

void DavFolders::PrepareToWrite(const std::string& directory, const std::string& file) {
    Folder* folder = Find(directory);
    if (folder == nullptr) folder = Load(directory);
    if (folder == nullptr && directory.empty()) server_.CheckRoot();
    if (folder == nullptr && !MakeOne(directory)) folder = Load(directory);
    if (folder == nullptr) folder = &Remember(directory, Folder());
    folder->files.clear();
    RemoveLeftovers(*folder, directory, file);
}

bool DavFolders::PrepareToRemove(const std::string& directory, const std::string& file) {
    Folder* folder = Find(directory);
    if (folder == nullptr || folder->files.erase(file) == 0) {
        folder = Load(directory);
        if (folder == nullptr) return false;
        if (folder->files.erase(file) == 0) {
            RemoveLeftovers(*folder, directory, file);
            return false;
        }
    }
    RemoveLeftovers(*folder, directory, file);
    return true;
}

// --- Abandoned temporary files ---

void DavFolders::RemoveLeftovers(Folder& folder, const std::string& directory,
                                 const std::string& file) {
    std::erase_if(folder.temporaries, [&](const std::string& entry) {
        if (!IsTemporaryOf(entry, file)) return false;
        RemoveLeftover(kro_file::ConcatPath(directory, entry));
        return true;
    });
}

// Removes a temporary file unless another upload still writes to it. The temporary file of a
// running upload grows, and is renamed as soon as it is complete, so a file that does not change is
// abandoned. If the file of a running upload is removed by mistake, that upload starts again.
void DavFolders::RemoveLeftover(const std::string& name) {
    const Resource before = server_.Query(name, Ask::kAll);
    if (!before.IsFile()) return;
    if (!IsAbandoned(before)) {
        kro_proc::Sleep(kRecheckMs);
        const Resource after = server_.Query(name, Ask::kAll);
        if (after.length != before.length || after.modified != before.modified) return;
    }
    server_.Delete(name, false);
}

// --- Creating directories ---

void DavFolders::Make(const std::string& name) { MakeOne(name); }

// Creates the directory and its missing parents. Returns false if the directory already exists.
bool DavFolders::MakeOne(const std::string& name) {
    const auto ask = [&] { return server_.Do("MKCOL", server_.address().Directory(name)); };
    net::HttpReply reply = ask();
    if (reply.status == kConflict || reply.status == kNotFoundStatus) {
        const std::string above = kro_file::Path(name);
        if (above.empty()) {
            server_.CheckRoot();
        } else {
            MakeOne(above);
        }
        reply = ask();
    }
    if (reply.IsSuccess()) return true;
    if (reply.status == kNoRoom) throw NoRoomForDirectory();
    const Resource found = server_.Query(name);
    if (found.IsCollection()) return false;
    if (found.IsFile()) {
        throw Error(Kind::kFailed, Quoted(name) + " on the storage is not a directory");
    }
    server_.ThrowRefused("MKCOL", name, reply);
}

}  // namespace quarn2::webdav
