#include "listing.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

#include "base/listing_limit.h"
#include "base/stored_name.h"
#include "kro/kro_err.h"
#include "kro/str.h"

namespace quarn2::ftp {

namespace {

using kro_err::Error;
using kro_err::Kind;
using Type = Entry::Type;

constexpr std::string_view kTypeFact = "type=";

// Separates the name of a symbolic link from its target in a LIST line.
constexpr std::string_view kArrow = " -> ";

[[noreturn]] void ThrowUnknownLine(std::string_view line) {
    throw Error(Kind::kFailed,
                "cannot parse a line of the server's directory listing: " + Quoted(line));
}

// Returns true if the name is valid for a directory entry. With an invalid name, such as "../x", a
// hostile server could make the program remove files in another directory.
bool IsEntryName(std::string_view name) {
    return !name.empty() && name.find('/') == std::string_view::npos && !HasControl(name);
}

// Returns nothing when the text is not a size.
std::optional<std::int64_t> SizeOf(std::string_view text) {
    std::int64_t size = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, size);
    const bool good = result.ec == std::errc() && result.ptr == end && size >= 0;
    return good ? std::optional(size) : std::nullopt;
}

void Add(Listing& listing, std::string_view name, Type type, std::string_view size) {
    if (name == ".") listing.shows_itself = true;
    if (name == "." || name == ".." || !IsEntryName(name)) return;
    if (listing.entries.size() >= ListingLimit::kMaxEntries) {
        throw Error(Kind::kFailed, "the server's directory listing is too long: more than " +
                                       str::Str(ListingLimit::kMaxEntries) + " entries");
    }
    listing.entries.push_back(
        {std::string(name), type, type == Type::kFile ? SizeOf(size) : std::nullopt});
}

template <class Action>
void ForEachLine(std::string_view text, const Action& action) {
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        if (end == std::string_view::npos) {
            throw Error(Kind::kUnavailable, "the server's directory listing is truncated");
        }
        std::string_view line = text.substr(0, end);
        if (line.ends_with('\r')) line.remove_suffix(1);
        action(line);
        text.remove_prefix(end + 1);
    }
}

// --- MLSD lines ---

// Returns the value of a fact of an MLSD line: "file" for "type=" in "type=file;size=3;". Returns
// "" if the line does not contain the fact.
std::string Fact(std::string_view facts, std::string_view name) {
    while (!facts.empty()) {
        const std::size_t end = std::min(facts.find(';'), facts.size());
        const std::string fact = str::Lower(facts.substr(0, end));
        if (fact.starts_with(name)) return fact.substr(name.size());
        facts.remove_prefix(std::min(end + 1, facts.size()));
    }
    return {};
}

Type TypeOf(std::string_view fact) {
    if (fact == "file") return Type::kFile;
    if (fact == "dir" || fact == "cdir" || fact == "pdir") return Type::kDirectory;
    return fact.empty() ? Type::kUnspecified : Type::kOther;
}

void AddFacts(Listing& listing, std::string_view line) {
    const std::size_t blank = line.find(' ');
    const std::string_view facts = line.substr(0, blank);
    const bool good = blank != std::string_view::npos && (facts.empty() || facts.ends_with(';'));
    if (!good) ThrowUnknownLine(line);
    const std::string type = Fact(facts, kTypeFact);
    // Skip the directory itself ("cdir") and its parent ("pdir") by their type, because some
    // servers send a full path instead of the names "." and "..".
    if (type == "cdir") listing.shows_itself = true;
    if (type == "cdir" || type == "pdir") return;
    Add(listing, line.substr(blank + 1), TypeOf(type), Fact(facts, "size="));
}

// --- LIST lines ---

// Splits a line of a listing into words, from left to right. rest() returns the unparsed part with
// its blanks.
class Words {
  public:
    explicit Words(std::string_view line) : rest_(line) {}

    std::string_view Next() {
        rest_.remove_prefix(std::min(rest_.find_first_not_of(' '), rest_.size()));
        const std::string_view word = rest_.substr(0, rest_.find(' '));
        rest_.remove_prefix(word.size());
        return word;
    }

    std::string_view rest() const noexcept { return rest_; }

  private:
    std::string_view rest_;
};

bool IsMonth(std::string_view word) {
    static constexpr std::array<std::string_view, 12> kMonths = {
        "jan", "feb", "mar", "apr", "may", "jun", "jul", "aug", "sep", "oct", "nov", "dec"};
    return std::find(kMonths.begin(), kMonths.end(), str::Lower(word)) != kMonths.end();
}

// Returns true if the word consists of two numbers separated by `mark`, such as "19:40".
bool IsPair(std::string_view word, char mark) {
    const std::size_t found = word.find(mark);
    return found != std::string_view::npos && str::HasDigitsOnly(word.substr(0, found)) &&
           str::HasDigitsOnly(word.substr(found + 1));
}

bool IsDay(std::string_view word) { return str::HasDigitsOnly(word) && word.size() <= 2; }

