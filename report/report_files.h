// The stored files of one backup. The functions only process data.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "quarn2/info.h"

struct StoredFile {
    std::string kind;  // "slice", "index" or "info"
    std::string name;  // the name on the storage, as --get takes it
    std::optional<std::int64_t> size;
};

// The local files beside the info file, with their sizes.
struct LocalFiles {
    std::string info_name;   // the stored name of the info file
    std::string index_name;  // the stored name of the index; empty when there is no local copy
    std::int64_t index_size = 0;
};

// The endings of an index, in place of the ".info" of its info file.
inline constexpr std::array<const char*, 3> kIndexEndings = {".1.dar", ".tgz", ".tgz.aes"};

// The files of a backup: slices in order, then the index, then the info file. The size of a file is
// known when it follows from the info file and the local files. Throws std::runtime_error when the
// info file names no slice, or a slice that cannot belong to the backup of `user` and `date`.
std::vector<StoredFile> FilesOf(const quarn2::InfoMap& info, const std::string& user,
                                const std::string& date, const LocalFiles& local);
