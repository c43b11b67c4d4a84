// The events of the program: what happened to backups, and why. The events file contains one JSON
// object per line. Only quarn2_cp2_event.cpp writes and parses this format.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "quarn2_cp2_misc_reason.h"

// kUnknown: an event kind of a newer version of the program. Its original name is lost.
enum class EventKind {
    kUnknown,
    kStored,
    kCompleted,
    kRefused,
    kAbandoned,
    kDeletionBegun,
    kDeleted,
    kDeletionFailed,
    kServerStarted,
    kServerEnded,
    kRescan,
};

// The name of the kind in the events file, such as "deletion-begun".
const char* NameOf(EventKind kind) noexcept;

// Empty texts and unset sizes are omitted from the line.
struct Event {
    std::int64_t time = 0;  // milliseconds since 1970-01-01 00:00:00 UTC
    EventKind kind = EventKind::kUnknown;
    RemovalReason reason = RemovalReason::kNone;
    std::string user;
    std::string date;                   // of the backup: YYYY-MM-DD or "custom"
    std::string type;                   // of the backup, as in its info file
    std::optional<std::int64_t> size;   // of the backup or file, in bytes
    std::optional<std::int64_t> used;   // of the storage after the event, in bytes
    std::optional<std::int64_t> limit;  // of the storage, in bytes
    std::string node;                   // the node that made the backup, such as "local"
    std::string storage;                // the value of --storage; empty for the common storage
    std::string detail;                 // such as the text of an error; must not contain secrets

    friend bool operator==(const Event&, const Event&) = default;
};

// Longer texts of an event are truncated and end with "...".
inline constexpr std::size_t kMaxEventText = 1000;  // bytes

// The event as one line, without a line end. Times are clamped to the years 1970 to
// 9999, and negative sizes to 0. Invalid UTF-8 bytes are replaced by U+FFFD.
std::string FormatEvent(const Event& event);

// Parses a line, given without its line end. Skips unknown members. Throws kro_err::Error with
// kFailed, which gives the reason, when the line is not an event.
Event ParseEvent(std::string_view line);

// After an interrupted write, the next event follows the fragment on the same line. Returns the
// part of the line from the start of its last event, or "" when no event starts after the first
// byte.
std::string_view EventBehindFragment(std::string_view line) noexcept;

// Formats a time in milliseconds as in the events file: in UTC, such as
// "2026-11-20T12:00:00.123Z". Times are clamped to the years 1970 to 9999.
std::string EventTimeText(std::int64_t time);

// The local civil day of a time in milliseconds, as days since 1970-01-01.
int EventDay(std::int64_t time) noexcept;

// Formats a day that EventDay returned as "YYYY-MM-DD".
std::string DateOfDay(int day);

// True for a deletion that made space on the storage.
bool IsForSpace(RemovalReason reason) noexcept;