bool IsTimeOrYear(std::string_view word) {
    constexpr std::size_t kYear = 4;
    return IsPair(word, ':') || (str::HasDigitsOnly(word) && word.size() == kYear);
}

bool IsIsoDate(std::string_view word) {
    constexpr std::size_t kLength = 10;
    return word.size() == kLength && str::HasDigitsOnly(word.substr(0, 4)) &&
           IsPair(word.substr(5), '-');
}

// The parts of a LIST line: the size, and the part after the date.
struct SizeAndName {
    std::string_view size;
    std::string_view behind_date;
};

// Parses the size in "SIZE Nov 20 19:40" or "SIZE 2026-11-20 19:40" and the part after the date.
// The number of columns before the size differs between servers. A date must directly follow the
// size, because a group can have the name of a month.
SizeAndName ParseSizeAndName(std::string_view line) {
    Words words(line);
    std::string_view before = words.Next();
    for (std::string_view word = words.Next(); !word.empty(); word = words.Next()) {
        if (str::HasDigitsOnly(before)) {
            Words ahead = words;
            const bool iso = IsIsoDate(word) && IsPair(ahead.Next(), ':');
            if (iso) return {before, ahead.rest()};
            ahead = words;
            if (IsMonth(word) && IsDay(ahead.Next()) && IsTimeOrYear(ahead.Next())) {
                return {before, ahead.rest()};
            }
        }
        before = word;
    }
    return {};
}

bool IsUnixLine(std::string_view line) {
    constexpr std::size_t kMode = 10;
    return line.size() > kMode &&
           std::string_view("-dlbcpsD").find(line.front()) != std::string_view::npos &&
           line.substr(1, kMode - 1).find_first_not_of("rwxsStTlL-") == std::string_view::npos;
}

void AddUnixLine(Listing& listing, std::string_view line) {
    auto [size, name] = ParseSizeAndName(line);
    // One blank separates the date from the name. Further blanks belong to the name.
    if (name.size() < 2) ThrowUnknownLine(line);
    name.remove_prefix(1);
    if (line.front() == 'l') {
        const std::size_t arrow = name.find(kArrow);
        // If " -> " occurs twice, the end of the link's name is ambiguous. Skip the entry, so that
        // a removal cannot remove another file.
        if (arrow != name.rfind(kArrow)) return;
        name = name.substr(0, arrow);
    }
    Type type = Type::kOther;
    if (line.front() == '-') type = Type::kFile;
    if (line.front() == 'd') type = Type::kDirectory;
    Add(listing, name, type, size);
}

bool IsDosDate(std::string_view word) {
    constexpr std::size_t kShort = 8;
    constexpr std::size_t kLong = 10;
    return (word.size() == kShort || word.size() == kLong) && word[2] == '-' && word[5] == '-' &&
           str::HasDigitsOnly(word.substr(0, 2)) && str::HasDigitsOnly(word.substr(3, 2)) &&
           str::HasDigitsOnly(word.substr(6));
}

// Parses a LIST line in DOS format: "11-20-26 07:40PM <DIR> name" or "11-20-26 07:40PM 12345 name".
// Returns false for a line in another format.
bool AddDosLine(Listing& listing, std::string_view line) {
    Words words(line);
    if (!IsDosDate(words.Next())) return false;
    const std::string_view time = words.Next();
    const std::string_view size = words.Next();
    const bool directory = size == "<DIR>";
    if (time.find(':') == std::string_view::npos || !(directory || str::HasDigitsOnly(size)))
        return false;
    std::string_view name = words.rest();
    constexpr std::size_t kColumns = 10;
    const std::size_t blanks = std::min(name.find_first_not_of(' '), name.size());
    name.remove_prefix(std::min(directory ? kColumns : 1, blanks));
    if (name.empty()) return false;
    Add(listing, name, directory ? Type::kDirectory : Type::kFile, size);
    return true;
}

void AddLine(Listing& listing, std::string_view line) {
    Words words(line);
    const bool total =
        words.Next() == "total" && str::HasDigitsOnly(words.Next()) && words.Next().empty();
    if (line.empty() || total) return;
    if (IsUnixLine(line)) {
        AddUnixLine(listing, line);
    } else if (!AddDosLine(listing, line)) {
        ThrowUnknownLine(line);
    }
}

}  // namespace

Listing ParseMachineListing(std::string_view text) {
    Listing listing;
    ForEachLine(text, [&listing](std::string_view line) { AddFacts(listing, line); });
    return listing;
}

Listing ParseListing(std::string_view text) {
    Listing listing;
    ForEachLine(text, [&listing](std::string_view line) { AddLine(listing, line); });
    return listing;
}

std::optional<Type> ParseFacts(std::string_view reply) {
    while (!reply.empty()) {
        const std::size_t end = std::min(reply.find('\n'), reply.size());
        std::string_view line = reply.substr(0, end);
        line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
        const std::string type = Fact(line.substr(0, line.find(' ')), kTypeFact);
        if (!type.empty()) return TypeOf(type);
        reply.remove_prefix(std::min(end + 1, reply.size()));
    }
    return std::nullopt;
}

}  // namespace quarn2::ftp
