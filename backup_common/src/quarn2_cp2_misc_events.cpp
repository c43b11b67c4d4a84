#include "quarn2_cp2_misc_events.h"

#include <filesystem>
#include <system_error>
#include <utility>

#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/str.h"
#include "quarn2/names.h"
#include "quarn2_cp2_event_log.h"
#include "quarn2_cp2_ledger.h"

namespace fs = std::filesystem;

namespace {

constexpr kro_log::Module kLog("main");

EventLog& OwnEvents() {
    static EventLog events;
    return events;
}

std::string ValueOf(const quarn2::InfoMap& info, const char* key) {
    const auto found = info.find(key);
    return found == info.end() ? "" : found->second;
}

// Returns nothing for a missing or malformed size. The event is then written without a size.
std::optional<std::int64_t> SizeOf(const quarn2::InfoMap& info) {
    const std::string size = ValueOf(info, "size");
    try {
        if (!size.empty()) return str::Int64(size);
    } catch (const kro_err::Error& error) {
        KRO_LOG(kLog, 8, "%s", error.what());
    }
    return std::nullopt;
}

void AddDeleted(std::vector<Event>& events, const std::string& path, RemovalReason reason) {
    if (!str::EndsWith(path, ".info")) return;
    try {
        events.push_back(EventOfBackup(EventKind::kDeleted, path, quarn2::GetInfo(path)));
        events.back().reason = reason;
    } catch (const std::exception& error) {
        KRO_LOG(kLog, 8, "%s", error.what());
    }
}

}  // namespace

void WriteEvent(Event event) noexcept {
    try {
        event.storage = OwnStorageName();
    } catch (const std::exception& error) {
        KRO_LOG(kLog, 4, "%s", error.what());
    }
    OwnEvents().Append(std::move(event));
}

void CloseEvents() noexcept { OwnEvents().Close(); }

Event EventOfFile(EventKind kind, const std::string& path) {
    const std::string name = kro_file::Name(path);
    Event event;
    event.kind = kind;
    event.user = quarn2::GetUserName(name);
    event.date = quarn2::GetDate(name);
    return event;
}

Event EventOfBackup(EventKind kind, const std::string& info_path, const quarn2::InfoMap& info) {
    Event event = EventOfFile(kind, info_path);
    event.type = ValueOf(info, "type");
    event.size = SizeOf(info);
    return event;
}

std::vector<Event> DeletedEvents(const std::string& path, RemovalReason reason) {
    std::vector<Event> events;
    AddDeleted(events, path, reason);
    std::error_code error;
    fs::recursive_directory_iterator entry(path, error);
    for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        AddDeleted(events, entry->path(), reason);
    }
    return events;
}

DeletionEvents::DeletionEvents(const std::string& info_path, const DeletionCause& cause)
    : cause_(cause), event_(EventOfFile(EventKind::kDeleted, info_path)) {
    event_.reason = cause.reason;
}

void DeletionEvents::SetInfo(const quarn2::InfoMap& info) {
    event_.type = ValueOf(info, "type");
    event_.size = SizeOf(info);
}

void DeletionEvents::Begun() const { Write(EventKind::kDeletionBegun, ""); }

void DeletionEvents::Deleted() const { Write(EventKind::kDeleted, ""); }

void DeletionEvents::Failed(std::string_view error) const {
    Write(EventKind::kDeletionFailed, error);
}

void DeletionEvents::Write(EventKind kind, std::string_view detail) const {
    if (cause_.is_part) return;
    Event event = event_;
    event.kind = kind;
    event.detail = detail;
    // Only this event has the used space, because the account changes after the last file is
    // removed.
    if (kind == EventKind::kDeleted) event.used = cause_.used;
    if (kind == EventKind::kDeleted) event.limit = cause_.limit;
    WriteEvent(std::move(event));
}
