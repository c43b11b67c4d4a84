// Names of stored files: those that an info file names, and the backup to which a file belongs.
// Pure functions on text.
#pragma once

#include <string>
#include <vector>

#include "quarn2/info.h"

// The maximum number of slices of an archive that are addressed one by one.
inline constexpr int kMaxSlices = 100000;

// True for the keys of an info file whose value begins with the name of a slice.
bool NamesSlice(const std::string& key);

// The stored names of every slice that the info file names: of "last-slice" and of each role with
// slices of its own, from slice 1 to the last. A name without a number is one slice. Throws
// std::runtime_error when an archive has more than kMaxSlices slices.
std::vector<std::string> NamedSlices(const quarn2::InfoMap& info);

// The first word of "last-slice"; empty without one.
std::string LastSliceOf(const quarn2::InfoMap& info);

// The name of the archive that "last-slice" names, without directory and slice number; empty
// without one.
std::string ArchiveOf(const quarn2::InfoMap& info);

// True for the name of an archive file: a type letter, a date, a dot. `path` may have directories.
bool IsArchive(const std::string& path);

// True for slice 1 and for an archive that is one file. Its upload starts the backup again.
bool IsFirstSlice(const std::string& path);

// The name that the slices, index files and the info file of one backup share: DATE.USER, or
// custom.USER. `path` may have directories.
std::string BackupKey(const std::string& path);

// Like BackupKey, but also for an info file with a type letter.
std::string LedgerKey(const std::string& path);
