#include "quarn2_cp2_ledger_markers.h"

#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/kro_new_file.h"
#include "kro/str.h"
#include "quarn2/info.h"
#include "quarn2_cp2_ledger.h"
#include "quarn2_cp2_misc_slices.h"

namespace {

constexpr kro_log::Module kLog("main");

std::string ThisBoot() {
    std::string text = kro_file::ReadE("/proc/sys/kernel/random/boot_id");
    return str::GetWord(text, "\n");
}

// Converts the marker file of an upload. Its lines are the boot id, the backup and the stored name.
// A marker file of an earlier boot is only removed, because the job that wrote it has ended.
// Returns true when the file can be removed.
bool MigrateUpload(const Ledger& ledger, const std::string& path) {
    std::string text = kro_file::Read(path);
    if (str::GetWord(text, "\n") != ThisBoot()) return true;
    str::GetWord(text, "\n");
    const std::string stored = str::GetWord(text, "\n");
    if (stored.empty()) return true;
    return ledger.Update(ledger.EntryNameOf(stored), [&stored](LedgerEntry& entry) {
        entry.slices.try_emplace(stored, LedgerSlice{SliceState::kUploading, 0, ""});
    });
}

// Converts the marker file of an info file that is not on the storage yet. The marker file contains
// the path of the info file. Returns true when the marker file can be removed.
bool MigrateUnstored(const Ledger& ledger, const std::string& path) {
    if (!str::EndsWith(path, ".info")) return true;
    const std::string info_path = kro_file::Read(path);
    if (!kro_file::Exists(info_path)) return true;
    const std::string last = LastSliceOf(quarn2::GetInfo(info_path));
    const std::string name = ledger.EntryNameOf(last.empty() ? LedgerKey(info_path) : last);
    return ledger.Update(name, [&info_path](LedgerEntry& entry) {
        entry.info = info_path;
        entry.info_bytes = kro_file::Size(info_path);
    });
}

using Migrate = bool (*)(const Ledger&, const std::string&);

void MigrateDirectory(const Ledger& ledger, const std::string& directory, Migrate migrate) {
    if (!kro_file::Exists(directory)) return;
    kro_file::CheckOurDirectory(directory);
    bool all = true;
    for (const std::string& name : kro_file::NamesIn(directory)) {
        const std::string path = kro_file::ConcatPath(directory, name);
        const bool done = kro_file::IsTemporaryName(name) || migrate(ledger, path);
        if (done) kro_file::RemoveFile(path);
        all = all && done;
    }
    if (all) kro_file::Remove(directory);
}

}  // namespace

void MigrateMarkers(const std::string& storage) {
    const Ledger ledger(storage);
    try {
        MigrateDirectory(ledger, str::Append("tmp/quarn2_cp.uploads", storage, "#"), MigrateUpload);
        MigrateDirectory(ledger, str::Append("tmp/quarn2_cp.unstored", storage, "#"),
                         MigrateUnstored);
    } catch (const kro_err::Error& error) {
        KRO_LOG(kLog, 4, "Markers of an earlier version stay where they are. What: %s",
                error.what());
    }
}
