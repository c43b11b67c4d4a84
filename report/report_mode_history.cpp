// --history: the events, in the order in which they were written.

#include "kro/str.h"
#include "quarn2_cp2_event_log.h"
#include "report_event.h"
#include "report_modes.h"

namespace {

// Counts the broken lines and names the first of them, because each finding needs memory until the
// end of the report.
class BrokenLines {
  public:
    explicit BrokenLines(Output& output) : output_(output) {}

    void Take(const BrokenLine& line) {
        constexpr std::int64_t kMaxNamed = 100;
        if (++count_ > kMaxNamed) {
            ++not_named_;
        } else if (line.number == 0) {
            output_.Find("events file: " + line.reason + "; its events are not shown");
        } else {
            output_.Find("events file '" + line.path + "', line " + str::Str(line.number) + ": " +
                         line.reason + "; the line is skipped");
        }
    }

    void FindRest() {
        if (not_named_ == 0) return;
        output_.Find("events file: " + str::Str(not_named_) + " further lines are skipped");
    }

  private:
    Output& output_;
    std::int64_t count_ = 0;
    std::int64_t not_named_ = 0;
};

EventFilter FilterOf(const Options& options) {
    EventFilter filter{options.since, options.user};
    if (!options.storage.empty()) filter.storage = options.storage;
    return filter;
}

}  // namespace

void RunHistory(Site& site) {
    BrokenLines broken(site.output);
    bool any = false;
    const auto show = [&](const Event& event) {
        any = true;
        if (site.options.is_json) {
            Output::Json(EventJson(event, site.names));
        } else {
            Output::Text(EventLine(event, site.names) + "\n");
        }
    };
    ReadEvents(kEventsPath, FilterOf(site.options), show,
               [&broken](const BrokenLine& line) { broken.Take(line); });
    broken.FindRest();
    if (!any && !site.options.is_json) Output::Text("no events are known here\n");
}
