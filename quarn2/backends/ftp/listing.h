// Parses the directory listings of FTP servers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quarn2::ftp {

struct Entry {
    // The type of a directory entry. kOther: for example a link or a device. kUnspecified: the
    // listing contains no type.
    enum class Type { kFile, kDirectory, kOther, kUnspecified };

    std::string name;
    Type type = Type::kUnspecified;
    std::optional<std::int64_t> size = std::nullopt;  // of a file, if the listing contains it

    friend bool operator==(const Entry&, const Entry&) = default;
};

struct Listing {
    // The entries of the directory without ".", ".." and names that contain a slash or a control
    // character, because a path with such a name could point outside the directory.
    std::vector<Entry> entries;
    // The listing contains an entry for the directory itself, which proves that an empty directory
    // exists.
    bool shows_itself = false;
    // The listing is incomplete because the server limits the number of entries.
    bool is_cut = false;
};

// Parses a machine-readable listing (MLSD). Throws kFailed for an invalid line, and kUnavailable if
// the last line is incomplete.
Listing ParseMachineListing(std::string_view text);

// Parses a human-readable listing (LIST) in Unix or DOS format. Throws like ParseMachineListing()
// if a line cannot be parsed, because no entry may be lost silently.
Listing ParseListing(std::string_view text);

// Returns the type in a reply to MLST, or nullopt if the reply contains no type.
std::optional<Entry::Type> ParseFacts(std::string_view reply);

}  // namespace quarn2::ftp
