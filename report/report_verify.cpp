#include "report_verify.h"

#include <algorithm>
#include <chrono>
#include <numeric>

#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/str.h"
#include "quarn2/name_hash.h"

namespace {

using quarn2::ListedEntry;
using Entries = std::vector<ListedEntry>;

Entries ListOrNothing(quarn2::Storage& storage, const std::string& directory) {
    try {
        return storage.ListSizes(directory);
    } catch (const kro_err::Error& error) {
        if (error.kind() != kro_err::Kind::kNotFound) throw;
        return {};
    }
}

// The listing of an entry without a known size. A name that is not allowed on storages cannot be
// listed and counts as a file.
Entries ListEntry(quarn2::Storage& storage, const std::string& entry) {
    try {
        return ListOrNothing(storage, entry);
    } catch (const kro_err::Error& error) {
        if (error.kind() != kro_err::Kind::kFailed) throw;
        return {{entry, std::nullopt}};
    }
}

const ListedEntry* FindIn(const Entries& entries, const std::string& name) {
    const auto found = std::lower_bound(
        entries.begin(), entries.end(), name,
        [](const ListedEntry& entry, const std::string& key) { return entry.name < key; });
    return found != entries.end() && found->name == name ? &*found : nullptr;
}

void AddDirectory(Entries& entries, const std::string& directory) {
    for (ListedEntry& entry : entries) entry.name = kro_file::ConcatPath(directory, entry.name);
}

}  // namespace

StoredFiles::StoredFiles(quarn2::Storage& storage) : storage_(storage) { Refresh(); }

void StoredFiles::Refresh() {
    std::optional<Entries> all = storage_.ListAllFiles();
    has_all_ = all.has_value();
    root_ = all ? std::move(*all) : storage_.ListSizes("");
    directory_.clear();
    entries_.clear();
}

const ListedEntry* StoredFiles::Find(const std::string& name) {
    const std::string directory = kro_file::Path(name);
    if (has_all_ || directory.empty()) return FindIn(root_, name);
    if (directory != directory_) {
        entries_ = EntriesIn(directory);
        directory_ = directory;
    }
    return FindIn(entries_, name);
}

StoredFiles::Entries StoredFiles::EntriesIn(const std::string& directory) {
    Entries entries = ListOrNothing(storage_, directory);
    AddDirectory(entries, directory);
    return entries;
}

std::vector<std::string> StoredFiles::Others(const std::set<std::string>& named) {
    std::vector<std::string> others;
    AddOthers(root_, named, others);
    std::sort(others.begin(), others.end());
    return others;
}

void StoredFiles::AddOthers(const Entries& entries, const std::set<std::string>& named,
                            std::vector<std::string>& others) {
    for (const ListedEntry& entry : entries) {
        if (named.contains(entry.name)) continue;
        // An entry with a size is a file, because a directory has no size.
        if (has_all_ || entry.size) {
            others.push_back(entry.name);
            continue;
        }
        Entries below = ListEntry(storage_, entry.name);
        // The entry is a file if its listing contains only the entry itself.
        if (below.size() == 1 && below.front().name == entry.name) {
            others.push_back(entry.name);
            continue;
        }
        AddDirectory(below, entry.name);
        AddOthers(below, named, others);
    }
}

std::int64_t SizeOf(const quarn2::InfoMap& info) {
    const auto size = info.find("size");
    if (size == info.end()) return 0;
    try {
        return str::Int64(size->second);
    } catch (const kro_err::Error&) {
        return 0;
    }
}

std::optional<Problem> CompareSize(SizeSum sum, std::int64_t size_in_info) {
    if (!sum || *sum == size_in_info) return std::nullopt;
    return Problem{"size", "",
                   "the files have " + str::Str(*sum) + " bytes, the info file says " +
                       str::Str(size_in_info) +
                       "; --update of a file does not change the info file"};
}

Comparison Compare(const std::vector<StoredFile>& files, std::int64_t size_in_info,
                   StoredFiles& stored) {
    Comparison result;
    std::int64_t sum = 0;
    for (const StoredFile& file : files) {
        const ListedEntry* const entry = stored.Find(file.name);
        if (entry == nullptr) {
            result.problems.push_back({"missing", file.name, "is not on the storage"});
        } else if (entry->size) {
            sum += *entry->size;
        } else {
            result.is_size_known = false;
        }
    }
    if (!result.problems.empty() || !result.is_size_known) return result;
    if (auto problem = CompareSize(sum, size_in_info)) result.problems.push_back(*problem);
    return result;
}

std::vector<StoredFile> FilesToVerify(const quarn2::InfoMap& info, const std::string& user,
                                      const std::string& date, const LocalFiles& local,
                                      StoredFiles& stored) {
    std::vector<StoredFile> files = FilesOf(info, user, date, local);
    if (!local.index_name.empty()) return files;
    constexpr std::string_view kInfo = ".info";
    const std::string stem = local.info_name.substr(0, local.info_name.size() - kInfo.size());
    for (const char* ending : kIndexEndings) {
        if (stored.Find(stem + ending) == nullptr) continue;
        files.push_back({"index", stem + ending, std::nullopt});
        break;
    }
    return files;
}

std::set<std::size_t> Choose(std::size_t count, int share, unsigned seed) {
    constexpr std::size_t kAll = 100;
    std::vector<std::size_t> numbers(count);
    std::iota(numbers.begin(), numbers.end(), std::size_t{0});
    std::mt19937 engine(seed);
    std::shuffle(numbers.begin(), numbers.end(), engine);
    const std::size_t wanted = (count * static_cast<std::size_t>(share) + kAll - 1) / kAll;
    numbers.resize(std::min(wanted, count));
    return {numbers.begin(), numbers.end()};
}

int DayInRotation(const std::string& date, int days) {
    constexpr std::size_t kMonth = 5;
    constexpr std::size_t kDay = 8;
    const std::chrono::year_month_day civil(
        std::chrono::year(str::Int(date.substr(0, kMonth - 1))),
        std::chrono::month(static_cast<unsigned>(str::Int(date.substr(kMonth, 2)))),
        std::chrono::day(static_cast<unsigned>(str::Int(date.substr(kDay, 2)))));
    const auto number = std::chrono::sys_days(civil).time_since_epoch().count();
    return static_cast<int>((number % days + days) % days);
}

bool IsChosenOn(const std::string& date, const std::string& backup, int days) {
    constexpr int kHexadecimal = 16;
    const auto hash = std::stoull(quarn2::HashName("verify", backup), nullptr, kHexadecimal);
    return hash % static_cast<unsigned>(days) == static_cast<unsigned>(DayInRotation(date, days));
}
