// Derives the names of a backup's slices from its info file, and the backup of a file from the
// file's name. The functions only process text and do not access files.
#pragma once

#include <string>
#include <vector>

#include "quarn2/info.h"

// The maximum number of slices of an archive for which the slice names are generated.
inline constexpr int kMaxSlices = 100000;

// True for the keys "last-slice" and "role-..." of an info file. Their values begin with the name
// of a slice.
bool NamesSlice(const std::string& key);

// The stored names of all slices in the values of "last-slice" and "role-...". A slice name with a
// number N represents the slices from 1 to N. A name without a number is one slice. A role with the
// same value as "last-slice" adds no slices. Throws std::runtime_error when an archive has more
// than kMaxSlices slices.
std::vector<std::string> NamedSlices(const quarn2::InfoMap& info);

// The first word of the value of "last-slice"; empty when the info file has no such key.
std::string LastSliceOf(const quarn2::InfoMap& info);

// The name of the archive in "last-slice", without directory and slice number; empty when the info
// file has no such key.
std::string ArchiveOf(const quarn2::InfoMap& info);

// True for the name of an archive file: a type letter, a date, a dot and the rest of the name.
// `path` may have directories.
bool IsArchive(const std::string& path);

// True for slice 1 of an archive, and for an archive that is a single file. The upload of such a
// file starts the backup from the beginning.
bool IsFirstSlice(const std::string& path);

// The name that the slices, index files and the info file of one backup share: DATE.USER, or
// custom.USER. `path` may have directories.
std::string BackupKey(const std::string& path);

// Like BackupKey, but also accepts an info file whose name begins with a type letter.
std::string LedgerKey(const std::string& path);
