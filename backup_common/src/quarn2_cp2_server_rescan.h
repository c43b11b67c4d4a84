// Rebuilds the info root from the storage.
#pragma once

#include <string>
#include <vector>

#include "kro/kro_args.h"
#include "kro/res_handle.h"

// Updates the local info files and indexes so that they match the files on the storage. Before the
// first change, takes the exclusive lock on the server's lock file and returns this lock. Finishes
// interrupted deletions first. When the storage root cannot be listed, throws without any further
// change.
ResHandle Rescan(const kro_args::Result& args);

// Throws std::runtime_error when the last rescan into the info root was interrupted. With an
// incomplete info root, a server would let the storage grow beyond its limit.
void CheckNoBrokenRescan(const std::string& local_root, const std::string& storage);

class RemovedEntries;

// Moves files and directories in the local directory `dir` to `removed` when their names are not in
// `names`. Keeps the program's own files. Does nothing when `skip` is true.
void RemoveMissedDirs(const std::vector<std::string>& names, const std::string& dir, bool skip,
                      RemovedEntries& removed);
