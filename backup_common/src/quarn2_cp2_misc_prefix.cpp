#include "quarn2_cp2_misc_prefix.h"

#include <string>
#include <utility>
#include <vector>

#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/str.h"
#include "quarn2_cp2_misc_removal.h"

namespace {

constexpr kro_log::Module kLog("main");

}  // namespace

std::string GetPrefix(const std::string& name) {
    std::string prefix = name;
    if (!prefix.empty() && !str::IsDigit(prefix.front())) prefix.erase(0, 1);
    str::RGetWord(prefix, str::EndsWith(prefix, ".info") ? ".info" : ".tgz");
    return prefix;
}

void DeleteOnStorageIf(quarn2::Storage& storage, const TakesName& takes, const char* why) {
    std::vector<std::string> names;
    storage.List(names, "");
    std::erase_if(names, [&takes](const std::string& name) { return !takes(name); });
    for (const std::string& name : names) {
        KRO_LOG(kLog, 7, "Delete file %s (%s)", name.c_str(), why);
    }
    RemoveStoredFiles(storage, names);
    storage.SyncRemovals("");
}

void DeleteLocallyIf(const std::string& directory, const TakesName& takes, const char* why) {
    bool removed = false;
    for (const std::string& name : kro_file::NamesIn(directory)) {
        if (!takes(name)) continue;
        const std::string path = kro_file::ConcatPath(directory, name);
        KRO_LOG(kLog, 7, "Delete local file %s (%s)", path.c_str(), why);
        kro_file::RemoveFile(path);
        removed = true;
    }
    if (removed) kro_file::SyncDir(directory);
}

bool DeleteByPrefix(std::shared_ptr<quarn2::Storage> storage, const std::string& info_path) {
    KRO_LOG(kLog, 8, "%s info file = %s", "DeleteByPrefix", info_path.c_str());
    constexpr const char* kWhy = "slice name from prefix";
    try {
        const auto [directory, name] = kro_file::SplitPath(info_path);
        const std::string prefix = GetPrefix(name);
        const auto takes = [&prefix](const std::string& file) { return GetPrefix(file) == prefix; };
        DeleteOnStorageIf(*storage, takes, kWhy);
        DeleteLocallyIf(directory, takes, kWhy);
        return true;
    } catch (const std::exception& error) {
        // Administrators' log filters match the beginning of this message, so the reason is at its
        // end.
        kLog.Text(4, std::string("Cant delete backup '%' :") + " " + error.what());
        return false;
    }
}
