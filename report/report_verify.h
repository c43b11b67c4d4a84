// Compares the files on a storage with the backups that name them. Only lists the storage.
#pragma once

#include <cstdint>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "quarn2/info.h"
#include "quarn2/storage.h"
#include "report_files.h"

// The files on the storage. Lists all files at once if the storage can do that. Otherwise lists
// directory by directory, and caches the root and the directory that it listed last. The functions
// throw kro_err::Error when the storage cannot be listed.
class StoredFiles {
  public:
    explicit StoredFiles(quarn2::Storage& storage);

    // Returns null when the storage does not have the file. The next call of a function of this
    // object invalidates the result.
    const quarn2::ListedEntry* Find(const std::string& name);

    // Lists the storage again.
    void Refresh();

    // The files that `named` does not contain, in the order of their names.
    std::vector<std::string> Others(const std::set<std::string>& named);

  private:
    using Entries = std::vector<quarn2::ListedEntry>;

    // The entries of a directory with their complete names. A missing directory has none.
    Entries EntriesIn(const std::string& directory);
    void AddOthers(const Entries& entries, const std::set<std::string>& named,
                   std::vector<std::string>& others);

    quarn2::Storage& storage_;
    Entries root_;          // sorted by name, like every listing
    bool has_all_ = false;  // root_ contains the files of all directories
    std::string directory_;
    Entries entries_;  // the entries of directory_
};

// A difference between a backup and the storage. `kind` is the value of "problem" in the JSON
// output. `name` is the stored name of the file, or empty if the problem concerns the complete
// backup.
struct Problem {
    std::string kind;
    std::string name;
    std::string detail;
};

// The sum of the stored sizes of a backup's files. Empty when one size is unknown.
using SizeSum = std::optional<std::int64_t>;

// Returns a problem when the sum differs from the "size" of the info file, which is the sum of the
// stored sizes of the slices, the index and the info file.
std::optional<Problem> CompareSize(SizeSum sum, std::int64_t size_in_info);

// The "size" of an info file. A missing or invalid size counts as 0.
std::int64_t SizeOf(const quarn2::InfoMap& info);

// The result of the comparison of one backup with the listing.
struct Comparison {
    std::vector<Problem> problems;
    bool is_size_known = true;  // false: the listing has no size for a file of the backup
};

// Looks for the files of a backup in the listing and compares the sum of their sizes. Does not
// compare the sum when a file is missing.
Comparison Compare(const std::vector<StoredFile>& files, std::int64_t size_in_info,
                   StoredFiles& stored);

// The files of a backup for a comparison with the storage: those of FilesOf. If the index has no
// local copy, looks for it on the storage, because "size" includes it. Throws like FilesOf.
std::vector<StoredFile> FilesToVerify(const quarn2::InfoMap& info, const std::string& user,
                                      const std::string& date, const LocalFiles& local,
                                      StoredFiles& stored);

// Chooses this percentage of `count` numbers from 0, at least one if there are any and `share` is
// above 0. The same seed gives the same choice.
std::set<std::size_t> Choose(std::size_t count, int share, unsigned seed);

// The number of a date in a rotation of `days` days: from 0 to days - 1, then 0 again.
int DayInRotation(const std::string& date, int days);

// True on one of `days` consecutive dates. Depends only on the arguments, so that each backup is
// chosen once in each rotation, and about the same number of backups on each day.
bool IsChosenOn(const std::string& date, const std::string& backup, int days);
