// Fuzz target: lines of the events file. The target checks that a parsed event is written as one
// line, and that parsing this line returns the same event, except that long texts are truncated. It
// also checks that, after any content of the file, the reader still finds an event that the program
// appends.
//
// Input: the first byte is "f" if the rest is the content of an events file, any other if it is one
// line.
#include <fstream>
#include <limits>
#include <vector>

#include "fuzz.h"
#include "quarn2_cp2_event_log.h"
#include "quarn2_cp2_forecast.h"

namespace {

using fuzz::Require;

constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
constexpr const char* kPath = "events";

bool HasShortTexts(const Event& event) {
    for (const std::string* text :
         {&event.user, &event.date, &event.type, &event.node, &event.detail}) {
        if (text->size() > kMaxEventText) return false;
    }
    return true;
}

void CheckLine(const std::string& line) {
    Event event;
    if (!fuzz::Accepts([&] { event = ParseEvent(line); })) return;
    for (const auto& size : {event.size, event.used, event.limit}) {
        Require(!size || *size >= 0, "a size is not negative");
    }
    const std::string written = FormatEvent(event);
    Require(written.find('\n') == written.npos, "an event is one line");
    Require(written.size() < 32UL * 1024, "the length of a line is limited");
    Require(EventBehindFragment(written).empty(),
            "no text in an event looks like the beginning of an event");
    const Event again = ParseEvent(written);
    Require(HasShortTexts(again), "a long text is truncated");
    Require(again == event || !HasShortTexts(event),
            "parsing a written event returns the same event");
    Require(FormatEvent(again) == written, "a parsed event is written as the same line");
}

void Check(const Forecast& forecast) {
    for (const auto& days : {forecast.expected, forecast.earliest, forecast.latest}) {
        Require(!days || (*days >= 0 && *days <= kForecastDays), "a forecast is within a year");
        Require(!days || forecast.has_data, "a forecast with days has data");
    }
    Require(!forecast.expected || (forecast.earliest && *forecast.earliest <= *forecast.expected),
            "the expected day is not before the earliest");
    Require(!forecast.latest || (forecast.expected && *forecast.expected <= *forecast.latest),
            "the expected day is not after the latest");
}

void CheckFile(const std::string& text) {
    fuzz::WorkFolder();
    std::ofstream(kPath, std::ios::binary | std::ios::trunc) << text;
    Event last;
    last.kind = EventKind::kServerEnded;
    last.user = "the last one";
    EventLog(kPath).Append(last);
    DailySums sums;
    std::vector<Event> events;
    std::int64_t broken = 0;
    const auto add = [&](const Event& event) {
        events.push_back(event);
        sums.Add(event);
    };
    ReadEvents(kPath, {}, add, [&](const BrokenLine& line) {
        Require(line.number > broken && !line.reason.empty(),
                "an invalid line is reported with its number and a reason");
        broken = line.number;
    });
    Require(!events.empty() && events.back().user == last.user, "the next event is never lost");
    const auto days = sums.Days();
    Check(EvictionForecast(days));
    for (const std::int64_t size : {std::int64_t{0}, std::int64_t{1000}, kMax}) {
        Check(DepthForecast(days, static_cast<int>(size % 60)));
        Check(RefusalForecast(days, size));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    if (input.Byte() == 'f') {
        CheckFile(input.Rest());
    } else {
        CheckLine(input.Rest());
    }
    return 0;
}
