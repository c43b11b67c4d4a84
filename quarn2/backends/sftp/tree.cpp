#include "tree.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <utility>

#include "base/listing_limit.h"
#include "base/stored_name.h"
#include "dir_sync.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_new_file.h"
#include "kro/str.h"

namespace quarn2::sftp {

namespace {

using kro_err::Error;
using kro_err::Kind;

constexpr std::uint32_t kDirectoryMode = 0750;
// The number of directories that are read in parallel, and the initial and the maximum number of
// outstanding read requests per directory.
constexpr std::size_t kDirectoriesAtOnce = 16;
constexpr std::size_t kFewReads = 2;
constexpr std::size_t kManyReads = 64;

struct Entry {
    std::string name;
    Attributes attributes;
};

std::uint32_t SendPath(Session& session, Type type, const std::string& path) {
    return session.Send(std::move(Request(type).Text(path)));
}

// Returns true if the name can be a component of a path. A server that sends another name, such as
// "../x", could direct an operation to another file.
bool IsComponent(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

// --- Reading directories ---

class DirectoryReader {
  public:
    DirectoryReader(Session& session, std::string path)
        : session_(session),
          path_(std::move(path)),
          open_(SendPath(session, Type::kOpenDir, path_)),
          limit_("SFTP server") {}

    // Waits for the reply to the request that opens the directory. Returns false if the directory
    // does not exist.
    bool Opened() {
        Reply reply = session_.Wait(open_);
        if (reply.type == Type::kHandle) {
            handle_ = reply.fields.Text();
            return true;
        }
        const Status status = reply.AsStatus();
        if (status.code != Code::kNoSuchFile) ThrowRefused("list directory", path_, status);
        return false;
    }

    bool done() const noexcept { return !handle_; }

    void Ask(std::size_t times) {
        for (; times > 0; --times) {
            asked_.push_back(session_.Send(std::move(Request(Type::kReadDir).Text(*handle_))));
        }
    }

    void ReadAnswers() {
        for (const std::uint32_t id : std::exchange(asked_, {})) {
            Reply reply = session_.Wait(id);
            if (reply.type == Type::kName) {
                Take(reply.fields);
                continue;
            }
            const Status status = reply.AsStatus();
            if (status.code != Code::kEof) ThrowRefused("list directory", path_, status);
            Close();
        }
    }

    std::vector<Entry>& entries() noexcept { return entries_; }
    const std::string& path() const noexcept { return path_; }

  private:
    void Take(Fields& fields) {
        // Count the reply itself, because a faulty server could send an endless sequence of replies
        // without names.
        limit_.Count(0);
        for (std::uint32_t left = fields.U32(); left > 0; --left) {
            Entry entry;
            entry.name = fields.Text();
            fields.Bytes();  // skips the entry's "long name", which is not used
            entry.attributes = fields.Attrs();
            limit_.Count(entry.name.size());
            if (IsComponent(entry.name)) entries_.push_back(std::move(entry));
        }
    }

    void Close() {
        if (!handle_) return;
        session_.Forget(session_.Send(std::move(Request(Type::kClose).Text(*handle_))));
        handle_.reset();
    }

    Session& session_;
    std::string path_;
    std::uint32_t open_;
    std::optional<std::string> handle_;
    std::vector<std::uint32_t> asked_;
    std::vector<Entry> entries_;
    ListingLimit limit_;
};

// Reads the directories at `paths` in parallel and completely. Skips directories that do not exist.
// The number of necessary requests is unknown, so each round sends twice as many requests as the
// previous round.
std::vector<DirectoryReader> ReadDirectories(Session& session, std::span<const std::string> paths) {
    std::vector<DirectoryReader> readers;
    readers.reserve(paths.size());
    for (const std::string& path : paths) readers.emplace_back(session, path);
    std::vector<DirectoryReader> open;
    for (DirectoryReader& reader : readers) {
        if (reader.Opened()) open.push_back(std::move(reader));
    }
    const auto unfinished = [](const DirectoryReader& reader) { return !reader.done(); };
    for (std::size_t times = kFewReads; std::any_of(open.begin(), open.end(), unfinished);
         times = std::min(times * 2, kManyReads)) {
        for (DirectoryReader& reader : open) {
            if (!reader.done()) reader.Ask(times);
        }
        for (DirectoryReader& reader : open) reader.ReadAnswers();
    }
    return open;
}

// --- Removing ---

// Removes the files at `paths`. Returns the paths that are directories, which are not removed.
std::vector<std::string> RemoveFiles(Session& session, const std::vector<std::string>& paths) {
    std::vector<std::pair<std::string, Status>> refused;
    Pipeline(
        session, paths.size(),
        [&](std::size_t i) { return SendPath(session, Type::kRemove, paths[i]); },
        [&](std::size_t i, Reply reply) {
            Status status = reply.AsStatus();
            if (status.code == Code::kOk || status.code == Code::kNoSuchFile) return;
            refused.emplace_back(paths[i], std::move(status));
        });
    std::vector<std::string> directories;
    for (auto& [path, status] : refused) {
        const std::optional<Attributes> there = ReadAttributes(session, path);
        if (!there) continue;
        if (!there->IsDirectory()) ThrowRefused("remove", path, status);
        directories.push_back(std::move(path));
    }
    return directories;
}

// Removes all files directly in the directories. Returns the paths of the subdirectories.
std::vector<std::string> RemoveContent(Session& session, std::span<const std::string> directories) {
    std::vector<std::string> files;
    std::vector<std::string> below;
    for (DirectoryReader& reader : ReadDirectories(session, directories)) {
        for (const Entry& entry : reader.entries()) {
            auto& paths = entry.attributes.IsDirectory() ? below : files;
            paths.push_back(kro_file::ConcatPath(reader.path(), entry.name));
        }
    }
    std::vector<std::string> not_files = RemoveFiles(session, files);
    std::move(not_files.begin(), not_files.end(), std::back_inserter(below));
    return below;
}

void RemoveEmpty(Session& session, const std::vector<std::string>& directories) {
    Pipeline(
        session, directories.size(),
        [&](std::size_t i) { return SendPath(session, Type::kRmDir, directories[i]); },
        [&](std::size_t i, Reply reply) {
            const Status status = reply.AsStatus();
            if (status.code != Code::kOk && status.code != Code::kNoSuchFile) {
                ThrowRefused("remove directory", directories[i], status);
            }
        });
}

// Removes everything below the directory `top`, and `top` itself with `top_too`. First removes the
// files level by level from the top down, then the directories from the bottom up. Removes links
// without following them.
void RemoveBelow(Session& session, const std::string& top, bool top_too) {
    std::vector<std::string> all = {top};
    ListingLimit limit("SFTP server");
    for (std::size_t begin = 0; begin < all.size();) {
        const std::size_t count = std::min(kDirectoriesAtOnce, all.size() - begin);
        std::vector<std::string> below =
            RemoveContent(session, std::span<const std::string>(all).subspan(begin, count));
        for (const std::string& path : below) {
            limit.Count(path.size());
            limit.CheckDepth(static_cast<std::size_t>(std::count(path.begin(), path.end(), '/') -
                                                      std::count(top.begin(), top.end(), '/')));
        }
        std::move(below.begin(), below.end(), std::back_inserter(all));
        begin += count;
    }
    if (!top_too) all.erase(all.begin());
    std::reverse(all.begin(), all.end());
    RemoveEmpty(session, all);
}

// --- Names of displaced files ---

// Adds the original names of displaced files to a listing. If the replacement of a file is
// interrupted on a server that cannot rename over an existing file, the old file remains under its
// displaced name.
void ShowDisplaced(std::vector<ListedEntry>& entries) {
    const std::size_t count = entries.size();
    for (std::size_t i = 0; i < count; ++i) {
        auto target = DisplacedTarget(entries[i].name);
        if (target) entries.push_back({std::move(*target), entries[i].size});
    }
}

// Returns nothing for an entry that is not a plain file or whose type the server has omitted.
std::optional<std::int64_t> SizeOf(const Attributes& attributes) {
    const bool is_file = attributes.mode && attributes.IsFile();
    if (!is_file || !attributes.size) return std::nullopt;
    if (!std::in_range<std::int64_t>(*attributes.size)) return std::nullopt;
    return static_cast<std::int64_t>(*attributes.size);
}

std::vector<ListedEntry> EntriesToShow(Session& session, const std::vector<Entry>& entries) {
    std::vector<ListedEntry> shown;
    for (const Entry& entry : entries) {
        if (!HasControl(entry.name)) shown.push_back({entry.name, SizeOf(entry.attributes)});
    }
    if (!session.Supports("posix-rename@openssh.com")) ShowDisplaced(shown);
    std::erase_if(shown,
                  [](const ListedEntry& one) { return kro_file::IsTemporaryName(one.name); });
    // A stable sort keeps the entry of a file before the entry of its displaced predecessor.
    std::stable_sort(shown.begin(), shown.end(),
                     [](const ListedEntry& a, const ListedEntry& b) { return a.name < b.name; });
    const auto same = [](const ListedEntry& a, const ListedEntry& b) { return a.name == b.name; };
    shown.erase(std::unique(shown.begin(), shown.end(), same), shown.end());
    return shown;
}

}  // namespace

std::optional<Attributes> ReadAttributes(Session& session, const std::string& path) {
    Reply reply = session.Wait(SendPath(session, Type::kLstat, path));
    if (reply.type == Type::kAttrs) return reply.fields.Attrs();
    const Status status = reply.AsStatus();
    if (status.code != Code::kNoSuchFile) ThrowRefused("examine", path, status);
    return std::nullopt;
}

std::uint32_t SendRootQuery(Session& session, const Place& place) {
    return SendPath(session, Type::kStat, place.root());
}

void CheckRoot(const Place& place, Reply answer) {
    if (answer.type != Type::kAttrs) {
        const Status status = answer.AsStatus();
        if (status.code != Code::kNoSuchFile) {
            ThrowRefused("examine storage directory", place.root(), status);
        }
        throw Error(Kind::kNotFound, "storage directory " + Quoted(place.root()) +
                                         " does not exist on the server; create it or mount its "
                                         "disk");
    }
    if (!answer.fields.Attrs().IsDirectory()) {
        throw Error(Kind::kFailed,
                    "storage directory " + Quoted(place.root()) + " is not a directory");
    }
}

void CheckRoot(Session& session, const Place& place) {
    CheckRoot(place, session.Wait(SendRootQuery(session, place)));
}

MadeDirs MakeDirs(Session& session, const Place& place, const std::string& name) {
    std::vector<std::string> names;
    for (std::string at = name; !at.empty(); at = kro_file::Path(at)) names.push_back(at);
    std::reverse(names.begin(), names.end());
    MadeDirs made;
    Pipeline(
        session, names.size(),
        [&](std::size_t i) {
            return session.Send(
                std::move(Request(Type::kMkDir).Text(place.PathOf(names[i])).Mode(kDirectoryMode)));
        },
        [&](std::size_t i, Reply reply) {
            Status status = reply.AsStatus();
            if (status.code == Code::kOk) {
                made.parents.push_back(place.PathOf(kro_file::Path(names[i])));
            } else {
                made.refusal = std::move(status);
            }
        });
    return made;
}

void MakeDir(Session& session, const Place& place, const std::string& name) {
    CheckRoot(session, place);
    const MadeDirs made = MakeDirs(session, place, name);
    const std::string path = place.PathOf(name);
    Reply reply = session.Wait(SendPath(session, Type::kStat, path));
    if (reply.type != Type::kAttrs) ThrowRefused("create directory", path, made.refusal);
    if (!reply.fields.Attrs().IsDirectory()) {
        throw Error(Kind::kFailed, Quoted(path) + " on the storage is not a directory");
    }
    DirSync sync(session);
    sync.Open(made.parents);
    sync.WaitForHandles();
    sync.Sync();
    sync.Finish();
}

std::vector<ListedEntry> ListSizes(Session& session, const Place& place, const std::string& name) {
    const std::uint32_t root = SendRootQuery(session, place);
    const std::string path = place.PathOf(name);
    const std::uint32_t look = SendPath(session, Type::kLstat, path);
    try {
        CheckRoot(place, session.Wait(root));
    } catch (...) {
        session.Forget(look);
        throw;
    }
    Reply seen = session.Wait(look);
    const auto attributes =
        seen.type == Type::kAttrs ? std::optional(seen.fields.Attrs()) : std::nullopt;
    std::vector<DirectoryReader> readers = ReadDirectories(session, {&path, 1});
    if (!readers.empty()) return EntriesToShow(session, readers.front().entries());
    if (attributes && !attributes->IsDirectory()) return {{name, SizeOf(*attributes)}};
    throw Error(Kind::kNotFound, "no directory " + Quoted(name) + " on the storage");
}

void Remove(Session& session, const Place& place, const std::string& name) {
    const std::string path = place.PathOf(name);
    const std::uint32_t root = SendRootQuery(session, place);
    std::vector<std::string> paths = TemporaryPaths(path);
    paths.insert(paths.begin(), {path, DisplacedPath(path)});
    const std::vector<std::string> directories = RemoveFiles(session, paths);
    CheckRoot(place, session.Wait(root));
    if (!directories.empty()) {
        throw Error(Kind::kFailed,
                    Quoted(directories.front()) + " on the storage is a directory, not a file");
    }
}

void RemoveDir(Session& session, const Place& place, const std::string& name) {
    CheckRoot(session, place);
    const std::string path = place.PathOf(name);
    const std::optional<Attributes> there = ReadAttributes(session, path);
    if (!there) return;
    if (there->IsDirectory()) {
        RemoveBelow(session, path, true);
        return;
    }
    if (!there->IsLink()) return;
    Reply target = session.Wait(SendPath(session, Type::kStat, path));
    if (target.type == Type::kAttrs && target.fields.Attrs().IsDirectory()) {
        RemoveFiles(session, {path});
    }
}

void Clear(Session& session, const Place& place) {
    CheckRoot(session, place);
    RemoveBelow(session, place.root(), false);
}

}  // namespace quarn2::sftp
