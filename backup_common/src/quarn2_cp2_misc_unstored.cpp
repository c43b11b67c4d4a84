#include "quarn2_cp2_misc_unstored.h"

#include <filesystem>
#include <string_view>

#include "kro/kro_env.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/str.h"
#include "quarn2/info.h"

namespace {

constexpr kro_log::Module kLog("main");
constexpr mode_t kDirectoryMode = 0700;
constexpr std::string_view kFetched = ".fetched";

std::string Directory(const std::string& storage) {
    return str::Append("tmp/quarn2_cp.unstored", storage, "#");
}

std::string OwnDirectory() { return Directory(kro_env::GetEnv("BACKUP_STORAGE")); }

// The info file as its put gives it to the storage.
quarn2::InfoMap WithoutNode(const std::string& path) {
    quarn2::InfoMap info = quarn2::GetInfo(path);
    info.erase("node");
    return info;
}

// A storage may have another one, of an earlier backup with the same name.
bool IsStored(quarn2::Storage& storage, const std::string& info_path, const std::string& fetched) {
    try {
        std::string stored = storage.GetFileInfo(info_path);
        storage.Download(str::GetWord(stored), fetched);
        const bool is_same = WithoutNode(fetched) == WithoutNode(info_path);
        kro_file::RemoveFile(fetched);
        return is_same;
    } catch (const std::exception& error) {
        KRO_LOG(kLog, 6, "%s", error.what());
        return false;
    }
}

}  // namespace

void UnstoredInfo::Prepare() {
    const std::string directory = OwnDirectory();
    kro_file::MkDirSynced(directory, kDirectoryMode);
    kro_file::CheckOurDirectory(directory);
}

UnstoredInfo::UnstoredInfo(const std::string& info_path)
    : path_(kro_file::ConcatPath(OwnDirectory(), kro_file::Name(info_path))) {
    Prepare();
    kro_file::Write(path_, info_path, 0600);
}

void UnstoredInfo::Remove() const { kro_file::RemoveFile(path_); }

UnstoredInfos::UnstoredInfos(quarn2::Storage& storage, const std::string& name) {
    const std::string directory = Directory(name);
    if (!kro_file::Exists(directory)) return;
    kro_file::CheckOurDirectory(directory);
    kro_file::Dir notes(directory, 2);
    while (notes.Read()) {
        const std::string note = notes.FullName();
        if (!str::EndsWith(note, ".info")) continue;
        const std::string info_path = kro_file::ReadE(note);
        if (!kro_file::Exists(info_path) ||
            IsStored(storage, info_path, note + std::string(kFetched))) {
            kro_file::RemoveFile(note);
        } else {
            paths_.emplace(notes.name(), info_path);
        }
    }
}

bool UnstoredInfos::Contains(const std::string& info_path) const {
    if (paths_.empty()) return false;
    const auto found = paths_.find(kro_file::Name(info_path));
    std::error_code error;
    return found != paths_.end() && std::filesystem::equivalent(found->second, info_path, error);
}
