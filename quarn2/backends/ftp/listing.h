// The listings of FTP servers: what lies in a directory.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quarn2::ftp {

struct Entry {
    // kOther: a link, a device.
    enum class Type { kFile, kDirectory, kOther, kUntold };

    std::string name;
    Type type = Type::kUntold;

    friend bool operator==(const Entry&, const Entry&) = default;
};

struct Listing {
    // The directory itself and the one above are not among them, nor names that could lead anywhere
    // else than to an entry of this directory.
    std::vector<Entry> entries;
    // The server listed the directory itself: what is empty is then known to exist.
    bool shows_itself = false;
    // The server shows no more of them than its limit allows.
    bool is_cut = false;
};

// A machine listing (MLSD). A line that is none is kFailed, an incomplete last one kUnavailable.
Listing ParseMachineListing(std::string_view text);

// A listing for people (LIST), in the manner of Unix or DOS. Fails likewise: an entry that is not
// understood must not be lost in silence.
Listing ParseListing(std::string_view text);

// The type in an answer to MLST; nothing when there is none in it.
std::optional<Entry::Type> ParseFacts(std::string_view reply);

}  // namespace quarn2::ftp
