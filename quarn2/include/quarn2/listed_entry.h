// An entry of a directory listing of a storage.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace quarn2 {

struct ListedEntry {
    std::string name;
    // The number of bytes that a file occupies on the storage. Empty for a directory, and for a
    // file when the storage's listing has no size for it.
    std::optional<std::int64_t> size;

    friend bool operator==(const ListedEntry&, const ListedEntry&) = default;
};

}  // namespace quarn2
