"""Reads info files: finds the existing backups, and the backups that a daily or a restore needs."""

import datetime
import os

from .names import is_date
from .site import Problem

MAX_INFO_BYTES = 2**20


def read_info(path):
    """Returns the fields of an info file, {} when the file does not exist."""
    try:
        with open(path, "rb") as file:
            data = file.read(MAX_INFO_BYTES + 1)
    except FileNotFoundError:
        return {}
    except OSError as error:
        raise Problem(f"info file '{path}' cannot be read: {error.strerror}") from None
    if len(data) > MAX_INFO_BYTES:
        raise Problem(f"info file '{path}' is larger than {MAX_INFO_BYTES} bytes")
    lines = data.decode(errors="replace").split("\n")
    return dict(line.rstrip("\r").split("=", 1) for line in lines if "=" in line)


class Backup:
    """A finished backup. `info_path` is the path of its info file. The index path begins with it, without ".info"."""

    def __init__(self, user, date, info_path, fields):
        self.user = user
        self.date = date
        self.info_path = info_path
        self.fields = fields

    @property
    def is_full(self):
        return self.fields.get("type") == "full"

    @property
    def stem(self):
        return self.info_path[:-len(".info")]

    @property
    def last_slice(self):
        return self.fields.get("last-slice", "").split(" ")[0]

    @property
    def format(self):
        return "dar" if self.last_slice.endswith(".dar") else "tar"

    @property
    def index(self):
        """The path of the index, which a daily is based on."""
        return self.stem + (".1.dar" if self.format == "dar" else ".tgz")

    def is_base_of(self, daily):
        """True unless the daily's info file names another full backup."""
        base = daily.fields.get("base", "").rpartition("/")[2]
        return not base or base.startswith(f"F{self.date}.{self.user}.")


class Backups:
    """The backups in an info root. `ledger` is the directory of the ledger, None if this info root has no ledger."""

    def __init__(self, info_root, ledger=None):
        self.info_root = info_root
        self.ledger = ledger

    def find(self, user, date):
        """Returns the finished backup, None when it does not exist."""
        name = f"{date}.{user}.info"
        for below in ("", date, os.path.join(user, date)):
            path = os.path.join(self.info_root, below, name)
            fields = read_info(path)
            if not fields:
                continue
            is_open = date != "custom" and self._is_unfinished(user, date)
            return Backup(user, date, path, fields) if _is_finished(fields) and not is_open else None
        return None

    def _is_unfinished(self, user, date):
        if self.ledger is None:
            return False
        for letter in ("F", "I", ""):
            path = os.path.join(self.ledger, f"{letter}{date}.{user}")
            if os.path.exists(path) and "completed" not in read_info(path):
                return True
        return False

    def dates(self, user):
        """Returns the dates that may have a backup of the user, sorted."""
        ending = f".{user}.info"
        found = set()
        for directory in self._directories(user):
            for name in _names(directory):
                if name.endswith(ending) and is_date(name[:-len(ending)]):
                    found.add(name[:-len(ending)])
        return sorted(found)

    def _directories(self, user):
        yield self.info_root
        for place in (self.info_root, os.path.join(self.info_root, user)):
            for name in _names(place):
                if is_date(name):
                    yield os.path.join(place, name)

    def of_user(self, user):
        found = (self.find(user, date) for date in self.dates(user))
        return [backup for backup in found if backup]

    def users(self):
        """Returns the names of all users with an info file."""
        found = set()
        for directory, _, names in os.walk(self.info_root):
            for name in names:
                date, _, user = name.removesuffix(".info").partition(".")
                if name.endswith(".info") and user and (is_date(date) or date == "custom"):
                    found.add(user)
        return sorted(found)


def _names(directory):
    try:
        return os.listdir(directory)
    except (FileNotFoundError, NotADirectoryError):
        return []


def _is_finished(fields):
    return "finished" in fields and "deleted" not in fields


def base_for(backups, date, full_day, archive_format):
    """Returns the full backup that a daily of this date is based on, None when a full backup is due.

    `full_day` is 0 for Monday. Ignores a full backup from before the most recent `full_day`, and a full backup whose
    index is missing or has another format.
    """
    today = datetime.date.fromisoformat(date)
    first = (today - datetime.timedelta((today.weekday() - full_day) % 7)).isoformat()
    if first == date:
        return None
    fulls = [backup for backup in backups if backup.is_full and first <= backup.date < date]
    newest = max(fulls, key=lambda backup: backup.date, default=None)
    if newest is None or newest.format != archive_format or not os.path.exists(newest.index):
        return None
    return newest


def chain_for(backups, date, all_dailies):
    """Returns the backups that restore the state of a date, in their order. Raises Problem without a full backup."""
    full, dailies = None, []
    for backup in backups:
        if backup.date > date:
            break
        if backup.is_full:
            full, dailies = backup, []
        else:
            dailies.append(backup)
    if full is None:
        raise Problem(f"there is no full backup up to {date}")
    if not all_dailies:
        dailies = dailies[-1:]
    for daily in dailies:
        # Restoring a daily over a full backup other than its base would mix files of different states.
        if not full.is_base_of(daily):
            raise Problem(f"the backup of {daily.date} was made on '{daily.fields['base']}', which is not there")
    return [full] + dailies
