// The names of the reasons for deletions in logs, events and reports.
#pragma once

#include <array>
#include <utility>

#include "quarn2_cp2_misc_reason.h"

inline constexpr std::array<std::pair<RemovalReason, const char*>, 11> kRemovalReasonNames = {{
    {RemovalReason::kCountDaily, "count-daily"},
    {RemovalReason::kCountFull, "count-full"},
    {RemovalReason::kSizeStart, "size-start"},
    {RemovalReason::kSizeReserve, "size-reserve"},
    {RemovalReason::kSizeDropOne, "size-dropone"},
    {RemovalReason::kAsked, "asked"},
    {RemovalReason::kDependant, "dependant"},
    {RemovalReason::kIncomplete, "incomplete"},
    {RemovalReason::kClear, "clear"},
    {RemovalReason::kRescan, "rescan"},
    {RemovalReason::kResumed, "resumed"},
}};
