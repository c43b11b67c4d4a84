"""Maps the values of quarn2_report to metrics. The functions only process data."""

from typing import NamedTuple

from .texts import day_seconds, seconds

_SECONDS_PER_DAY = 24 * 60 * 60
_SECONDS_PER_HOUR = 60 * 60


class Metric(NamedTuple):
    """A metric. `samples` is a list of (labels, value), to which text_of() adds the label `storage`."""
    name: str
    text: str
    samples: list
    labels: tuple = ()
    is_counter: bool = False


def _number(value):
    """Returns the samples of a value. An unknown value (None) and a missing limit ("none") have no sample."""
    return [] if value is None or isinstance(value, str) else [((), value)]


def _each(values):
    return [((name,), value) for name, value in values.items() if value is not None and not isinstance(value, str)]


# (name, path of keys in the status, help)
_GAUGES = (
    ("quarn2_used_bytes", ("used",), "Size of the complete backups."),
    ("quarn2_protected_bytes", ("protected",), "Part of the used size that no eviction deletes: the newest chains."),
    ("quarn2_never_evicted_bytes", ("never_evicted",), "Size of custom backups and others that are never evicted."),
    ("quarn2_unfinished_bytes", ("unfinished",), "Size of the files of backups that are not complete."),
    ("quarn2_being_deleted_bytes", ("being_deleted",), "Size of backups whose deletion has begun."),
    ("quarn2_reserved_bytes", ("reserved",), "Size that the server has granted to uploads. Absent without a server."),
    ("quarn2_free_bytes", ("free",), "Size limit without all of the other sizes. Absent if the limit is unknown."),
    ("quarn2_size_limit_bytes", ("limits", "size"), "Size limit. Absent if it is unknown, or if there is none."),
    ("quarn2_users", ("users",), "Users with backups."),
)


def _gauges(status):
    for name, path, text in _GAUGES:
        value = status
        for key in path:
            value = value[key]
        yield Metric(name, text, _number(value))


def _times(status):
    for which in ("oldest", "newest"):
        yield Metric(f"quarn2_{which}_backup_timestamp_seconds", f"Begin of the local day of the {which} backup.",
                     _number(day_seconds(status[which])))


def _forecast(status):
    """Omits the sample when there is no data, or when the forecast time is more than a year away."""
    samples = [((begin, bound), forecast[bound + "_days"] * _SECONDS_PER_DAY)
               for begin, forecast in status["forecast"].items() for bound in ("expected", "earliest", "latest")
               if forecast["has_data"] and forecast[bound + "_days"] is not None]
    return Metric("quarn2_forecast_seconds", "Time until evictions or refusals of uploads begin, by the trend.", samples,
                  ("begin", "bound"))


def _verification(status):
    """Yields no samples for a storage that has never been verified."""
    last = status["verification"] or {"time": None, "backups": None, "content": None, "problems": None}
    yield Metric("quarn2_verification_timestamp_seconds", "End of the last verification.", _number(seconds(last["time"])))
    yield Metric("quarn2_verification_backups", "Backups that the last verification compared with the storage.",
                 _number(last["backups"]))
    yield Metric("quarn2_verification_downloaded_backups", "Backups that the last verification downloaded.",
                 _number(last["content"]))
    yield Metric("quarn2_verification_problems", "Problems that the last verification found.", _number(last["problems"]))


def _deletions(status):
    deletions = status["deletions"]
    yield Metric("quarn2_deletions_total", "Deleted backups since the last rotation of the events.",
                 [((reason,), sums["backups"]) for reason, sums in deletions.items()], ("reason",), True)
    yield Metric("quarn2_deleted_bytes_total", "Size of the deleted backups since the last rotation of the events.",
                 [((reason,), sums["bytes"]) for reason, sums in deletions.items()], ("reason",), True)


def status_metrics(status, findings):
    """Returns the metrics of the object of `--status`. `findings` is the number of its findings."""
    limits = {"full": status["limits"]["full"], "daily": status["limits"]["daily"]}
    overdue = len(status["overdue"])
    return [
        *_gauges(status), *_times(status),
        Metric("quarn2_count_limit", "Backups that the server keeps for each user. Absent if unknown or unlimited.",
               _each(limits), ("type",)),
        Metric("quarn2_backups", "Backups by type, or by the state of those that are not complete.",
               _each(status["backups"]), ("type",)),
        Metric("quarn2_overdue_users", "Users whose newest complete backup is too old, or who have none.", [((), overdue)]),
        Metric("quarn2_max_age_seconds", "Age from which a user is overdue.",
               [((), status["max_age_hours"] * _SECONDS_PER_HOUR)]),
        # The findings of --status are the overdue users and the parts of the state that could not be read.
        Metric("quarn2_unreadable_parts", "Info files and other parts of the state that could not be read.",
               [((), max(0, findings - overdue))]),
        Metric("quarn2_server_running", "1 while a size control server is ready, else 0.",
               [((), int(status["server"]["status"] == "runs"))]),
        _forecast(status), *_verification(status), *_deletions(status)]


def report_metrics(is_success, now):
    """Returns the metrics that every file contains, also after a failure."""
    return [Metric("quarn2_report_success", "1 if quarn2_report made this report, 0 if it failed.",
                   [((), int(is_success))]),
            Metric("quarn2_report_timestamp_seconds", "Time of this report.", [((), now)])]


def user_metrics(backups):
    """Returns the metrics of each user, from the objects of `--list`.

    Names that differ only in bytes that are not valid UTF-8 have the same text, and two samples with the same labels
    would make the complete file invalid. The values of such users are added.
    """
    sizes, counts, newest = {}, {}, {}
    for one in backups:
        if one["state"] != "complete":
            continue
        user, seconds = one["user"], day_seconds(one["date"])
        sizes[user] = sizes.get(user, 0) + (one["size"] or 0)
        counts[user] = counts.get(user, 0) + 1
        if seconds is not None:
            newest[user] = max(newest.get(user, seconds), seconds)
    return [Metric("quarn2_user_used_bytes", "Size of the complete backups of the user.", _users(sizes), ("user",)),
            Metric("quarn2_user_backups", "Complete backups of the user.", _users(counts), ("user",)),
            Metric("quarn2_user_newest_backup_timestamp_seconds", "Begin of the local day of the user's newest backup.",
                   _users(newest), ("user",))]


def _users(values):
    return [((user,), value) for user, value in values.items()]
