// Events as text and as JSON. The functions only process data.
#pragma once

#include <string>

#include "kro/kro_json.h"
#include "quarn2_cp2_event.h"
#include "report_names.h"

// The name of the event in words, such as "deletion failed".
std::string TextOf(EventKind kind);

// The reason in words, such as "space for an upload". "" when there is no reason.
const char* TextOf(RemovalReason reason) noexcept;

// The local time of an event, as "YYYY-MM-DD HH:MM:SS".
std::string LocalTime(std::int64_t time);

// The event as one line without a line end, escaped: time, event, user and date, then its other
// values.
std::string EventLine(const Event& event, const Names& names);

// The members of the event as in the events file. A value that the event does not have is null.
kro_json::Object EventJson(const Event& event, const Names& names);
