#include "quarn2_cp2_misc_reason.h"

#include <algorithm>
#include <array>
#include <utility>

namespace {

constexpr std::array<std::pair<RemovalReason, const char*>, 13> kNames = {
    {{RemovalReason::kNone, ""},
     {RemovalReason::kUnknown, "unknown"},
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
     {RemovalReason::kResumed, "resumed"}}};

}  // namespace

const char* NameOf(RemovalReason reason) noexcept {
    const auto* const found =
        std::find_if(kNames.begin(), kNames.end(),
                     [reason](const auto& known) { return known.first == reason; });
    return found == kNames.end() ? "" : found->second;
}

RemovalReason ParseRemovalReason(std::string_view name) noexcept {
    const auto* const found = std::find_if(
        kNames.begin(), kNames.end(), [name](const auto& known) { return known.second == name; });
    return found == kNames.end() ? RemovalReason::kUnknown : found->first;
}
