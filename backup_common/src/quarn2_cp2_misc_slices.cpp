#include "quarn2_cp2_misc_slices.h"

#include <optional>
#include <stdexcept>

#include "kro/kro_date.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/str.h"
#include "quarn2/names.h"

namespace {

constexpr std::size_t kDateSize = std::string_view("YYYY-MM-DD").size();
constexpr std::size_t kCustomHead = 1 + kDateSize;  // "C" and a date

struct Numbered {
    std::string head;  // the part before the number
    int last = 0;
    std::string tail;
};

// Parses "STEM.partN" and "STEM.N.dar". Returns nothing for a name without such a number.
std::optional<Numbered> Parse(const std::string& slice) {
    static constexpr std::string_view kDar = ".dar";
    const bool is_dar = str::EndsWith(slice, kDar);
    std::string head = is_dar ? slice.substr(0, slice.size() - kDar.size()) : slice;
    const std::string separator = is_dar ? "." : ".part";
    const std::string number = str::RGetWord(head, separator);
    if (!str::HasDigitsOnly(number)) return {};
    try {
        return Numbered{head + separator, str::Int(number), is_dar ? std::string(kDar) : ""};
    } catch (const kro_err::Error&) {
        return Numbered{head + separator, kMaxSlices + 1, ""};
    }
}

void AddSlices(std::vector<std::string>& names, const std::string& slice) {
    const std::optional<Numbered> numbered = Parse(slice);
    if (!numbered || numbered->last == 0) {
        names.push_back(slice);
        return;
    }
    if (numbered->last > kMaxSlices) {
        throw std::runtime_error("the info file contains slice '" + slice +
                                 "', but an archive has at most " + str::Str(kMaxSlices) +
                                 " slices; correct the info file");
    }
    for (int i = 1; i <= numbered->last; ++i) {
        names.push_back(numbered->head + str::Str(i) + numbered->tail);
    }
}

}  // namespace

bool NamesSlice(const std::string& key) {
    return key == "last-slice" || str::StartsWith(key, "role-");
}

std::string LastSliceOf(const quarn2::InfoMap& info) {
    const auto found = info.find("last-slice");
    std::string value = found == info.end() ? "" : found->second;
    return str::GetWord(value);
}

std::string ArchiveOf(const quarn2::InfoMap& info) {
    return quarn2::StripSliceNumber(kro_file::Name(LastSliceOf(info)));
}

std::vector<std::string> NamedSlices(const quarn2::InfoMap& info) {
    std::vector<std::string> names;
    const auto last = info.find("last-slice");
    for (const auto& [key, value] : info) {
        // A role with the same value as "last-slice" adds no slices.
        const bool is_shared = key != "last-slice" && last != info.end() && value == last->second;
        if (!NamesSlice(key) || is_shared) continue;
        std::string rest = value;
        const std::string slice = str::GetWord(rest);
        if (!slice.empty()) AddSlices(names, slice);
    }
    return names;
}

bool IsArchive(const std::string& path) {
    const std::string name = kro_file::Name(path);
    static constexpr std::string_view kLetters = "FIC";
    return name.size() > kCustomHead + 1 && kLetters.find(name.front()) != std::string::npos &&
           name[kCustomHead] == '.' && kro_date::IsDate(name.substr(1, kDateSize));
}

bool IsFirstSlice(const std::string& path) {
    if (!IsArchive(path)) return false;
    const std::optional<Numbered> numbered = Parse(kro_file::Name(path));
    return !numbered || numbered->last <= 1;
}

std::string BackupKey(const std::string& path) {
    static constexpr std::string_view kInfo = ".info";
    std::string name = kro_file::Name(path);
    if (str::EndsWith(name, kInfo)) return name.substr(0, name.size() - kInfo.size());
    if (str::StartsWith(name, "F") || str::StartsWith(name, "I")) {
        name.erase(0, 1);
    } else if (str::StartsWith(name, "C")) {
        name.replace(0, kCustomHead, "custom");
    }
    return quarn2::StripSliceNumber(name);
}

std::string LedgerKey(const std::string& path) {
    const std::string key = BackupKey(path);
    return IsArchive(key) ? BackupKey(key) : key;
}
