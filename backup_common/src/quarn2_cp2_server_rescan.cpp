#include "quarn2_cp2_server_rescan.h"

#include <algorithm>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>

#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/str.h"
#include "quarn2/info.h"
#include "quarn2/names.h"
#include "quarn2/storage.h"
#include "quarn2_cp2_get.h"
#include "quarn2_cp2_misc_encrypted.h"
#include "quarn2_cp2_misc_events.h"
#include "quarn2_cp2_misc_progress.h"
#include "quarn2_cp2_misc_removal.h"
#include "quarn2_cp2_misc_sizes.h"
#include "quarn2_cp2_misc_storage.h"
#include "quarn2_cp2_server_notes.h"
#include "quarn2_cp2_server_rescan_removed.h"
#include "quarn2_cp2_server_rescan_root.h"
#include "quarn2_cp2_server_start.h"

namespace {

constexpr kro_log::Module kLog("main");
constexpr const char* kMarker = ".rescan";

using Names = std::vector<std::string>;

bool IsOwnFile(const std::string& name) {
    return name == kMarker || str::StartsWith(name, std::string(kMarker) + "#") ||
           name == ".cleanup";
}

// True for local files and directories that are not copies of stored files. A rescan keeps them
// because it could not restore them.
bool IsKept(const std::string& directory, const std::string& name) {
    const bool beside_admin_root = !quarn2::IsAdminData(directory) ||
                                   !quarn2::IsAdminData(kro_file::ConcatPath(directory, "u"));
    return IsOwnFile(name) || (beside_admin_root && IsAdminRoot(name));
}

// Removes unsafe names from a listing of the storage, because the names become parts of local
// paths.
void DropUnsafe(Names& names) {
    std::erase_if(names, [](const std::string& name) {
        if (quarn2::IsSafeName(name)) return false;
        KRO_LOG(kLog, 4, "Skip bad name '%s' on the storage", name.c_str());
        return true;
    });
}

// Moves the file at a directory's path to `removed` when it is not a directory or is another user's
// symbolic link. Such a file is not a copy of the storage's directory, and a rescan must not remove
// files from the target of another user's link.
void ClearForDirectory(const std::string& path, RemovedEntries& removed) {
    const bool other = kro_file::Exists(path) && !kro_file::IsDirectory(path);
    if (other || kro_file::IsForeignLink(path)) removed.Take({path});
}

// Removes the stored name of a local file from the list. Returns false when the list does not
// contain the name.
bool TakeOut(Names& files, const std::string& local) {
    const auto matches = [&local](const std::string& file) {
        return file == local || (str::EndsWith(local, ".tgz") && file == local + ".aes");
    };
    const auto found = std::find_if(files.begin(), files.end(), matches);
    if (found == files.end()) return false;
    files.erase(found);
    return true;
}

// The marker file that a rescan creates in an info root. The file exists while the info root is
// incomplete.
class Marker {
  public:
    Marker(const std::string& local_dir, const std::string& storage)
        : local_dir_(local_dir), path_(PathOf(local_dir, storage)) {
        kro_file::MkDirSynced(local_dir);
        was_there_ = kro_file::Exists(path_);
        kro_file::Write(path_, "A rescan is under way, or was broken off.\n");
    }

    static std::string PathOf(const std::string& local_dir, const std::string& storage) {
        return kro_file::ConcatPath(local_dir, str::Append(kMarker, storage, "#"));
    }

    // True when an earlier rescan was interrupted. The files that it downloaded may not be durable.
    bool was_there() const noexcept { return was_there_; }

    void Remove() const {
        kro_file::SyncFileSystem(local_dir_);
        kro_file::RemoveFile(path_);
        kro_file::SyncDir(local_dir_);
    }

  private:
    std::string local_dir_;
    std::string path_;
    bool was_there_ = false;
};

// Keeps the keys of a local info file that is downloaded again together with its index. After the
// download, Restore adds the keys that existed only locally.
class LocalKeys {
  public:
    LocalKeys(const std::string& path, bool is_trusted) : path_(path) {
        if (!is_trusted || !str::EndsWith(path, ".info") || !kro_file::Exists(path)) return;
        try {
            info_ = quarn2::GetInfo(path);
        } catch (const kro_err::Error& error) {
            KRO_LOG(kLog, 6, "%s", error.what());
        }
    }

    void Restore() const {
        if (info_.empty()) return;
        quarn2::InfoMap info = quarn2::GetInfo(path_);
        const std::size_t fetched = info.size();
        info.insert(info_.begin(), info_.end());
        if (info.size() != fetched) kro_file::Write(path_, str::Join(info, "\n"));
    }

  private:
    std::string path_;
    quarn2::InfoMap info_;
};

// The files and directories that a rescan could not read because the storage was temporarily
// unavailable.
class FailedReads {
  public:
    using Read = std::function<void()>;

