// Compares the files on a storage with the backups that name them. Only lists the storage.
#pragma once

#include <cstdint>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "quarn2/storage.h"

// The files on the storage, listed directory by directory. Caches the names in the root and in
// the directory that it listed last. The functions throw kro_err::Error when the storage cannot be
// listed.
class StoredFiles {
  public:
    explicit StoredFiles(quarn2::Storage& storage);

    bool Has(const std::string& name);

    // The files that `named` does not contain, in the order of their names.
    std::vector<std::string> Others(const std::set<std::string>& named);

  private:
    // The complete names of the entries of a directory. A missing directory has none.
    std::set<std::string> NamesIn(const std::string& directory);
    void AddOthers(const std::set<std::string>& entries, const std::set<std::string>& named,
                   std::vector<std::string>& others);

    quarn2::Storage& storage_;
    std::set<std::string> root_;
    std::string directory_;
    std::set<std::string> names_;  // of directory_
};

// Chooses this percentage of `count` numbers from 0, at least one if there are any and `share` is
// above 0. The same seed gives the same choice.
std::set<std::size_t> Choose(std::size_t count, int share, unsigned seed);
