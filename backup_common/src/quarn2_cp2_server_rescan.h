// Rebuilds the info root from the storage.
#pragma once

#include <string>
#include <vector>

#include "kro/kro_args.h"
#include "kro/res_handle.h"

// Makes the local info files and indexes equal to the storage's listing. Takes the exclusive lock
// on the server's lock file before the first change and returns it. Finishes interrupted deletions
// first. Throws when the storage root cannot be listed, before it removes anything else.
ResHandle Rescan(const kro_args::Result& args);

// Throws std::runtime_error when the last rescan into the info root was interrupted. With an
// incomplete info root, a server would let the storage grow beyond its limit.
void CheckNoBrokenRescan(const std::string& local_root, const std::string& storage);

class RemovedEntries;

// Moves the entries of the local directory `dir` that are not in `names` to `removed`, except for
// the program's own files. Does nothing with `skip`.
void RemoveMissedDirs(const std::vector<std::string>& names, const std::string& dir, bool skip,
                      RemovedEntries& removed);