    // `again` repeats the read. If the read fails again, `again` calls Add with itself.
    void Add(Read again) { reads_.push_back(std::move(again)); }

    // Repeats each failed read until it succeeds. Stops after kMaxFailures failures in total,
    // because the storage is then assumed to be down.
    void Repeat() {
        for (std::size_t failures = 0; !reads_.empty() && failures < kMaxFailures;) {
            const Read read = std::move(reads_.front());
            reads_.pop_front();
            const std::size_t before = reads_.size();
            read();
            failures += reads_.size() - before;
        }
    }

    void WarnOfRest() const {
        if (reads_.empty()) return;
        Warn("the storage could not be read completely: " + str::Str(reads_.size()) +
             " files or directories could not be read, so their backups are not counted. See the "
             "log "
             "and run --server --rescan again");
    }

  private:
    static constexpr std::size_t kMaxFailures = 3;
    std::deque<Read> reads_;
};

class Rescanner {
  public:
    Rescanner(std::shared_ptr<quarn2::Storage> storage, const std::string& local_root,
              const std::string& filter)
        : storage_(std::move(storage)),
          local_root_(local_root),
          local_dir_(RescanDirectory(local_root)),
          filter_(filter),
          node_(NodeOf("")),
          skip_local_(!node_.empty()) {}

    void Run() {
        Names& top = top_;
        storage_->List(top, "");
        DropUnsafe(top);
        DropReserved(top);
        const Marker marker(local_dir_, filter_);
        trust_local_ = !marker.was_there();
        removed_.emplace(filter_, local_dir_, marker.was_there());
        // Creates the user's directory now, because files of the storage root may be downloaded
        // into it before the user's directory on the storage is listed.
        if (local_root_ != local_dir_) {
            ClearForDirectory(local_root_, *removed_);
            kro_file::MkDirSynced(local_root_);
        }
        storage_->DeferSync(true);
        if (filter_.empty()) RemoveMissedDirs(top, local_dir_, skip_local_, *removed_);
        ProgressLine progress(static_cast<std::int64_t>(top.size()));
        storage_->SetObserver(&progress);
        for (const std::string& entry : top) {
            Take(entry);
            progress.FileDone();
        }
        failed_.Repeat();
        storage_->SetObserver(nullptr);
        WriteEncryptedLines();
        marker.Remove();
        failed_.WarnOfRest();
    }

  private:
    static std::string NodeOf(std::string description) { return str::GetWord(description, ":"); }

    void Take(const std::string& entry) {
        Names sub;
        try {
            storage_->List(sub, entry);
        } catch (const std::exception& error) {
            KRO_LOG(kLog, 4, "Cant list storage directory. What: '%s'. Try download file",
                    error.what());
            Fetch(local_root_, entry);
            if (IsUnavailable(error)) failed_.Add([this, entry] { Take(entry); });
            return;
        }
        if (sub.size() == 1 && sub.front() == entry) {
            FetchTop(entry);
        } else if (filter_.empty() || filter_ == entry) {
            TakeUser(entry, sub);
        }
    }

    // Removes names from the storage's listing that are reserved for local files and directories of
    // this program, because the rescan would replace these.
    void DropReserved(Names& top) const {
        const bool beside_admin = !quarn2::IsAdminData(local_root_);
        std::erase_if(top, [beside_admin](const std::string& name) {
            const bool reserved = IsOwnFile(name) || (beside_admin && IsAdminRoot(name));
            if (reserved) KRO_LOG(kLog, 4, "Skip bad name '%s' on the storage", name.c_str());
            return reserved;
        });
    }

    bool Fetch(const std::string& directory, const std::string& name) {
        return DownloadInfoFile(directory, node_, storage_, filter_, encrypted_lines_, name);
    }

    void FetchTop(const std::string& name) {
        if (!Fetch(local_root_, name)) failed_.Add([this, name] { FetchTop(name); });
    }

    // Downloads `name`, the relative path of a file in a date directory, if it is an info file.
    void FetchDated(const std::string& name) {
        const LocalKeys local_keys(kro_file::ConcatPath(local_dir_, name), trust_local_);
        if (!Fetch(local_dir_, name)) failed_.Add([this, name] { FetchDated(name); });
        local_keys.Restore();
    }

    void TakeUser(const std::string& user, Names& dates) {
        DropUnsafe(dates);
        const std::string user_dir = kro_file::ConcatPath(local_dir_, user);
        ClearForDirectory(user_dir, *removed_);
        Names kept = dates;
        // Files of the storage root are kept as well, because a user's info root contains them.
        if (user_dir == local_root_) kept.insert(kept.end(), top_.begin(), top_.end());
        RemoveMissedDirs(kept, user_dir, skip_local_, *removed_);
        for (const std::string& date : dates) TakeDate(user, date);
    }

