#include "quarn2_cp2_misc_removal.h"

#include <list>
#include <utility>
#include <vector>

#include "kro/kro_date.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/str.h"
#include "quarn2_cp2_misc.h"

namespace {

constexpr kro_log::Module kLog("main");
constexpr const char* kKey = "deletion";

}  // namespace

Removal::Removal(std::shared_ptr<quarn2::Storage> storage, const std::string& info_path,
                 quarn2::InfoMap info)
    : storage_(std::move(storage)),
      info_path_(info_path),
      info_(std::move(info)),
      marked_(info_.contains(kKey)) {
    Mark();
}

void Removal::Mark() {
    // Somebody else may be deleting the same backup.
    if (marked_ || !kro_file::Exists(info_path_)) return;
    const std::string old_text = kro_file::Read(info_path_);
    info_.erase("finished");
    info_[kKey] = kro_date::DateTime::Now().AsDateTime();
    try {
        kro_file::Write(info_path_, str::Join(info_, "\n"));
        old_text_ = old_text;
        marked_ = true;
    } catch (const kro_file::CopyError& error) {
        if (!error.IsFull()) throw;
        KRO_LOG(kLog, 4, "Cant mark '%s' as being deleted. What: %s", info_path_.c_str(),
                error.what());
    }
}

void Removal::RemoveFile(const std::string& name) {
    try {
        storage_->RemoveFile(name);
    } catch (const kro_err::Error& error) {
        // Whatever else failed may have failed after the file was gone.
        touched_ = touched_ || (error.type() != "not_found" && error.type() != "unauthorized");
        throw;
    }
    if (!touched_) Mark();
    touched_ = true;
}

void Removal::RemoveDir(const std::string& name) {
    // It may fail in the middle.
    touched_ = true;
    storage_->RemoveDir(name);
}

void Removal::GiveUp() const noexcept {
    if (touched_ || old_text_.empty()) return;
    try {
        kro_file::Write(info_path_, old_text_);
    } catch (const std::exception& error) {
        KRO_LOG(kLog, 4, "Cant restore '%s'. What: %s", info_path_.c_str(), error.what());
    }
}

void RemoveDirectory(const std::string& directory, const std::string& last) {
    std::vector<std::string> paths;
    kro_file::Dir entries(directory, 2);
    while (entries.Read()) {
        if (entries.name() != last) paths.push_back(entries.FullName());
    }
    for (const std::string& path : paths) kro_file::Remove(path);
    if (!paths.empty()) kro_file::SyncDir(directory);
    kro_file::Remove(directory);
}

bool IsBeingDeleted(const quarn2::InfoReader& info) { return info.Find(kKey).has_value(); }

void FinishDeletions(const std::shared_ptr<quarn2::Storage>& storage,
                     const std::string& directory) {
    std::list<std::string> paths;
    quarn2::GetInfoFiles(paths, directory, false, "", "");
    quarn2::InfoReader info;
    for (const std::string& path : paths) {
        try {
            info.Read(path);
        } catch (const kro_err::Error&) {
            continue;  // whoever needs it says what is wrong with it
        }
        if (!IsBeingDeleted(info)) continue;
        KRO_LOG(kLog, 5, "Finish the deletion of '%s'", path.c_str());
        Delete(storage, path, false);
    }
}
