#include "quarn2_cp2_put.h"

#include <cstdint>
#include <stdexcept>

#include "kro/kro_date.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/str.h"
#include "quarn2/info.h"
#include "quarn2/names.h"
#include "quarn2/token.h"
#include "quarn2_cp2_ledger.h"
#include "quarn2_cp2_misc.h"
#include "quarn2_cp2_misc_control.h"
#include "quarn2_cp2_misc_events.h"
#include "quarn2_cp2_misc_progress.h"
#include "quarn2_cp2_misc_slices.h"
#include "quarn2_cp2_misc_storage.h"
#include "quarn2_cp2_put_answer.h"

namespace {

constexpr kro_log::Module kLog("main");
// Users outside of its group must not read an info file, because it may contain the archive's
// password.
constexpr mode_t kInfoMode = 0640;

// Throws for a name with a blank. The node client parses a trailing " DELETE" as an option of the
// command, so the command could refer to another file.
void CheckFileName(const std::string& file) { quarn2::GetStoredName(file); }

kro_date::DateTime Created(const quarn2::InfoMap& info, const std::string& info_path) {
    const auto created = info.find("created");
    try {
        return kro_date::DateTime(created == info.end() ? "" : created->second);
    } catch (const kro_err::Error& error) {
        throw std::runtime_error("info file '" + info_path +
                                 "': the line created= is invalid: " + error.what());
    }
}

std::int64_t AddSizes(std::int64_t a, std::int64_t b) {
    std::int64_t sum = 0;
    if (a >= 0 && !__builtin_add_overflow(a, b, &sum)) return sum;
    throw std::runtime_error("the info file's size " + str::Str(a) + " cannot be used");
}

void StampTimes(quarn2::InfoMap& info, const std::string& info_path) {
    const kro_date::DateTime now = kro_date::DateTime::Now();
    info["finished"] = now.AsDateTime();
    info["duration"] = str::Str(static_cast<std::int32_t>(now - Created(info, info_path)));
}

void RecordUpload(quarn2::InfoMap& info, const std::string& info_path, const Taken& taken,
                  const kro_args::Result& args) {
    info["size"] = str::Str(AddSizes(str::Int64(info["size"]), taken.bytes));
    if (!taken.key_hash.empty()) info["key_hash"] = taken.key_hash;
    if (args.Has("tovtar")) info["last-slice"] = quarn2::GetPath(taken.name);
    if (!args.Has("convert")) StampTimes(info, info_path);
}

// Returns the text of the info file. Its "size" includes the length of this text. A larger "size"
// may have more digits and make the text longer, so the computation is repeated until the length is
// stable.
std::string JoinWithOwnSize(quarn2::InfoMap& info) {
    const std::int64_t data = str::Int64(info["size"]);
    auto length = static_cast<std::int64_t>(str::Join(info, "\n").size());
    for (;;) {
        info["size"] = str::Str(AddSizes(data, length));
        std::string text = str::Join(info, "\n");
        const auto new_length = static_cast<std::int64_t>(text.size());
        if (new_length == length) return text;
        length = new_length;
    }
}

// Records in the ledger that the info file is being uploaded. The local info file already contains
// the key "finished" before it is on the storage, so only the ledger entry shows that the backup is
// not complete yet. The node client removes the entry when the backup is complete.
void RecordInfo(const std::string& file, const std::string& local_info, const std::string& text,
                const quarn2::InfoMap& info) {
    const Ledger ledger = OwnLedger();
    const std::string last = LastSliceOf(info);
    ledger.Update(ledger.EntryNameOf(last.empty() ? file : last), [&](LedgerEntry& entry) {
        entry.completed.clear();
        entry.info = local_info;
        entry.info_bytes = static_cast<std::int64_t>(text.size());
    });
}

// Uploads the info file after the last file of a backup. The stored info file has no "node",
// because the node's name concerns only this machine.
void FinishBackup(quarn2::InfoMap& info, const std::string& file) {
    const std::string node = info["node"];
    info.erase("node");
    const std::string text = JoinWithOwnSize(info);
    const std::string local_info = quarn2::StripSliceNumber(file) + ".info";
    RecordInfo(file, local_info, text, info);
    kro_file::Write(local_info, text, kInfoMode);
    SendCommand(FormatControlCommand({ControlCommand::Word::kPutLast, local_info}));
    if (!node.empty()) {
        info["node"] = node;
        kro_file::Write(local_info, str::Join(info, "\n"), kInfoMode);
    }
}

// Throws when the key of BACKUP_TOKEN differs from the key of the backup's slices, because the file
// could not be restored together with the slices.
void CheckKey(const std::string& path) {
    if (str::EndsWith(path, ".info")) return;
    const quarn2::InfoMap info = quarn2::GetInfo(quarn2::GetInfoFile(
        kro_file::Path(path), quarn2::GetUserName(path), quarn2::GetDate(path)));
    const auto key_hash = info.find("key_hash");
    if (key_hash == info.end() || key_hash->second == TokenByEnv().Hash()) return;
    throw std::runtime_error(
        "the backup of '" + path +
        "' is encrypted with another password than the arch_password of "
        "BACKUP_TOKEN; nothing was changed. Use a token with the password of the backup");
}

}  // namespace

void CommandPut(std::shared_ptr<kro_args::Result> args) {
    const std::string file = GetArgPath(args->Args(0));
    KRO_LOG(kLog, 5, "Put %s", file.c_str());
    CheckFileName(file);
    // The upload uses the node client's token. BACKUP_TOKEN is checked as well, because the next
    // command of this job may use it.
    CheckStorageDirectory(TokenByEnv(), kDefaultInfoRoot);
    const Taken taken = ParseAnswer(SendCommand(
        FormatControlCommand({ControlCommand::Word::kPut, file, !args->Has("no-delete")})));
    if (!args->Has("info-file")) return;

    const std::string info_path = GetArgPath(args->Param("info-file"));
    quarn2::InfoMap info = quarn2::GetInfo(info_path);
    RecordUpload(info, info_path, taken, *args);
    if (args->Has("isolated")) {
        FinishBackup(info, file);
    } else {
        kro_file::Write(info_path, str::Join(info, "\n"));
    }
}

void CommandUpdate(const std::string& path) {
    const std::string last = quarn2::GetLastSliceLocalPath(path);
    if (last.empty()) {
        throw std::runtime_error(
            "the info file of '" + path +
            "' does not contain the name of the last slice; nothing was changed");
    }
    const std::string remote = kro_file::ConcatPath(kro_file::Path(last), kro_file::Name(path));
    const std::shared_ptr<quarn2::Storage> storage = GetStorageByEnv();
    CheckSource(TokenByEnv(), remote, path);
    CheckKey(path);
    // Throws when the new file does not exist, because the stored file is removed before the
    // upload.
    kro_file::Size(path);
    ProgressLine progress(1);
    storage->SetObserver(&progress);
    Event event = EventOfFile(EventKind::kRefused, remote);
    event.detail = remote;
    event.size = storage->Size(path);
    storage->RemoveFile(remote);
    if (!storage->Upload(remote, path)) {
        WriteEvent(std::move(event));
        throw std::runtime_error(
            "the storage has no space for '" + remote +
            "', and its previous content was already removed: free space and run --update again");
    }
    event.kind = EventKind::kStored;
    WriteEvent(std::move(event));
}
