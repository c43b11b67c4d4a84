#include "quarn2_cp2_server_rescan.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <utility>

#include "kro/kro_clock.h"
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

// Removes unsafe names from a sorted listing of the storage, because the names become parts of
// local paths. Removes duplicate names, because the rescan keeps one listing for each name.
void DropUnsafe(Names& names) {
    names.erase(std::unique(names.begin(), names.end()), names.end());
    std::erase_if(names, [](const std::string& name) {
        if (quarn2::IsSafeName(name)) return false;
        KRO_LOG(kLog, 4, "Skip bad name '%s' on the storage", name.c_str());
        return true;
    });
}

// Moves the file at a directory's path to `removed` when it is not a directory or is another user's
// symbolic link. Such a file is not a copy of the directory on the storage. A rescan must not
// remove files from the target of another user's link.
void ClearForDirectory(const std::string& path, RemovedEntries& removed) {
    const bool other = kro_file::Exists(path) && !kro_file::IsDirectory(path);
    if (other || kro_file::IsForeignLink(path)) removed.Take({path});
}

// Removes the stored name of a local file from the list. Returns false when the list does not
// contain the name.
bool Erase(Names& files, const std::string& local) {
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
        kro_file::Write(path_, "A rescan is in progress or was interrupted.\n");
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

    bool empty() const { return info_.empty(); }

    void Restore() const {
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
struct FailedReads {
    Names entries;                                           // names at the storage root
    std::vector<std::pair<std::string, std::string>> dates;  // user and date
    std::vector<InfoFile> infos;

    std::size_t size() const { return entries.size() + dates.size() + infos.size(); }

    void WarnOfRest() const {
        if (size() == 0) return;
        Warn("the storage could not be read completely: " + str::Str(size()) +
             " files or directories could not be read, so their backups are not counted. See the "
             "log "
             "and run --server --rescan again");
    }
};

// Logs the progress of a long rescan: the number of downloaded files and their rate.
class ProgressLog {
  public:
    void FileFetched() {
        ++files_;
        const auto now = kro_date::SteadyClock::now();
        if (now - last_ < kInterval) return;
        last_ = now;
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - start_).count();
        KRO_LOG(kLog, 5, "Rescan: %lld info files fetched with their indexes, %lld per second",
                static_cast<long long>(files_), static_cast<long long>(files_ / seconds));
    }

  private:
    static constexpr std::chrono::seconds kInterval{10};
    kro_date::SteadyClock::time_point start_ = kro_date::SteadyClock::now();
    kro_date::SteadyClock::time_point last_ = start_;
    std::int64_t files_ = 0;
};

// Limits the memory for listings that are kept until their files are downloaded.
constexpr std::size_t kMaxHeldListings = 256;
constexpr std::size_t kMaxHeldNames = 100'000;

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
        progress_ = &progress;
        storage_->SetObserver(&progress);
        ProcessEntries(top);
        progress_ = nullptr;
        RepeatFailed();
        storage_->SetObserver(nullptr);
        WriteEncryptedLines();
        marker.Remove();
        failed_.WarnOfRest();
    }

  private:
    static std::string NodeOf(std::string description) { return str::GetWord(description, ":"); }

    struct Listing {
        std::string path;
        Names names;
        quarn2::FileError error;
    };

    // Lists paths, beginning at index `next`, until the listings reach the memory limits. Returns
    // the listings in the order of the paths and sets `next` to the first path that was not listed.
    std::vector<Listing> ListSome(const Names& paths, std::size_t& next) {
        std::vector<Listing> listings;
        std::map<std::string, std::size_t> positions;
        std::size_t held = 0;
        const auto next_path = [&]() -> std::optional<std::string> {
            const bool is_full = listings.size() >= kMaxHeldListings || held > kMaxHeldNames;
            if (is_full || next == paths.size()) return std::nullopt;
            positions[paths[next]] = listings.size();
            listings.push_back({paths[next], {}, std::nullopt});
            return paths[next++];
        };
        storage_->ListMany(
            next_path, [&](const std::string& path, Names& names, const quarn2::FileError& error) {
                held += names.size();
                Listing& listing = listings[positions.at(path)];
                listing.names = std::move(names);
                listing.error = error;
            });
        return listings;
    }

    // True when several listings were requested and all failed because the storage is unavailable.
    // The storage is then assumed to be down, and the other paths are read later.
    static bool AreAllUnavailable(const std::vector<Listing>& listings) {
        return listings.size() > 1 &&
               std::all_of(listings.begin(), listings.end(), [](const Listing& listing) {
                   return listing.error && IsUnavailable(*listing.error);
               });
    }

    static void LogDown(std::size_t rest) {
        if (rest == 0) return;
        KRO_LOG(kLog, 4, "The storage does not answer: %llu other directories are listed later",
                static_cast<unsigned long long>(rest));
    }

    // Reads the entries of the storage root: files, and the directories of users.
    void ProcessEntries(const Names& entries) {
        for (std::size_t next = 0; next < entries.size();) {
            Found found;
            std::vector<Listing> listings = ListSome(entries, next);
            const bool is_down = AreAllUnavailable(listings);
            for (Listing& listing : listings) TakeEntry(listing, found);
            DownloadInfoFiles(*storage_, found.unlisted, encrypted_lines_, [](auto, auto) {});
            Fetch(found.infos);
            FetchDates(found.dates);
            for (std::size_t i = 0; i < found.users; ++i) EntryDone();
            if (!is_down) continue;
            LogDown(entries.size() - next);
            for (; next < entries.size(); ++next) failed_.entries.push_back(entries[next]);
        }
    }

    struct Found {
        std::vector<InfoFile> infos;
        // Names whose listing failed, so that they may be info files. If the storage was
        // unavailable, the rescan lists such a name again later, even if it has downloaded a file
        // of this name.
        std::vector<InfoFile> unlisted;
        std::vector<std::pair<std::string, std::string>> dates;  // user and date
        std::size_t users = 0;
    };

    void TakeEntry(Listing& listing, Found& found) {
        const std::string& entry = listing.path;
        const bool is_file = listing.names.size() == 1 && listing.names.front() == entry;
        if (listing.error) {
            KRO_LOG(kLog, 4, "Cant list storage directory. What: '%s'. Try download file",
                    listing.error->what());
            if (IsInfoFileName(entry)) found.unlisted.push_back({local_root_, entry});
            if (IsUnavailable(*listing.error)) failed_.entries.push_back(entry);
        } else if (is_file) {
            if (IsInfoFileName(entry)) found.infos.push_back({local_root_, entry});
        } else if (filter_.empty() || filter_ == entry) {
            PrepareUser(entry, listing.names, found.dates);
        }
        // Counts finished entries for the progress report. An info file is finished after its
        // download, and a user after the downloads of all dates.
        const bool has_more = !listing.error && (!is_file || IsInfoFileName(entry));
        if (!has_more) EntryDone();
        if (has_more && !is_file) ++found.users;
    }

    void EntryDone() {
        if (progress_ != nullptr) progress_->FileDone();
    }

    // Downloads the info files and their companions.
    void Fetch(const std::vector<InfoFile>& infos) {
        std::map<std::size_t, LocalKeys> local_keys;
        for (std::size_t i = 0; i < infos.size(); ++i) {
            if (infos[i].local_dir != local_dir_ || infos[i].name.find('/') == std::string::npos) {
                continue;
            }
            LocalKeys keys(kro_file::ConcatPath(local_dir_, infos[i].name), trust_local_);
            if (!keys.empty()) local_keys.emplace(i, std::move(keys));
        }
        DownloadInfoFiles(*storage_, infos, encrypted_lines_, [&](std::size_t i, bool is_read) {
            if (!is_read) failed_.infos.push_back(infos[i]);
            const auto keys = local_keys.find(i);
            if (keys != local_keys.end()) keys->second.Restore();
            log_.FileFetched();
            if (infos[i].name.find('/') == std::string::npos) EntryDone();
        });
    }

    // Reads the failed entries again. Stops after kMaxRounds rounds, because the storage is then
    // assumed to be down.
    void RepeatFailed() {
        constexpr int kMaxRounds = 3;
        for (int round = 0; failed_.size() > 0 && round < kMaxRounds; ++round) {
            const FailedReads failed = std::exchange(failed_, {});
            ProcessEntries(failed.entries);
            FetchDates(failed.dates);
            Fetch(failed.infos);
        }
    }

    // Removes names from the storage's listing that are reserved for local files and directories of
    // this program, because the rescan would replace the local ones.
    void DropReserved(Names& top) const {
        const bool beside_admin = !quarn2::IsAdminData(local_root_);
        std::erase_if(top, [beside_admin](const std::string& name) {
            const bool reserved = IsOwnFile(name) || (beside_admin && IsAdminRoot(name));
            if (reserved) KRO_LOG(kLog, 4, "Skip bad name '%s' on the storage", name.c_str());
            return reserved;
        });
    }

    void PrepareUser(const std::string& user, Names& dates,
                     std::vector<std::pair<std::string, std::string>>& found) {
        DropUnsafe(dates);
        const std::string user_dir = kro_file::ConcatPath(local_dir_, user);
        ClearForDirectory(user_dir, *removed_);
        Names kept = dates;
        // In a rescan of one user, the user's directory is the info root itself. It also has the
        // local copies of files in the storage root, which are not removed.
        if (user_dir == local_root_) kept.insert(kept.end(), top_.begin(), top_.end());
        RemoveMissedDirs(kept, user_dir, skip_local_, *removed_);
        for (const std::string& date : dates) found.emplace_back(user, date);
    }

    // Reads the directories of dates.
    void FetchDates(const std::vector<std::pair<std::string, std::string>>& dates) {
        Names paths;
        for (const auto& [user, date] : dates) paths.push_back(kro_file::ConcatPath(user, date));
        for (std::size_t next = 0; next < paths.size();) {
            std::vector<InfoFile> infos;
            std::size_t position = next;
            std::vector<Listing> listings = ListSome(paths, next);
            const bool is_down = AreAllUnavailable(listings);
            for (Listing& listing : listings) {
                const auto& [user, date] = dates[position++];
                PrepareDate(user, date, listing, infos);
            }
            Fetch(infos);
            if (!is_down) continue;
            LogDown(paths.size() - next);
            for (; next < paths.size(); ++next) failed_.dates.push_back(dates[next]);
        }
    }

    void PrepareDate(const std::string& user, const std::string& date, Listing& listing,
                     std::vector<InfoFile>& infos) {
        ClearForDirectory(kro_file::ConcatPath(local_dir_, listing.path), *removed_);
        quarn2::MkLocalDir(local_root_, user, date);
        if (listing.error) {
            KRO_LOG(kLog, 4, "Cant list date directory. What: '%s'", listing.error->what());
            if (IsUnavailable(*listing.error)) failed_.dates.emplace_back(user, date);
            return;
        }
        Names& files = listing.names;
        DropUnsafe(files);
        if (!skip_local_) RemoveMissedFiles(files, kro_file::ConcatPath(local_dir_, listing.path));
        for (const std::string& file : files) {
            std::string name = kro_file::ConcatPath(listing.path, file);
            if (IsInfoFileName(name)) infos.push_back({local_dir_, std::move(name)});
        }
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
            if (Erase(files, entries.name())) {
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
    // The name of the node whose files the rescan handles. Always empty, because only this
    // machine's files are in the info root.
    const std::string node_;
    const bool skip_local_;
    bool trust_local_ = true;
    std::optional<RemovedEntries> removed_;  // set by Run
    std::string encrypted_lines_;
    FailedReads failed_;
    ProgressLine* progress_ = nullptr;
    ProgressLog log_;
};

// Writes an event with the number and the total size of the backups in the info root after a
// rescan.
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
    throw std::runtime_error("the last rescan into '" + local_root + "' was interrupted (" +
                             marker +
                             " exists), so not every backup is known: run --server --rescan again");
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