    void TakeDate(const std::string& user, const std::string& date) {
        const std::string dir = kro_file::ConcatPath(user, date);
        ClearForDirectory(kro_file::ConcatPath(local_dir_, dir), *removed_);
        quarn2::MkLocalDir(local_root_, user, date);
        Names files;
        try {
            storage_->List(files, dir);
        } catch (const std::exception& error) {
            KRO_LOG(kLog, 4, "Cant list date directory. What: '%s'", error.what());
            if (IsUnavailable(error)) failed_.Add([this, user, date] { TakeDate(user, date); });
            return;
        }
        DropUnsafe(files);
        if (!skip_local_) RemoveMissedFiles(files, kro_file::ConcatPath(local_dir_, dir));
        for (const std::string& file : files) FetchDated(kro_file::ConcatPath(dir, file));
    }

    // Moves local files that the storage does not have to `removed_`. Afterwards, `files` contains
    // the names of the files to download.
    void RemoveMissedFiles(Names& files, const std::string& directory) {
        if (!trust_local_) return RemoveMissedDirs(files, directory, false, *removed_);
        Names kept;
        Names missed;
        kro_file::Dir entries(directory, 2);
        while (entries.Read()) {
            if (entries.IsDir()) continue;
            if (TakeOut(files, entries.name())) {
                kept.push_back(entries.name());
            } else {
                missed.push_back(entries.FullName());
            }
        }
        removed_->Take(missed);
        for (const std::string& name : kept) {
            if (MissesIndex(name, files)) files.push_back(name);
        }
    }

    // True when the storage has an index that is missing in the local directory. An index is
    // downloaded only together with its info file, so the info file is downloaded again.
    static bool MissesIndex(const std::string& kept, const Names& left) {
        if (!str::EndsWith(kept, ".info")) return false;
        const std::string stem = kept.substr(0, kept.size() - std::string_view("info").size());
        return std::any_of(left.begin(), left.end(), [&stem](const std::string& name) {
            return str::StartsWith(name, stem);
        });
    }

    void WriteEncryptedLines() const {
        if (!encrypted_lines_.empty()) WriteEncryptedIndexes(local_root_, encrypted_lines_);
    }

    std::shared_ptr<quarn2::Storage> storage_;
    std::string local_root_;
    std::string local_dir_;
    std::string filter_;
    Names top_;  // names at the storage root
    // Always empty, because no node has a part of the info root. For a node, the rescan would not
    // remove local entries, because the node would remove them itself.
    const std::string node_;
    const bool skip_local_;
    bool trust_local_ = true;
    std::optional<RemovedEntries> removed_;  // set by Run
    std::string encrypted_lines_;
    FailedReads failed_;
};

// Writes the number of the backups that the info root knows after a rescan, and their size.
void WriteRescanned(const std::string& local_root) {
    Event event;
    event.kind = EventKind::kRescan;
    const std::vector<Event> known = DeletedEvents(local_root, RemovalReason::kNone);
    std::int64_t used = 0;
    for (const Event& backup : known) used = SumOfSizes(used, backup.size.value_or(0));
    event.used = used;
    event.detail = "backups: " + str::Str(known.size());
    WriteEvent(std::move(event));
}

}  // namespace

void RemoveMissedDirs(const std::vector<std::string>& names, const std::string& dir, bool skip,
                      RemovedEntries& removed) {
    if (skip) return;
    const std::set<std::string> kept(names.begin(), names.end());
    std::vector<std::string> missed;
    for (const std::string& name : kro_file::NamesIn(dir)) {
        if (!kept.contains(name) && !IsKept(dir, name)) {
            missed.push_back(kro_file::ConcatPath(dir, name));
        }
    }
    removed.Take(missed);
}

void CheckNoBrokenRescan(const std::string& local_root, const std::string& storage) {
    const std::string marker = Marker::PathOf(RescanDirectory(local_root), storage);
    if (!kro_file::Exists(marker)) return;
    throw std::runtime_error(
        "the last rescan into '" + local_root + "' was broken off (" + marker +
        " is there), so not every backup is known: run --server --rescan again");
}

ResHandle Rescan(const kro_args::Result& args) {
    const std::string local_root = GetArgPath(args.Param("path", -1));
    const std::string storage_name = args.Param("storage", -1);
    CheckRescanRoot(local_root, storage_name);
    const std::shared_ptr<quarn2::Storage> storage = GetStorageByEnv(local_root);
    ResHandle handle = LockWithoutServer(ServerFiles(storage_name));
    KRO_LOG(kLog, 5, "Rescan storage and place indexes to '%s'", local_root.c_str());
    // Finishes interrupted deletions first. Otherwise the rescan would download the info files of
    // these backups and count them as complete again.
    FinishDeletions(storage, local_root);
    Rescanner(storage, local_root, storage_name).Run();
    WriteRescanned(local_root);
    return handle;
}
