// Executes the commands of node clients: reservation, completion, eviction on request, release.

#include <stdexcept>
#include <utility>

#include "kro/kro_log.h"
#include "kro/str.h"
#include "quarn2_cp2_misc_cleanup.h"
#include "quarn2_cp2_misc_events.h"
#include "quarn2_cp2_misc_link.h"
#include "quarn2_cp2_server_info.h"
#include "quarn2_cp2_server_session.h"

namespace {

constexpr kro_log::Module kLog("main");
constexpr int kCompleteTraceLine = 184;  // operators' log filters match this number

using StorageDesc = GlobalSizeControl::StorageDesc;
using UserDesc = StorageDesc::UserDesc;

long long ForLog(std::int64_t number) { return static_cast<long long>(number); }

std::int64_t LockedSize(const UserDesc& user) {
    return user.backups.empty() ? 0 : user.GetLockedSize();
}

void WriteCompleted(const LinkCommand& completed, const StorageDesc& storage,
                    const std::string& node) {
    Event event;
    event.kind = EventKind::kCompleted;
    event.user = completed.user;
    event.date = completed.date;
    event.type = completed.type;
    event.size = completed.bytes;
    event.node = node;
    event.used = storage.owner->UsedSizeOf(storage);
    event.limit = storage.owner->LimitOrNothing();
    WriteEvent(std::move(event));
}

}  // namespace

void OwnReserved::Add(std::int64_t size) {
    if (resets_ != storage_.resets) sum_ = 0;
    resets_ = storage_.resets;
    sum_ = SumOfSizes(sum_, size);
    storage_.reserved = SumOfSizes(storage_.reserved, size);
    if (is_remote_) storage_.remote_reserved = SumOfSizes(storage_.remote_reserved, size);
}

void OwnReserved::ReleaseAll() {
    if (sum_ == 0) return;
    if (resets_ == storage_.resets) {
        KRO_LOG(kLog, 5, "The session has ended: %lld reserved bytes are free again", ForLog(sum_));
        storage_.reserved = LessSize(storage_.reserved, sum_);
        if (is_remote_) storage_.remote_reserved = LessSize(storage_.remote_reserved, sum_);
    }
    sum_ = 0;
}

void MasterSide::ProcessCommand(const std::string& line) {
    KRO_LOG(kLog, 8, "%s line = '%s'", "ProcessCommand", line.c_str());
    std::string answer;
    LinkCommand command;
    try {
        command = ParseLinkCommand(line);
        answer = Answer(command);
    } catch (const std::exception& error) {
        answer = FormatRefusal(error.what());
    }
    has_served_ = has_served_ || ParseLinkAnswer(answer).is_ok;
    if (!answer.empty()) SaveResult(answer);
    const bool is_complete = command.word == LinkCommand::Word::kComplete;
    if (is_complete && ParseLinkAnswer(answer).is_ok) WriteCompleted(command, storage_, node_);
}

// Returns "" for an unknown command. The server sends no answer to it.
std::string MasterSide::Answer(const LinkCommand& command) {
    switch (command.word) {
        case LinkCommand::Word::kReserve:
            return Reserve(command.bytes);
        case LinkCommand::Word::kComplete:
            return Complete(command);
        case LinkCommand::Word::kDropOne:
            return DropOne(command.count);
        case LinkCommand::Word::kRelease:
            return Release(command.bytes);
        case LinkCommand::Word::kUnknown:
            break;
    }
    return {};
}

std::string MasterSide::Reserve(std::int64_t size) {
    GlobalSizeControl& control = *storage_.owner;
    KRO_LOG(kLog, 8,
            "%s this = %p, available_size = %lld, free_size = %lld, incomplete_size = %lld, size = "
            "%lld",
            "Reserve", static_cast<void*>(&storage_), ForLog(storage_.limit),
            ForLog(storage_.free_size), ForLog(storage_.reserved), ForLog(size));
    control.RefreshUnfinished();
    control.ReclaimUnfinished(storage_, size, is_remote_);
    const std::int64_t needed = storage_.NeededFor(size, is_remote_);
    if (needed != size) {
        KRO_LOG(kLog, 8, "Unfinished backups use %lld bytes, %lld bytes are needed",
                ForLog(storage_.unfinished), ForLog(needed));
    }
    // The comparison with the limit assumes that incomplete backups stay. If they use space
    // (`needed` is larger than `size`), MakeRoom may remove some of them, so CanMakeRoom decides.
    if (needed > LessSize(storage_.limit, storage_.reserved) &&
        (needed == size || !control.CanMakeRoom(storage_, size, is_remote_))) {
        throw std::runtime_error("No disk space left on storage. Size limit: " +
                                 str::Str(control.size_limit));
    }
    control.MakeRoom(storage_, size, is_remote_);
    own_reserved_.Add(size);
    return FormatOk(control.max_count);
}

std::string MasterSide::Complete(const LinkCommand& completed) {
    const std::string& type = completed.type;
    UserDesc& user = storage_.users[completed.user];
    const std::int64_t locked_before = LockedSize(user);
    // A custom backup is not recorded. No daily depends on it, and the record would count as the
    // user's newest backup.
    const bool counted = completed.date != "custom" && (type == "full" || type == "incremental");
    if (counted) {
        UserDesc::BackupInfo& backup = user.backups[completed.date];
        backup.size = completed.bytes;
        backup.type = type == "full" ? 0 : 1;
    }
    const std::int64_t locked_after = LockedSize(user);
    KRO_LOG(kLog, 9, "%s:%d available_size = %lld, locked_before = %lld, locked_after = %lld",
            kServerSource, kCompleteTraceLine, ForLog(storage_.limit), ForLog(locked_before),
            ForLog(locked_after));
    storage_.limit = LessSize(SumOfSizes(storage_.limit, locked_before), locked_after);
    storage_.free_size = LessSize(storage_.free_size, completed.bytes);
    // A completion resets all reservations of the storage, including those for other backups.
    storage_.ResetReserved();
    if (is_remote_) KeepInfoFile(completed.user, completed.date);
    ForgetIncomplete(storage_.owner->path, completed.user, completed.date);
    return FormatOk(storage_.owner->max_count);
}

// Downloads the backup's info file. A failure is only logged: the running server counts the backup
// without the file, and an eviction downloads the file again.
void MasterSide::KeepInfoFile(const std::string& user, const std::string& date) const {
    try {
        FetchInfoFile(*storage_.storage, storage_.owner->path, user, date);
    } catch (const std::exception& error) {
        KRO_LOG(kLog, 4, "Cant keep info file of '%s.%s'. What: %s", date.c_str(), user.c_str(),
                error.what());
    }
}

std::string MasterSide::DropOne(std::int32_t count) {
    GlobalSizeControl& control = *storage_.owner;
    // With a size limit, the server has reserved the space according to its accounting. If the
    // storage is full nevertheless, other data uses the space, and deleting backups would not solve
    // the problem.
    if (control.size_limit != ServerLimits::kNoSize) {
        return FormatRefusal("Upload failed and limit is set");
    }
    control.DropOldest(count);
    return FormatOk();
}

std::string MasterSide::Release(std::int64_t size) {
    own_reserved_.Add(-size);
    return FormatOk();
}
