"""Decides what the page shows. The functions only process data, and return texts that are not escaped for HTML."""

from .history import current_life, date_text, protected_sums
from .texts import count_text, escaped, size_text

# The maximum number of rows in the tables of overdue users and of evictions. The page shows the number of missing rows.
MAX_ROWS = 100
# The same texts as in the text output of quarn2_report.
REASONS = {
    "count-daily": "more daily backups than the count limit", "count-full": "more full backups than the count limit",
    "size-start": "more than the size limit at the start of the server", "size-reserve": "space for an upload",
    "size-dropone": "the storage was full", "asked": "named by --delete",
    "dependant": "the full backup that it needs is deleted", "incomplete": "never completed", "clear": "--clear",
    "rescan": "the rescan did not find it on the storage", "resumed": "completion of an interrupted deletion",
    "unknown": "a reason that this version does not know"}
_STEPS = {"start": "at the next start of a server", "upload": "for the uploads of a usual night", "end": "after that night"}
_VERDICTS = {"OK": ("good", "No problem is known"), "WARNING": ("warning", "Warning"),
             "CRITICAL": ("bad", "Critical"), "UNKNOWN": ("bad", "The state is not known completely")}


class Users:
    """Adds up the backups of `--list` by user, and records the lifetimes of the complete backups."""

    def __init__(self):
        self.lives = []
        self._users = {}

    def add(self, backup):
        row = self._users.setdefault(backup["user"], {"newest": "", "full": 0, "daily": 0, "size": 0, "other": 0})
        if backup["state"] != "complete":
            row["other"] += 1
            return
        row[backup["type"]] += 1
        row["size"] += backup["size"] or 0
        row["newest"] = max(row["newest"], backup["date"])
        life = current_life(backup)
        if life:
            self.lives.append(life)

    def rows(self, overdue):
        """Returns the rows of the table, by name. `overdue` are the names of overdue users."""
        names = sorted({*self._users, *overdue})
        nothing = {"newest": "", "full": 0, "daily": 0, "size": 0, "other": 0}
        return [{"name": escaped(name), "is_overdue": name in overdue, **self._users.get(name, nothing)} for name in names]


def limit_text(limit, is_size):
    if limit is None:
        return "unknown, because no server runs"
    if limit == "none":
        return "no limit"
    return size_text(limit) if is_size else str(limit)


def forecast_text(forecast):
    if not forecast["has_data"]:
        return "unknown, there are events of too few days"
    days = forecast["expected_days"]
    if days is None:
        return "not within a year"
    return "already" if days == 0 else f"in {count_text(days, 'day')}"


def verification_text(last):
    if last is None:
        return "never"
    return (f"{last['time']}: {count_text(last['backups'], 'backup')}, {last['content']} of them downloaded, "
            f"{count_text(last['problems'], 'problem')}")


def figures(status):
    """Returns the rows (name, value) of the table of figures."""
    limits, server, backups = status["limits"], status["server"], status["backups"]
    found = [
        ("Size limit", limit_text(limits["size"], True)),
        ("Count limit, full", limit_text(limits["full"], False)),
        ("Count limit, daily", limit_text(limits["daily"], False)),
        ("Used", size_text(status["used"])),
        ("Protected: the newest chains", size_text(status["protected"])),
        ("Never evicted: custom and other backups", size_text(status["never_evicted"])),
        ("Unfinished", size_text(status["unfinished"])),
        ("Being deleted", size_text(status["being_deleted"])),
        ("Reserved", size_text(status["reserved"])),
        ("Free", "no limit" if limits["size"] == "none" else size_text(status["free"])),
        ("Users", str(status["users"])),
        ("Backups", ", ".join(f"{number} {name.replace('_', ' ')}" for name, number in backups.items() if number)
         or "none"),
        ("Dates", f"{status['oldest']} to {status['newest']}" if status["oldest"] else "none"),
        ("Evictions begin", forecast_text(status["forecast"]["evictions"])),
        ("Refusals of uploads begin", forecast_text(status["forecast"]["refusals"])),
        ("Verified", verification_text(status["verification"])),
        ("Server", server["status"] + (f", since {server['since']}" if server["since"] else "")),
    ]
    return [(name, escaped(value)) for name, value in found]


