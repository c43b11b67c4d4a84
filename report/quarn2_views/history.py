"""The history of a storage by day, computed from its events and its backups. The functions only process data."""

import bisect
import collections
import datetime

# A deletion with this reason removes files that never were a complete backup.
_NEVER_COMPLETE = "incomplete"

# The lifetime of a complete backup. `begin` is the day of its completion and `end` the day of its deletion, both as ordinals
# of datetime.date. `end` is None for a backup that still exists.
Life = collections.namedtuple("Life", "user date is_full size begin end")


def ordinal(date):
    """Returns the ordinal of a text that begins with YYYY-MM-DD, or None."""
    try:
        return datetime.date.fromisoformat((date or "")[:10]).toordinal()
    except ValueError:
        return None


def date_text(day):
    return datetime.date.fromordinal(day).isoformat()


def event_day(time):
    """Returns the local day of the time of an event."""
    return datetime.datetime.fromisoformat(time).astimezone().date().toordinal()


class History:
    """Adds up the events of the days from `first` to `last`."""

    def __init__(self, first, last):
        self.first, self.last = first, last
        self.known_from = None  # the day of the first event; earlier days are unknown
        self.intake = collections.Counter()
        self.deletions = collections.defaultdict(collections.Counter)  # {reason: {day: backups}}
        self.lives = []  # a Life for each deleted backup
        self._used, self._limit = {}, {}
        self._completed = {}

    def add(self, event):
        day = event_day(event["time"])
        if not self.first <= day <= self.last:
            return
        self.known_from = day if self.known_from is None else min(day, self.known_from)
        for values, key in ((self._used, "used"), (self._limit, "limit")):
            if event[key] is not None:
                values[day] = event[key]
        if event["event"] == "completed":
            self.intake[day] += event["size"] or 0
            self._completed[event["user"], event["date"]] = day
        elif event["event"] == "deleted":
            self._delete(event, day)

    def _delete(self, event, day):
        self.deletions[event["reason"] or "unknown"][day] += 1
        begin = self._completed.pop((event["user"], event["date"]), self.first)
        if event["reason"] != _NEVER_COMPLETE and ordinal(event["date"]) is not None:
            self.lives.append(Life(event["user"], event["date"], event["type"] == "full", event["size"] or 0, begin, day))

    def days(self):
        """Returns the days from the first event to `last`. The range is empty without events."""
        return range(self.known_from, self.last + 1) if self.known_from is not None else range(0)

    def used(self):
        return _carried(self._used, self.days())

    def limit(self):
        return _carried(self._limit, self.days())

    def intakes(self):
        return [self.intake[day] for day in self.days()]

    def deletions_of(self, reason):
        return [self.deletions[reason][day] for day in self.days()]


def _carried(values, days):
    """Returns a value for each day. A day without a value gets the previous day's value, or None before the first value."""
    found, last = [], None
    for day in days:
        last = values.get(day, last)
        found.append(last)
    return found


def current_life(backup):
    """Returns the Life of a backup from the output of `--list`, or None when the backup is not complete."""
    if backup["state"] != "complete" or ordinal(backup["date"]) is None:
        return None
    begin = ordinal(backup["finished"]) or ordinal(backup["date"])
    return Life(backup["user"], backup["date"], backup["type"] == "full", backup["size"] or 0, begin, None)


def protected_sums(lives, days):
    """Returns the protected size at the end of each day: the newest backup of each user and, if that is a daily, the
    newest full backup before it."""
    users = collections.defaultdict(list)
    for life in lives:
        users[life.user].append(life)
    changes = [0] * (len(days) + 1)
    for own in users.values():
        _add_changes(changes, own, days)
    sums, total = [], 0
    for change in changes[:-1]:
        total += change
        sums.append(total)
    return sums


def _add_changes(changes, lives, days):
    """Adds the changes of a user's protected size. It changes only on days on which a Life begins or ends."""
    marks = {days.start} | {life.begin for life in lives} | {life.end for life in lives if life.end is not None}
    before = 0
    for day in sorted(mark for mark in marks if days.start <= mark < days.stop):
        now = _protected([life for life in lives if life.begin <= day and (life.end is None or day < life.end)])
        changes[day - days.start] += now - before
        before = now


def _protected(lives):
    lives.sort(key=lambda life: life.date)
    if not lives:
        return 0
    newest = lives[-1]
    if newest.is_full:
        return newest.size
    fulls = [life for life in lives if life.is_full]
    place = bisect.bisect_left([life.date for life in fulls], newest.date)
    return newest.size + (fulls[place - 1].size if place else 0)


def usual_intake(history, days=7):
    """Returns the mean size of the backups completed per day, over the last `days` days with uploads. None without uploads."""
    sizes = [size for day, size in sorted(history.intake.items()) if size > 0][-days:]
    return sum(sizes) // len(sizes) if sizes else None
