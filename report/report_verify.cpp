#include "report_verify.h"

#include <algorithm>
#include <numeric>

#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "quarn2_cp2_misc_storage.h"

namespace {

// The listing of an entry. A name that is not allowed on storages cannot be listed and counts as a
// file.
std::vector<std::string> ListEntry(quarn2::Storage& storage, const std::string& entry) {
    try {
        return ListOrNothing(storage, entry);
    } catch (const kro_err::Error& error) {
        if (error.kind() != kro_err::Kind::kFailed) throw;
        return {entry};
    }
}

}  // namespace

StoredFiles::StoredFiles(quarn2::Storage& storage) : storage_(storage) {
    std::vector<std::string> names;
    storage_.List(names, "");
    root_.insert(names.begin(), names.end());
}

bool StoredFiles::Has(const std::string& name) {
    const std::string directory = kro_file::Path(name);
    if (directory.empty()) return root_.contains(name);
    if (directory != directory_) {
        names_ = NamesIn(directory);
        directory_ = directory;
    }
    return names_.contains(name);
}

std::set<std::string> StoredFiles::NamesIn(const std::string& directory) {
    std::set<std::string> names;
    for (const std::string& name : ListOrNothing(storage_, directory)) {
        names.insert(kro_file::ConcatPath(directory, name));
    }
    return names;
}

std::vector<std::string> StoredFiles::Others(const std::set<std::string>& named) {
    std::vector<std::string> others;
    AddOthers(root_, named, others);
    std::sort(others.begin(), others.end());
    return others;
}

void StoredFiles::AddOthers(const std::set<std::string>& entries,
                            const std::set<std::string>& named, std::vector<std::string>& others) {
    for (const std::string& entry : entries) {
        if (named.contains(entry)) continue;
        const std::vector<std::string> below = ListEntry(storage_, entry);
        // The listing of a file contains only the file itself.
        if (below.size() == 1 && below.front() == entry) {
            others.push_back(entry);
            continue;
        }
        std::set<std::string> names;
        for (const std::string& name : below) names.insert(kro_file::ConcatPath(entry, name));
        AddOthers(names, named, others);
    }
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
