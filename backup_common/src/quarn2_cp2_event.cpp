#include "quarn2_cp2_event.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <utility>

#include "kro/kro_date.h"
#include "kro/kro_err.h"
#include "kro/kro_json.h"

namespace {

using std::chrono::day;
using std::chrono::days;
using std::chrono::milliseconds;
using std::chrono::month;
using std::chrono::sys_days;
using std::chrono::sys_time;
using std::chrono::year;
using std::chrono::year_month_day;

template <class Value, std::size_t kSize>
using Names = std::array<std::pair<Value, const char*>, kSize>;

constexpr Names<EventKind, 11> kKinds = {{{EventKind::kUnknown, "unknown"},
                                          {EventKind::kStored, "stored"},
                                          {EventKind::kCompleted, "completed"},
                                          {EventKind::kRefused, "refused"},
                                          {EventKind::kAbandoned, "abandoned"},
                                          {EventKind::kDeletionBegun, "deletion-begun"},
                                          {EventKind::kDeleted, "deleted"},
                                          {EventKind::kDeletionFailed, "deletion-failed"},
                                          {EventKind::kServerStarted, "server-started"},
                                          {EventKind::kServerEnded, "server-ended"},
                                          {EventKind::kRescan, "rescan"}}};

// The names of the text and size members, in the order in which they are written. `reason`
// precedes the first of them.
constexpr std::array<std::pair<const char*, std::string Event::*>, 3> kBackupTexts = {
    {{"user", &Event::user}, {"date", &Event::date}, {"type", &Event::type}}};
constexpr std::array<std::pair<const char*, std::optional<std::int64_t> Event::*>, 3> kSizes = {
    {{"size", &Event::size}, {"used", &Event::used}, {"limit", &Event::limit}}};
constexpr std::array<std::pair<const char*, std::string Event::*>, 3> kOtherTexts = {
    {{"node", &Event::node}, {"storage", &Event::storage}, {"detail", &Event::detail}}};

// The beginning of each line. It cannot occur within a text, because quotes are escaped
// there.
constexpr std::string_view kBegin = R"({"time":")";

constexpr std::int64_t kMsPerSecond = 1000;
constexpr std::int64_t kMaxTime = 253402300799999;  // 9999-12-31 23:59:59.999
constexpr std::string_view kTimeShape = "dddd-dd-ddTdd:dd:dd.dddZ";

template <class Value, std::size_t kSize>
Value ParseName(const Names<Value, kSize>& names, std::string_view name) {
    const auto found = std::find_if(names.begin(), names.end(),
                                    [name](const auto& known) { return known.second == name; });
    return found == names.end() ? Value::kUnknown : found->first;
}

[[noreturn]] void ThrowNoEvent(const std::string& why) {
    throw kro_err::Error(kro_err::Kind::kFailed, why);
}

bool HasTimeShape(std::string_view text) noexcept {
    return std::equal(
        text.begin(), text.end(), kTimeShape.begin(), kTimeShape.end(),
        [](char c, char shape) { return shape == 'd' ? c >= '0' && c <= '9' : c == shape; });
}

int Number(std::string_view text, std::size_t begin, std::size_t size) noexcept {
    int value = 0;
    for (const char c : text.substr(begin, size)) value = value * 10 + (c - '0');
    return value;
}

std::int64_t ParseTime(std::string_view text) {
    if (!HasTimeShape(text)) ThrowNoEvent("the time is not of the form YYYY-MM-DDTHH:MM:SS.mmmZ");
    const year_month_day date(year(Number(text, 0, 4)),
                              month(static_cast<unsigned>(Number(text, 5, 2))),
                              day(static_cast<unsigned>(Number(text, 8, 2))));
    const int hours = Number(text, 11, 2);
    const int minutes = Number(text, 14, 2);
    const int seconds = Number(text, 17, 2);
    if (!date.ok() || hours > 23 || minutes > 59 || seconds > 59) {
        ThrowNoEvent("this date or time does not exist");
    }
    const std::int64_t days_since_1970 = sys_days(date).time_since_epoch().count();
    const std::int64_t of_day = (hours * 60LL + minutes) * 60 + seconds;
    const std::int64_t time =
        (days_since_1970 * 24 * 60 * 60 + of_day) * kMsPerSecond + Number(text, 20, 3);
    if (time < 0) ThrowNoEvent("the time is before 1970");
    return time;
}

// Truncates at a character boundary, never within a multi-byte character.
std::string Shortened(const std::string& text) {
    constexpr std::string_view kDots = "...";
    if (text.size() <= kMaxEventText) return text;
    std::size_t end = kMaxEventText - kDots.size();
    const auto is_continuation = [&text](std::size_t at) {
        return (static_cast<unsigned char>(text[at]) & 0xC0U) == 0x80U;
    };
    while (end > 0 && is_continuation(end)) --end;
    return text.substr(0, end).append(kDots);
}

