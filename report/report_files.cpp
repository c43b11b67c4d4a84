#include "report_files.h"

#include <stdexcept>

#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/str.h"
#include "quarn2/names.h"
#include "quarn2_cp2_misc_slices.h"

namespace {

// True for a slice name that the backup's job can create: NAME or USER/DATE/NAME. The last slice
// must belong to the archive of this user and date. Other slices can belong to archives with any
// name ("role-...").
bool IsOwnSlice(const std::string& name, const std::string& user, const std::string& date,
                bool is_last_slice) {
    const std::string directory = kro_file::Path(name);
    if (!directory.empty() && directory != kro_file::ConcatPath(user, date)) return false;
    const std::string file = kro_file::Name(name);
    return quarn2::IsSafeName(file) && (!is_last_slice || BackupKey(file) == date + "." + user);
}

[[noreturn]] void ThrowForeignSlice(const std::string& date, const std::string& slice) {
    throw std::runtime_error("the info file of the backup for " + date + " names the slice '" +
                             slice +
                             "', which does not belong to this backup; correct the info file");
}

void CheckSlices(const quarn2::InfoMap& info, const std::string& user, const std::string& date,
                 const std::vector<std::string>& slices) {
    const std::string last = LastSliceOf(info);
    if (last.empty()) {
        throw std::runtime_error(
            "the info file of the backup for " + date +
            " does not name the last slice, so the backup cannot be restored from it");
    }
    for (const std::string& slice : slices) {
        if (!IsOwnSlice(slice, user, date, slice == last)) ThrowForeignSlice(date, slice);
    }
}

// The info file on the storage is smaller than the local one, because it does not contain "node".
std::int64_t StoredInfoSize(quarn2::InfoMap info) {
    info.erase("node");
    return static_cast<std::int64_t>(str::Join(info, "\n").size());
}

std::optional<std::int64_t> TotalSize(const quarn2::InfoMap& info) {
    const auto size = info.find("size");
    try {
        if (size != info.end()) return str::Int64(size->second);
    } catch (const kro_err::Error&) {
        return std::nullopt;
    }
    return std::nullopt;
}

}  // namespace

std::vector<StoredFile> FilesOf(const quarn2::InfoMap& info, const std::string& user,
                                const std::string& date, const LocalFiles& local) {
    const std::vector<std::string> slices = NamedSlices(info);
    CheckSlices(info, user, date, slices);
    // Only plain files have the size of their local copies; encrypted files are larger.
    const bool is_plain = !info.contains("key_hash");
    const std::int64_t info_size = StoredInfoSize(info);
    const std::optional<std::int64_t> total = TotalSize(info);
    std::vector<StoredFile> files;
    constexpr std::size_t kOthers = 2;
    files.reserve(slices.size() + kOthers);
    for (const std::string& slice : slices) files.push_back({"slice", slice, std::nullopt});
    if (slices.size() == 1 && total && is_plain && !local.index_name.empty()) {
        const std::int64_t rest = *total - info_size - local.index_size;
        if (rest >= 0) files.back().size = rest;
    }
    if (!local.index_name.empty()) {
        files.push_back(
            {"index", local.index_name, is_plain ? std::optional(local.index_size) : std::nullopt});
    }
    files.push_back({"info", local.info_name, info_size});
    return files;
}
