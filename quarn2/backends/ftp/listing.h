// Parses the directory listings of FTP servers.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quarn2::ftp {

struct Entry {
    // kOther: a link or a device, for example. kUntold: the listing contains no type.
    enum class Type { kFile, kDirectory, kOther, kUntold };

    std::string name;
    Type type = Type::kUntold;

    friend bool operator==(const Entry&, const Entry&) = default;
};

struct Listing {
    // Without ".", ".." and names that contain a slash or a control character: such a name could
    // lead out of the directory.
    std::vector<Entry> entries;
    // The listing contains the directory itself, so an empty directory is known to exist.
    bool shows_itself = false;
    // The server truncated the listing at its own limit.
    bool is_cut = false;
};

// Parses a machine listing (MLSD). Throws kFailed for an invalid line and kUnavailable for an
// incomplete last line.
Listing ParseMachineListing(std::string_view text);

// Parses a listing for people (LIST) in Unix or DOS format. Throws like ParseMachineListing(),
// because an entry that cannot be parsed must not be lost silently.
Listing ParseListing(std::string_view text);

// Returns the type in a reply to MLST, nullopt if the reply contains none.
std::optional<Entry::Type> ParseFacts(std::string_view reply);

}  // namespace quarn2::ftp
