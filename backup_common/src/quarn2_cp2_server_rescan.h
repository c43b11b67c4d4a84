// Rebuilding the info root from the storage.
#pragma once

#include <string>
#include <vector>

#include "kro/kro_args.h"
#include "kro/res_handle.h"

// Makes the local info files and indexes what the storage lists. Returns the server's lock,
// exclusive, taken before the first change. A storage whose root cannot be listed is an error
// before anything is removed.
ResHandle Rescan(const kro_args::Result& args);

// std::runtime_error when the last rescan into the info root was broken off: a server that took
// what is there for everything would let the storage grow beyond its limit.
void CheckNoBrokenRescan(const std::string& local_root, const std::string& storage);

class RemovedEntries;

// Unless `skip`: moves the entries of the local directory that are not among the names to
// `removed`.
void RemoveMissedDirs(const std::vector<std::string>& names, const std::string& dir, bool skip,
                      RemovedEntries& removed);
