// --history: the events, in the order in which they were written, and their sums.

#include "kro/str.h"
#include "quarn2_cp2_event_log.h"
#include "report_event.h"
#include "report_modes.h"
#include "report_sums.h"
#include "report_text.h"

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

std::string SizeOrDash(std::optional<std::int64_t> size) { return size ? SizeText(*size) : "-"; }

void AddRow(Table& table, const std::string& user, const EventSum& sum) {
    table.Add({Escaped(user), TextOf(sum.key.kind), TextOf(sum.key.reason), str::Str(sum.events),
               SizeOrDash(sum.size)});
}

// The sums of all users follow those of each user, unless there is only one user.
std::string SumsText(const EventSums& events, const Names& names) {
    constexpr std::size_t kEventsColumn = 3;
    constexpr std::size_t kSizeColumn = 4;
    const std::vector<EventSum> sums = events.Sums();
    if (sums.empty()) return "";
    Table table({kEventsColumn, kSizeColumn});
    table.Add({"user", "event", "reason", "events", "size"});
    for (const EventSum& sum : sums) {
        AddRow(table, sum.key.user.empty() ? "(no user)" : names.User(sum.key.user), sum);
    }
    if (sums.front().key.user != sums.back().key.user) {
        for (const EventSum& sum : events.Totals()) AddRow(table, "(all users)", sum);
    }
    return table.Text(0);
}

void WriteSumsJson(const EventSums& events, const Names& names) {
    for (const EventSum& sum : events.Sums()) {
        Output::Json({{"user", OrNull(names.User(sum.key.user))},
                      {"event", NameOf(sum.key.kind)},
                      {"reason", OrNull(NameOf(sum.key.reason))},
                      {"events", sum.events},
                      {"size", OrNull(sum.size)}});
    }
}

// Writes each event, or only their sums (--sums).
class History {
  public:
    explicit History(const Site& site) : options_(site.options), names_(site.names) {}

    void Take(const Event& event) {
        has_events_ = true;
        const bool are_sums_shown = options_.has_only_sums || !options_.is_json;
        if (are_sums_shown) sums_.Add(event);
        if (options_.has_only_sums) return;
        if (options_.is_json) {
            Output::Json(EventJson(event, names_));
        } else {
            Output::Text(EventLine(event, names_) + "\n");
        }
    }

    void Finish() const {
        if (options_.is_json) {
            WriteSumsJson(sums_, names_);
            return;
        }
        const std::string sums = SumsText(sums_, names_);
        if (!has_events_) {
            Output::Text("no events are known here\n");
        } else if (options_.has_only_sums) {
            Output::Text(sums.empty() ? "the events contain nothing to add up\n" : sums);
        } else if (!sums.empty()) {
            Output::Text("\n" + sums);
        }
    }

  private:
    const Options& options_;
    const Names& names_;
    EventSums sums_;
    bool has_events_ = false;
};

}  // namespace

void RunHistory(Site& site) {
    BrokenLines broken(site.output);
    History history(site);
    ReadEvents(
        kEventsPath, FilterOf(site.options),
        [&history](const Event& event) { history.Take(event); },
        [&broken](const BrokenLine& line) { broken.Take(line); });
    broken.FindRest();
    history.Finish();
}