// The value of a member, or null when it is missing or null.
const kro_json::Value* FindMember(const kro_json::Value& object, const char* name) noexcept {
    const kro_json::Value* value = object.Find(name);
    return value == nullptr || value->IsNull() ? nullptr : value;
}

std::string ParseText(const kro_json::Value& object, const char* name) {
    const kro_json::Value* value = FindMember(object, name);
    if (value == nullptr) return {};
    const std::string* text = value->AsText();
    if (text == nullptr) ThrowNoEvent(std::string("the member '") + name + "' is not a string");
    return *text;
}

std::optional<std::int64_t> ParseSize(const kro_json::Value& object, const char* name) {
    const kro_json::Value* value = FindMember(object, name);
    if (value == nullptr) return std::nullopt;
    const std::int64_t* size = value->AsInt();
    if (size == nullptr || *size < 0) {
        ThrowNoEvent(std::string("the member '") + name + "' is not a size in bytes");
    }
    return *size;
}

template <std::size_t kSize>
void AddTexts(kro_json::Object& object, const Event& event,
              const std::array<std::pair<const char*, std::string Event::*>, kSize>& members) {
    for (const auto& [name, member] : members) {
        if (!(event.*member).empty()) object.push_back({name, Shortened(event.*member)});
    }
}

}  // namespace

const char* NameOf(EventKind kind) noexcept {
    const auto* const found = std::find_if(
        kKinds.begin(), kKinds.end(), [kind](const auto& known) { return known.first == kind; });
    return found == kKinds.end() ? "" : found->second;
}

std::string EventTimeText(std::int64_t time) {
    const sys_time<milliseconds> point(milliseconds(std::clamp<std::int64_t>(time, 0, kMaxTime)));
    const auto midnight = std::chrono::floor<days>(point);
    const year_month_day date(midnight);
    const std::chrono::hh_mm_ss of_day(point - midnight);
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ",
                  static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                  static_cast<unsigned>(date.day()), static_cast<int>(of_day.hours().count()),
                  static_cast<int>(of_day.minutes().count()),
                  static_cast<int>(of_day.seconds().count()),
                  static_cast<int>(of_day.subseconds().count()));
    return text.data();
}

std::string FormatEvent(const Event& event) {
    kro_json::Object object;
    constexpr std::size_t kMembers = 12;
    object.reserve(kMembers);
    object.push_back({"time", EventTimeText(event.time)});
    object.push_back({"event", NameOf(event.kind)});
    if (event.reason != RemovalReason::kNone) {
        object.push_back({"reason", NameOf(event.reason)});
    }
    AddTexts(object, event, kBackupTexts);
    for (const auto& [name, member] : kSizes) {
        if (event.*member) object.push_back({name, std::max<std::int64_t>(*(event.*member), 0)});
    }
    AddTexts(object, event, kOtherTexts);
    return kro_json::Format(std::move(object));
}

Event ParseEvent(std::string_view line) {
    const kro_json::Value object = kro_json::Parse(line);
    if (object.AsObject() == nullptr) ThrowNoEvent("this is not a JSON object");
    Event event;
    event.time = ParseTime(ParseText(object, "time"));
    const std::string kind = ParseText(object, "event");
    if (kind.empty()) ThrowNoEvent("the member 'event' is missing");
    event.kind = ParseName(kKinds, kind);
    event.reason = ParseRemovalReason(ParseText(object, "reason"));
    for (const auto& [name, member] : kBackupTexts) event.*member = ParseText(object, name);
    for (const auto& [name, member] : kSizes) event.*member = ParseSize(object, name);
    for (const auto& [name, member] : kOtherTexts) event.*member = ParseText(object, name);
    return event;
}

std::string_view EventBehindFragment(std::string_view line) noexcept {
    const std::size_t begin = line.rfind(kBegin);
    return begin == line.npos || begin == 0 ? std::string_view() : line.substr(begin);
}

int EventDay(std::int64_t time) noexcept {
    const std::time_t seconds = time / kMsPerSecond;
    std::tm civil{};
    localtime_r(&seconds, &civil);
    const year_month_day date(year(civil.tm_year + 1900),
                              month(static_cast<unsigned>(civil.tm_mon + 1)),
                              day(static_cast<unsigned>(civil.tm_mday)));
    return static_cast<int>(sys_days(date).time_since_epoch().count());
}

std::string DateOfDay(int day) {
    kro_date::Date date("1970-01-01");
    date.AddDays(day);
    return date.AsDate();
}

bool IsForSpace(RemovalReason reason) noexcept {
    return reason == RemovalReason::kSizeStart || reason == RemovalReason::kSizeReserve ||
           reason == RemovalReason::kSizeDropOne;
}
