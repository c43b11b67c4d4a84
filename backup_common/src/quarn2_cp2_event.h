// The events of the program: what happened to backups, and why. The events file contains one JSON
// object per line. Only quarn2_cp2_event.cpp writes and parses this format.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "quarn2_cp2_misc_reason.h"

// kUnknown: an event of a newer version. Its name is not kept.
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

// An empty text and a size without value are absent in the line.
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
    std::string detail;  // such as the text of an error; may contain only what may be logged

    friend bool operator==(const Event&, const Event&) = default;
};

// A longer text of an event is written cut, with "..." at its end.
inline constexpr std::size_t kMaxEventText = 1000;  // bytes

// The event as one line, without a line end. A time outside of the years 1970 to 9999 becomes the
// nearest time in them, a negative size becomes 0, and a byte that is not valid UTF-8 becomes
// U+FFFD.
std::string FormatEvent(const Event& event);

// Parses a line, given without its line end. Skips unknown members. Throws kro_err::Error with
// kFailed, which gives the reason, when the line is not an event.
Event ParseEvent(std::string_view line);

// An event that was appended to the rest of an interrupted write is not at the beginning of its
// line. Returns the part of the line from the last beginning of an event, or "" when no event
// begins after the first byte.
std::string_view EventBehindFragment(std::string_view line) noexcept;

// A time in milliseconds as in the events file: in UTC, such as "2026-11-20T12:00:00.123Z". A time
// outside of the years 1970 to 9999 becomes the nearest time in them.
std::string EventTimeText(std::int64_t time);

// The local civil day of a time in milliseconds, as days since 1970-01-01.
int EventDay(std::int64_t time) noexcept;

// Such a day as "YYYY-MM-DD".
std::string DateOfDay(int day);

// True for a deletion that made space on the storage.
bool IsForSpace(RemovalReason reason) noexcept;
