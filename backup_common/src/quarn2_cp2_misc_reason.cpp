#include "quarn2_cp2_misc_reason.h"

const char* NameOf(RemovalReason reason) noexcept {
    switch (reason) {
        case RemovalReason::kCountDaily:
            return "count-daily";
        case RemovalReason::kCountFull:
            return "count-full";
        case RemovalReason::kSizeStart:
            return "size-start";
        case RemovalReason::kSizeReserve:
            return "size-reserve";
        case RemovalReason::kSizeDropOne:
            return "size-dropone";
        case RemovalReason::kAsked:
            return "asked";
        case RemovalReason::kDependant:
            return "dependant";
        case RemovalReason::kIncomplete:
            return "incomplete";
        case RemovalReason::kClear:
            return "clear";
        case RemovalReason::kRescan:
            return "rescan";
        case RemovalReason::kResumed:
            return "resumed";
    }
    return "";
}