def verdict(check):
    """Returns the class, the title and the problems of the object of `--check`."""
    kind, title = _VERDICTS.get(check["status"], ("bad", check["status"]))
    return {"kind": kind, "title": title, "problems": [escaped(problem) for problem in check["problems"]]}


def bar(status):
    """Returns the parts of the size limit as (class, name, share in per cent, size), None without a limit."""
    limit = status["limits"]["size"]
    if not isinstance(limit, int) or limit <= 0:
        return None
    protected = status["protected"] + status["never_evicted"]
    in_work = status["unfinished"] + status["being_deleted"] + (status["reserved"] or 0)
    evictable = max(0, status["used"] + status["never_evicted"] - protected)
    parts, begin = [], 0.0
    for kind, name, size in (("protected", "never evicted now", protected), ("evictable", "can be evicted", evictable),
                             ("in-work", "unfinished, reserved or being deleted", in_work),
                             ("free", "free", max(0, limit - protected - evictable - in_work))):
        share = min(100.0 * size / limit, 100.0 - begin)
        parts.append({"kind": kind, "name": name, "begin": f"{begin:.2f}", "share": f"{share:.2f}", "size": size_text(size)})
        begin += share
    return parts


def overdue_rows(status):
    return [{"name": escaped(one["user"]), "date": escaped(one["date"] or "none"),
             "age": "unknown" if one["hours"] is None else count_text(one["hours"], "hour")}
            for one in status["overdue"][:MAX_ROWS]]


def evictions(steps):
    """Returns the rows of the planned deletions, their number, and the steps that are impossible."""
    rows, impossible, number = [], [], 0
    for one in steps:
        if one["action"] == "impossible":
            impossible.append(f"{_STEPS[one['step']]}: {size_text(one['missing'])} are missing even after all evictions")
        elif one["action"] == "delete":
            number += 1
            if number <= MAX_ROWS:
                rows.append({"when": _STEPS[one["step"]], "name": escaped(one["user"]), "date": escaped(one["date"]),
                             "type": one["type"], "size": size_text(one["size"]),
                             "reason": REASONS.get(one["reason"], escaped(one["reason"]))})
    return {"rows": rows, "number": number, "impossible": impossible}


def space_series(history, lives, protected_now):
    """Returns the dates and {name: values} of the plot of the space."""
    days = history.days()
    protected = protected_sums(lives + history.lives, days)
    # The events of the last day are not complete yet, so its value comes from the status of quarn2_report.
    if protected:
        protected[-1] = protected_now
    series = {"used": history.used(), "protected": protected, "limit": history.limit()}
    return [date_text(day) for day in days], {name: values for name, values in series.items()
                                              if any(value is not None for value in values)}


def deletion_series(history):
    return {REASONS.get(reason, reason): history.deletions_of(reason)
            for reason in REASONS if sum(history.deletions[reason].values())}


def table_of(dates, series, form):
    """Returns the rows of the table below a plot, the last day first."""
    return [(date, *("" if values[place] is None else form(values[place]) for values in series.values()))
            for place, date in reversed(list(enumerate(dates)))]


def span_text(name, dates, values, form):
    """Describes a line of a plot for screen readers."""
    known = [(date, value) for date, value in zip(dates, values) if value is not None]
    (first, begin), (last, end) = known[0], known[-1]
    return f"{name}: {form(begin)} on {first}, {form(end)} on {last}"


def fitting(rows, budget, size_of):
    """Returns the rows that fit into `budget` bytes. Selects overdue users first, and keeps the order of the rows."""
    chosen, left = set(), budget
    for place in sorted(range(len(rows)), key=lambda place: not rows[place]["is_overdue"]):
        left -= size_of(rows[place])
        if left < 0:
            break
        chosen.add(place)
    return [row for place, row in enumerate(rows) if place in chosen]
