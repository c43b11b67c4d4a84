#include "report_event.h"

#include <algorithm>
#include <array>
#include <utility>

#include "kro/kro_date.h"
#include "kro/str.h"
#include "report_output.h"
#include "report_text.h"

namespace {

// Hides the complete detail of an event without a user, because the detail may contain a user name,
// for example in the path of an info file.
std::string DetailOf(const Event& event, const Names& names) {
    if (event.user.empty() && event.kind != EventKind::kRescan) return names.Free(event.detail);
    return names.In(event.detail, event.user);
}

std::string UsedText(const Event& event) {
    if (!event.used) return "";
    const std::string used = "used " + SizeText(*event.used);
    return event.limit ? used + " of " + SizeText(*event.limit) : used;
}

// The values of the event after its user and date.
std::string ValuesText(const Event& event, const Names& names) {
    const std::array<std::string, 7> values = {
        event.type,
        event.size ? SizeText(*event.size) : "",
        TextOf(event.reason),
        UsedText(event),
        event.node.empty() ? "" : "node " + event.node,
        event.storage.empty() ? "" : "storage " + names.User(event.storage),
        DetailOf(event, names)};
    std::string text;
    for (const std::string& value : values) text = str::Append(text, value, ", ");
    return text;
}

// The name of the event, padded with blanks to the length of the longest name.
std::string PaddedText(EventKind kind) {
    constexpr std::size_t kWidth = std::string_view("deletion failed").size();
    std::string text = TextOf(kind);
    text.resize(std::max(text.size(), kWidth), ' ');
    return text;
}

}  // namespace

std::string TextOf(EventKind kind) {
    std::string text = NameOf(kind);
    std::replace(text.begin(), text.end(), '-', ' ');
    return text;
}

const char* TextOf(RemovalReason reason) noexcept {
    switch (reason) {
        case RemovalReason::kNone:
            break;
        case RemovalReason::kUnknown:
            return "a reason that this version does not know";
        case RemovalReason::kCountDaily:
            return "more daily backups than the count limit";
        case RemovalReason::kCountFull:
            return "more full backups than the count limit";
        case RemovalReason::kSizeStart:
            return "more than the size limit at the start of the server";
        case RemovalReason::kSizeReserve:
            return "space for an upload";
        case RemovalReason::kSizeDropOne:
            return "the storage was full";
        case RemovalReason::kAsked:
            return "named by --delete";
        case RemovalReason::kDependant:
            return "the full backup that it needs is deleted";
        case RemovalReason::kIncomplete:
            return "never completed";
        case RemovalReason::kClear:
            return "--clear";
        case RemovalReason::kRescan:
            return "the rescan did not find it on the storage";
        case RemovalReason::kResumed:
            return "completion of an interrupted deletion";
    }
    return "";
}

std::string LocalTime(std::int64_t time) {
    constexpr std::int64_t kMsPerSecond = 1000;
    return kro_date::DateTime(static_cast<std::time_t>(time / kMsPerSecond)).AsDateTime();
}

std::string EventLine(const Event& event, const Names& names) {
    const std::string backup = str::Append(names.User(event.user), names.Date(event.date), " ");
    std::string line = LocalTime(event.time) + "  " + PaddedText(event.kind) + "  ";
    line += str::Append(backup, ValuesText(event, names), ": ");
    line.erase(line.find_last_not_of(' ') + 1);
    return Escaped(line);
}

kro_json::Object EventJson(const Event& event, const Names& names) {
    return {{"time", EventTimeText(event.time)},
            {"event", NameOf(event.kind)},
            {"reason", OrNull(NameOf(event.reason))},
            {"user", OrNull(names.User(event.user))},
            {"date", OrNull(names.Date(event.date))},
            {"type", OrNull(event.type)},
            {"size", OrNull(event.size)},
            {"used", OrNull(event.used)},
            {"limit", OrNull(event.limit)},
            {"node", OrNull(event.node)},
            {"storage", OrNull(names.User(event.storage))},
            {"detail", OrNull(DetailOf(event, names))}};
}
