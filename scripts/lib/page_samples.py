"""Makes the state of an install root with some weeks of backups:  page_samples.py ROOT STATE

STATE is healthy, full, overdue or no-data. The info files and events are those that servers would have written. There is
neither a storage nor a server, so only quarn2_report can be used with the result. The script prints the options to use.
"""

import collections
import datetime
import json
import os
import random
import sys

DAYS = 45
USERS = 24
SEED = 7
MB = 1_000_000
LIMITS = {"healthy": 60_000 * MB, "full": 12_500 * MB, "overdue": 60_000 * MB}


class Storage:
    """Backups of each user, oldest first, as (date, is_full, size), and the events of the nights."""

    def __init__(self, limit):
        self.limit, self.used, self.events = limit, 0, []
        self.backups = collections.defaultdict(list)

    def event(self, kind, time, user, date, **members):
        self.events.append({"time": time.strftime("%Y-%m-%dT%H:%M:%S.000Z"), "event": kind, "user": user, "date": date,
                            **members, "used": self.used, "limit": self.limit})

    def delete(self, time, user, reason, place=0):
        date, is_full, size = self.backups[user].pop(place)
        self.used -= size
        self.event("deleted", time, user, date, type="full" if is_full else "incremental", reason=reason, size=size)

    def evict_for(self, time, size):
        """Deletes the oldest chain of a user, or the oldest daily of the newest chain. Returns False if there is none."""
        while self.used + size > self.limit:
            chains = [user for user, own in self.backups.items() if sum(backup[1] for backup in own) > 1]
            dailies = [user for user, own in self.backups.items() if len(own) > 2]
            if chains:
                user = max(chains, key=lambda name: len(self.backups[name]))
                self.delete(time, user, "size-reserve")
                while not self.backups[user][0][1]:
                    self.delete(time, user, "size-reserve")
            elif dailies:
                self.delete(time, max(dailies, key=lambda name: len(self.backups[name])), "size-reserve", 1)
            else:
                return False
        return True

    def put(self, time, user, is_full, size):
        date = time.strftime("%Y-%m-%d")
        kind = "full" if is_full else "incremental"
        if not self.evict_for(time, size):
            return self.event("refused", time, user, date, type=kind, size=size, detail="there is no space")
        self.used += size
        self.backups[user].append((date, is_full, size))
        self.event("completed", time, user, date, type=kind, size=size, node="local")
        while sum(is_full for _, is_full, _ in self.backups[user]) > 4:
            self.delete(time, user, "count-full")
            while not self.backups[user][0][1]:
                self.delete(time, user, "count-daily")


def nights(state, today):
    dice = random.Random(SEED)
    storage = Storage(LIMITS[state])
    sizes = {f"web{number:02}": dice.randint(20, 700) * MB for number in range(1, USERS + 1)}
    for age in range(DAYS, -1, -1):
        night = datetime.datetime.combine(today - datetime.timedelta(age), datetime.time(1))
        for place, user in enumerate(sizes):
            if state == "overdue" and place in (3, 11, 12) and age < place:
                continue
            is_full = (night.toordinal() + place) % 7 == 0 or not storage.backups[user]
            sizes[user] = int(sizes[user] * dice.uniform(0.99, 1.03))
            size = sizes[user] if is_full else int(sizes[user] * dice.uniform(0.01, 0.08))
            storage.put(night + datetime.timedelta(minutes=place), user, is_full, size)
    return storage


def write(path, text, mode=0o600):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)
    os.chmod(path, mode)


def main():
    root, state = sys.argv[1:]
    if state == "no-data":
        print("--path=var/none")
        return
    storage = nights(state, datetime.date.today())
    write(os.path.join(root, "var/quarn2_cp.events"), "".join(json.dumps(event) + "\n" for event in storage.events))
    for user, backups in storage.backups.items():
        for date, is_full, size in backups:
            letter, kind = ("F", "full") if is_full else ("I", "incremental")
            write(os.path.join(root, f"var/backup/tovarn/{date}.{user}.info"),
                  f"created={date} 01:00:00\nfinished={date} 01:30:00\nlast-slice={letter}{date}.{user}.1.dar\nsize={size}\n"
                  f"type={kind}")
    print(f"--size-limit={storage.limit}", "--count-limit=4:40")


if __name__ == "__main__":
    main()
