// The sums of --history: completed and deleted backups, refused and abandoned files, and failed
// deletions, by user and reason. EventSums only processes data.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "quarn2_cp2_event.h"

struct EventSum {
    // User, kind and reason of the events. An event that is not a deletion has the reason kNone.
    struct Key {
        std::string user;
        EventKind kind = EventKind::kUnknown;
        RemovalReason reason = RemovalReason::kNone;

        friend auto operator<=>(const Key&, const Key&) = default;
    };

    Key key;
    std::int64_t events = 0;
    std::optional<std::int64_t> size;  // in bytes, of the events that have one; unset without any

    friend bool operator==(const EventSum&, const EventSum&) = default;
};

// Adds up the events that conclude an upload or a deletion: completed, refused, abandoned, deleted
// and deletion-failed. Ignores other events. Needs memory for each user.
class EventSums {
  public:
    void Add(const Event& event);

    // The sums by user, kind and reason, in this order.
    std::vector<EventSum> Sums() const;

    // The sums of all users, by kind and reason. Their `user` is empty.
    std::vector<EventSum> Totals() const;

  private:
    std::map<EventSum::Key, EventSum> sums_;
};
